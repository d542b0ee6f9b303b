// The root of the main window: owns the window's model, arranges the drawer,
// header, preview and controls, and takes drops of files and folders.
#pragma once

#include <memory>

#include <QList>
#include <QUrl>
#include <QWidget>

#include "ui/window/filedialogpanels.h"

class QMimeData;
class QStackedLayout;

namespace orvane {

class ControlsView;
class CropModel;
class DropZone;
class ImageSource;
class HeaderView;
class ImagePreview;
class QueueDrawer;
class SlideReveal;

/// One per window. Creates the window's CropModel and owns it for the
/// window's lifetime; every view inside works on that one model. Which
/// sections show follows from the model alone. Main thread only.
class ContentView : public QWidget {
    Q_OBJECT

public:
    /// source null reads the files themselves on the shared worker pool.
    explicit ContentView(QWidget* parent = nullptr, std::shared_ptr<ImageSource> source = nullptr);
    ~ContentView() override;

    /// The window's model, owned by this view.
    CropModel* model() const { return m_model.get(); }

    /// True while a drag carrying file URLs hovers over the window.
    bool isTargeted() const { return m_targeted; }

    /// The local file URLs of dropped data, in drop order; every other URL
    /// (web addresses, remote files) left out.
    static QList<QUrl> fileUrls(const QMimeData* data);

    /// Opens urls through the model in one call; the images join the queue
    /// as they are read, after those of an open still running.
    void openUrls(const QList<QUrl>& urls);

    /// Runs the model's open panel and opens what the user picks.
    void openPanel();

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
    void dragLeaveEvent(QDragLeaveEvent* event) override;
    void dropEvent(QDropEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void setTargeted(bool targeted);
    void refresh(bool animated);
    void showPage(QWidget* page, bool animated);

    FileDialogPanels m_panels;
    std::unique_ptr<CropModel> m_model;

    QWidget* m_drawerPlace;
    QueueDrawer* m_drawer;
    QWidget* m_headerPlace;
    HeaderView* m_header;
    QStackedLayout* m_previewPages;
    DropZone* m_dropZone;
    ImagePreview* m_preview;
    ControlsView* m_controls;
    SlideReveal* m_drawerReveal;
    SlideReveal* m_headerReveal;

    bool m_targeted = false;
};

} // namespace orvane
