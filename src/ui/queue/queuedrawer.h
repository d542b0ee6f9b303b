// The narrow panel at the left of the main window that lists the queue.
#pragma once

#include <QVariantAnimation>
#include <QWidget>

class QLabel;
class QListView;
class QShortcut;
class QToolButton;

namespace orvane {

class CoalescedRefresh;
class CropModel;
class QueueListModel;
class ScaledImageCache;

/// The queue drawer: a header with "Queue" and the saved/total count, the list
/// of queued images (thumbnail, name, saved mark) with its selection bound to
/// the model's active item, and a footer with "Add" and "Remove". 208 points
/// wide on the bar colour. Whether it is on screen is the window's decision;
/// while it is, Backspace and Delete remove the active image.
///
/// Reads the model afresh on every refresh and calls only its operations
/// (select, remove); "Add" asks the window to run the open panel through
/// openRequested(), so that the window can show its progress. Keeps
/// thumbnails (one per item) and nothing else of the model's. Main thread
/// only; the model is observed, not owned, and must outlive the drawer.
class QueueDrawer : public QWidget {
    Q_OBJECT

public:
    explicit QueueDrawer(CropModel* model, QWidget* parent = nullptr);
    ~QueueDrawer() override;

    /// The drawer's fixed width, in points.
    static constexpr int drawerWidth = 208;

    /// The progress text as shown: saved items "/" all items, e.g. "2/5".
    QString countText() const;
    QListView* listView() const { return m_list; }
    QToolButton* addButton() const { return m_add; }
    QToolButton* removeButton() const { return m_remove; }
    /// The thumbnails the rows draw from (one good copy per item).
    const ScaledImageCache& thumbnails() const { return *m_thumbnails; }

    /// Removes the active item, if there is one.
    void removeActive();

    /// Gives the header ("Queue" and the count) this height, so that the rule
    /// under it lines up with the one under the window's header; a height
    /// below what its text needs (or -1) gives it its natural height.
    void setHeaderHeight(int height);

Q_SIGNALS:
    /// The user asked to add images ("Add"): the window runs the model's open panel.
    void openRequested();

protected:
    void paintEvent(QPaintEvent* event) override;
    void changeEvent(QEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void refresh();
    void applyStyle();
    void selectionChanged();
    void scrollToActive();

    CropModel* m_model;
    CoalescedRefresh* m_refresh = nullptr;
    ScaledImageCache* m_thumbnails;
    QueueListModel* m_rows;
    QWidget* m_header;
    QLabel* m_title;
    QLabel* m_count;
    QListView* m_list;
    QToolButton* m_add;
    QToolButton* m_remove;
    QShortcut* m_backspace;
    QShortcut* m_delete;
    QVariantAnimation m_scroll;
    bool m_applyingSelection = false;
    bool m_scrollPending = true; // the active item changed since the list last followed it
};

} // namespace orvane
