// Orvane's main window: the content view and the menu bar.
#pragma once

#include <QMainWindow>

class QAction;
class QMenu;

namespace orvane {

class ContentView;

/// One window with its own queue. 720 × 540 when it first opens; its content
/// keeps it at least 480 × 360.
class MainWindow : public QMainWindow {
    Q_OBJECT

public:
    explicit MainWindow(QWidget* parent = nullptr);

    ContentView* contentView() const { return m_content; }
    /// The Help menu: "Orvane Help", a separator, "About Orvane".
    QMenu* helpMenu() const { return m_helpMenu; }
    /// The "About Orvane" item, after which other shell commands are inserted.
    QAction* aboutAction() const { return m_aboutAction; }
    /// The "More Apps" menu, empty until the catalog fills it.
    QMenu* moreAppsMenu() const { return m_moreAppsMenu; }

private:
    void createMenus();
    void showHelp();
    void showAbout();

    ContentView* m_content;
    QMenu* m_helpMenu = nullptr;
    QAction* m_aboutAction = nullptr;
    QMenu* m_moreAppsMenu = nullptr;
};

} // namespace orvane
