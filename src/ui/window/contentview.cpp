#include "ui/window/contentview.h"

#include <functional>

#include <QBoxLayout>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFrame>
#include <QGraphicsOpacityEffect>
#include <QMimeData>
#include <QPainter>
#include <QPropertyAnimation>
#include <QStackedLayout>

#include "model/cropmodel.h"
#include "ui/window/coalescedrefresh.h"
#include "ui/controls/controlsview.h"
#include "ui/window/dropzone.h"
#include "ui/window/headerview.h"
#include "ui/preview/imagepreview.h"
#include "ui/style/painting.h"
#include "ui/queue/queuedrawer.h"
#include "ui/window/slidereveal.h"

namespace orvane {

namespace {

// The window's two animations of what it shows, in milliseconds.
constexpr int activeItemChange = 180;
constexpr int drawerChange = 180;

using Painting::rule;

// The preview area: the faint diagonal stripes behind both of its pages (the
// drop zone and the image), painted once here so that they stay put while
// the pages cross-fade over them.
class StripedArea : public QWidget {
public:
    using QWidget::QWidget;

protected:
    void paintEvent(QPaintEvent*) override
    {
        QPainter painter(this);
        painter.fillRect(rect(), palette().color(QPalette::Window));
        ImagePreview::paintStripes(painter, size(), devicePixelRatioF());
    }
};

} // namespace

ContentView::ContentView(QWidget* parent, std::shared_ptr<ImageSource> source)
    : QWidget(parent)
    , m_panels(this)
    , m_model(std::make_unique<CropModel>(&m_panels, nullptr, std::move(source)))
{
    setObjectName(QStringLiteral("contentView"));
    setAcceptDrops(true);
    setMinimumSize(480, 360);

    // The drawer's place, left of the main column, with its vertical rule.
    m_drawerPlace = new QWidget(this);
    m_drawerPlace->setObjectName(QStringLiteral("drawerPlace"));
    auto* drawerLayout = new QHBoxLayout(m_drawerPlace);
    drawerLayout->setContentsMargins(0, 0, 0, 0);
    drawerLayout->setSpacing(0);
    m_drawer = new QueueDrawer(m_model.get(), m_drawerPlace);
    m_drawer->setObjectName(QStringLiteral("drawer"));
    drawerLayout->addWidget(m_drawer);
    drawerLayout->addWidget(rule(Qt::Vertical, m_drawerPlace));

    // The header and its rule.
    m_headerPlace = new QWidget(this);
    m_headerPlace->setObjectName(QStringLiteral("headerPlace"));
    auto* headerLayout = new QVBoxLayout(m_headerPlace);
    headerLayout->setContentsMargins(0, 0, 0, 0);
    headerLayout->setSpacing(0);
    m_header = new HeaderView(m_model.get(), m_headerPlace);
    m_header->setObjectName(QStringLiteral("header"));
    headerLayout->addWidget(m_header);
    headerLayout->addWidget(rule(Qt::Horizontal, m_headerPlace));

    // The preview area: the drop zone while no image is active, else the image.
    auto* previewArea = new StripedArea(this);
    previewArea->setObjectName(QStringLiteral("previewArea"));
    previewArea->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    m_previewPages = new QStackedLayout(previewArea);
    // Both pages stay laid out over each other, so that the one leaving can
    // fade out while the other fades in; which are visible is decided here.
    m_previewPages->setStackingMode(QStackedLayout::StackAll);
    m_dropZone = new DropZone(previewArea);
    m_preview = new ImagePreview(m_model.get(), previewArea);
    m_preview->setObjectName(QStringLiteral("preview"));
    m_previewPages->addWidget(m_dropZone);
    m_previewPages->addWidget(m_preview);
    m_preview->hide();

    m_controls = new ControlsView(m_model.get(), this);
    m_controls->setObjectName(QStringLiteral("controls"));
    connect(m_dropZone, &DropZone::openRequested, this, &ContentView::openPanel);
    connect(m_controls, &ControlsView::openRequested, this, &ContentView::openPanel);
    connect(m_drawer, &QueueDrawer::openRequested, this, &ContentView::openPanel);

    auto* column = new QVBoxLayout;
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
    column->addWidget(m_headerPlace);
    column->addWidget(previewArea, 1);
    column->addWidget(rule(Qt::Horizontal, this));
    column->addWidget(m_controls);

    auto* root = new QHBoxLayout(this);
    root->setContentsMargins(0, 0, 0, 0);
    root->setSpacing(0);
    root->addWidget(m_drawerPlace);
    root->addLayout(column, 1);

    m_drawerPlace->hide();
    m_headerPlace->hide();
    m_drawerReveal = new SlideReveal(m_drawerPlace, Qt::Horizontal, drawerChange);
    m_headerReveal = new SlideReveal(m_headerPlace, Qt::Vertical, activeItemChange);
    // The header's size drives the image's place and the drawer's header.
    m_headerPlace->installEventFilter(this);

    new CoalescedRefresh(m_model.get(), this, [this] { refresh(true); });
    refresh(false);
}

ContentView::~ContentView() = default;

void ContentView::refresh(bool animated)
{
    const bool hasActive = m_model->active() != nullptr;
    const bool several = m_model->items().size() >= 2;

    m_drawerReveal->setShown(several, animated);
    if (hasActive != m_headerReveal->isShown()) {
        // The header reads the new item before it slides in.
        if (hasActive)
            m_header->refresh();
        m_headerReveal->setShown(hasActive, animated);
    }

    QWidget* page = hasActive ? static_cast<QWidget*>(m_preview) : m_dropZone;
    if (m_previewPages->currentWidget() != page)
        showPage(page, animated && isVisible());
}

void ContentView::showPage(QWidget* page, bool animated)
{
    QWidget* leaving = m_previewPages->currentWidget();
    m_previewPages->setCurrentWidget(page); // raises it: it takes the clicks
    page->show();
    if (!animated) {
        for (QWidget* other : {static_cast<QWidget*>(m_dropZone), static_cast<QWidget*>(m_preview)}) {
            other->setGraphicsEffect(nullptr);
            other->setVisible(other == page);
        }
        return;
    }
    // A cross-fade over the area's stripes: the leaving page fades out as the
    // new one fades in, so nothing flashes and the stripes never go.
    const auto fade = [](QWidget* widget, double from, double to, std::function<void()> done) {
        auto* effect = new QGraphicsOpacityEffect(widget);
        effect->setOpacity(from);
        widget->setGraphicsEffect(effect);
        auto* animation = new QPropertyAnimation(effect, "opacity", effect);
        animation->setDuration(activeItemChange);
        animation->setEasingCurve(QEasingCurve::InOutQuad);
        animation->setStartValue(from);
        animation->setEndValue(to);
        // The effect renders the page off screen: drop it once the fade is done.
        connect(animation, &QPropertyAnimation::finished, widget, std::move(done));
        animation->start();
    };
    fade(page, 0.0, 1.0, [page] { page->setGraphicsEffect(nullptr); });
    if (leaving && leaving != page) {
        fade(leaving, 1.0, 0.0, [this, leaving] {
            leaving->setGraphicsEffect(nullptr);
            // Unless it has come back meanwhile.
            if (m_previewPages->currentWidget() != leaving)
                leaving->hide();
        });
    }
}

bool ContentView::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == m_headerPlace
        && (event->type() == QEvent::Resize || event->type() == QEvent::Show || event->type() == QEvent::Hide)) {
        // While the header slides open (or grows to its taller arrangement)
        // the image is fitted into the area it will have once the header is
        // there, so that it does not move; the drawer's header keeps its rule
        // in line with the header's.
        const int current = m_headerPlace->isVisible() ? m_headerReveal->currentExtent() : 0;
        m_preview->setPendingTopInset(std::max(0, m_headerReveal->targetExtent() - current));
        m_drawer->setHeaderHeight(m_headerPlace->isVisible() ? m_headerPlace->height() - 1 : -1);
    }
    return QWidget::eventFilter(watched, event);
}

void ContentView::setTargeted(bool targeted)
{
    if (targeted == m_targeted)
        return;
    m_targeted = targeted;
    m_dropZone->setTargeted(targeted);
    m_preview->setTargeted(targeted);
}

QList<QUrl> ContentView::fileUrls(const QMimeData* data)
{
    QList<QUrl> urls;
    if (!data || !data->hasUrls())
        return urls;
    for (const QUrl& url : data->urls()) {
        if (url.isLocalFile())
            urls << url;
    }
    return urls;
}

void ContentView::dragEnterEvent(QDragEnterEvent* event)
{
    if (fileUrls(event->mimeData()).isEmpty()) {
        event->ignore();
        return;
    }
    event->acceptProposedAction();
    setTargeted(true);
}

void ContentView::dragMoveEvent(QDragMoveEvent* event)
{
    if (fileUrls(event->mimeData()).isEmpty()) {
        event->ignore();
        return;
    }
    event->acceptProposedAction();
}

void ContentView::dragLeaveEvent(QDragLeaveEvent* event)
{
    setTargeted(false);
    event->accept();
}

void ContentView::dropEvent(QDropEvent* event)
{
    setTargeted(false);
    const QList<QUrl> urls = fileUrls(event->mimeData());
    if (urls.isEmpty()) {
        event->ignore();
        return;
    }
    event->acceptProposedAction();
    // Answer the drop at once and open on the next turn of the event loop, so
    // that the application the files came from is not kept waiting.
    QMetaObject::invokeMethod(this, [this, urls] { openUrls(urls); }, Qt::QueuedConnection);
}

void ContentView::openUrls(const QList<QUrl>& urls)
{
    m_model->open(urls);
}

void ContentView::openPanel()
{
    m_model->openPanel();
}

} // namespace orvane
