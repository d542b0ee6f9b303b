#include "ui/queue/queuedrawer.h"

#include <QBoxLayout>
#include <QEvent>
#include <QResizeEvent>
#include <QFrame>
#include <QLabel>
#include <QListView>
#include <QPainter>
#include <QScrollBar>
#include <QSet>
#include <QShortcut>
#include <QToolButton>

#include "model/cropmodel.h"
#include "ui/window/coalescedrefresh.h"
#include "ui/style/painting.h"
#include "ui/queue/queuelistmodel.h"
#include "ui/queue/queuerowdelegate.h"
#include "ui/preview/scaledimagecache.h"
#include "ui/style/symbols.h"
#include "ui/style/theme.h"

namespace orvane {

QueueDrawer::QueueDrawer(CropModel* model, QWidget* parent)
    : QWidget(parent)
    , m_model(model)
    // Thumbnails are small; room for a large queue and a change of screen.
    , m_thumbnails(new ScaledImageCache(4096, this))
    , m_rows(new QueueListModel(model, this))
{
    setObjectName(QStringLiteral("queueDrawer"));
    setFixedWidth(drawerWidth);

    m_title = new QLabel(tr("Queue"), this);
    m_title->setObjectName(QStringLiteral("queueTitle"));
    m_count = new QLabel(this);
    m_count->setObjectName(QStringLiteral("queueCount"));
    m_header = new QWidget(this);
    m_header->setObjectName(QStringLiteral("queueHeader"));
    auto* header = new QHBoxLayout(m_header);
    header->setContentsMargins(12, 10, 12, 10);
    header->addWidget(m_title);
    header->addStretch(1);
    header->addWidget(m_count);

    m_list = new QListView(this);
    m_list->setObjectName(QStringLiteral("queueList"));
    m_list->setModel(m_rows);
    m_list->setItemDelegate(new QueueRowDelegate(model, m_thumbnails, m_list));
    m_list->setSelectionMode(QAbstractItemView::SingleSelection);
    m_list->setUniformItemSizes(true);
    m_list->setFrameShape(QFrame::NoFrame);
    m_list->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    m_list->setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    m_list->setEditTriggers(QAbstractItemView::NoEditTriggers);
    // The drawer's own bar colour shows through the list.
    m_list->setAutoFillBackground(false);
    m_list->viewport()->setAutoFillBackground(false);
    connect(m_list->selectionModel(), &QItemSelectionModel::selectionChanged, this, &QueueDrawer::selectionChanged);

    m_add = new QToolButton(this);
    m_add->setObjectName(QStringLiteral("queueAdd"));
    m_add->setText(tr("Add"));
    m_add->setIcon(Symbols::icon(Symbol::Plus));
    m_add->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    m_add->setAutoRaise(true);
    connect(m_add, &QToolButton::clicked, this, &QueueDrawer::openRequested);

    m_remove = new QToolButton(this);
    m_remove->setObjectName(QStringLiteral("queueRemove"));
    m_remove->setIcon(Symbols::icon(Symbol::Trash));
    m_remove->setToolButtonStyle(Qt::ToolButtonIconOnly);
    m_remove->setAutoRaise(true);
    m_remove->setAccessibleName(tr("Remove"));
    m_remove->setToolTip(tr("Remove the selected image (Delete)"));
    connect(m_remove, &QToolButton::clicked, this, &QueueDrawer::removeActive);

    // The window's keys while the drawer is on screen, whichever widget has focus.
    m_backspace = new QShortcut(QKeySequence(Qt::Key_Backspace), this, this, &QueueDrawer::removeActive,
                                Qt::WindowShortcut);
    m_delete = new QShortcut(QKeySequence(Qt::Key_Delete), this, this, &QueueDrawer::removeActive,
                             Qt::WindowShortcut);

    auto* footer = new QHBoxLayout;
    footer->setContentsMargins(12, 8, 12, 8);
    footer->setSpacing(8);
    footer->addWidget(m_add);
    footer->addStretch(1);
    footer->addWidget(m_remove);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(m_header);
    layout->addWidget(Painting::rule(Qt::Horizontal, this));
    layout->addWidget(m_list, 1);
    layout->addWidget(Painting::rule(Qt::Horizontal, this));
    layout->addLayout(footer);

    m_scroll.setDuration(250);
    m_scroll.setEasingCurve(QEasingCurve::InOutQuad);
    connect(&m_scroll, &QVariantAnimation::valueChanged, this,
            [this](const QVariant& value) { m_list->verticalScrollBar()->setValue(value.toInt()); });

    // The drawer shows only the items and which one is active: a moving
    // tolerance slider must not repaint the list on every step.
    m_refresh = new CoalescedRefresh(m_model, this, [this] { refresh(); }, [this](CropModel::Property property) {
        if (property == CropModel::Property::ActiveID)
            m_scrollPending = true;
        return property == CropModel::Property::Items || property == CropModel::Property::ActiveID;
    });
    m_list->viewport()->installEventFilter(this);
    connect(m_thumbnails, &ScaledImageCache::imageReady, m_list->viewport(), qOverload<>(&QWidget::update));

    applyStyle();
    refresh();
}

QueueDrawer::~QueueDrawer() = default;

QString QueueDrawer::countText() const { return m_count->text(); }

void QueueDrawer::applyStyle()
{
    const QPalette& p = palette();
    m_title->setFont(Theme::font(Theme::TextStyle::Headline, font()));
    m_count->setFont(Theme::font(Theme::TextStyle::Caption, font()));
    Painting::setTextColour(m_count, Theme::secondary(p));

    using Painting::styleSheetColour;
    const QColor text = p.color(QPalette::WindowText);

    // Borderless buttons on the panel, with a hover fill and a focus ring
    // that shows where the keyboard is (the style's own is too faint here).
    const QString buttons =
        QStringLiteral("QToolButton { border: 1px solid transparent; border-radius: 5px; padding: 3px 6px; }"
                       "QToolButton:hover { background: %1; }"
                       "QToolButton:pressed { background: %2; }"
                       "QToolButton:focus { border: 2px solid %3; padding: 2px 5px; }")
            .arg(styleSheetColour(Theme::quaternary(p)), styleSheetColour(Painting::withOpacity(text, 0.25)),
                 styleSheetColour(Theme::accent(p)));
    m_add->setStyleSheet(buttons);
    m_remove->setStyleSheet(buttons);

    // A thin scroll bar in the panel's own colours: no arrows, no track of
    // its own, a rounded handle in the text colour.
    m_list->verticalScrollBar()->setStyleSheet(
        QStringLiteral("QScrollBar:vertical { background: transparent; width: 8px; margin: 2px 2px 2px 0; }"
                       "QScrollBar::handle:vertical { background: %1; border-radius: 3px; min-height: 24px; }"
                       "QScrollBar::handle:vertical:hover, QScrollBar::handle:vertical:pressed { background: %2; }"
                       "QScrollBar::add-line:vertical, QScrollBar::sub-line:vertical { height: 0; border: none; }"
                       "QScrollBar::add-page:vertical, QScrollBar::sub-page:vertical { background: none; }")
            .arg(styleSheetColour(Painting::withOpacity(text, 0.28)), styleSheetColour(Painting::withOpacity(text, 0.45))));
}

void QueueDrawer::refresh()
{
    const auto& items = m_model->items();

    // The list's reset may move its scroll position; keep it where the user left it.
    const int scrolled = m_list->verticalScrollBar()->value();
    m_rows->refresh();
    m_list->verticalScrollBar()->setValue(scrolled);

    int saved = 0;
    QSet<QUuid> ids;
    for (const CropModel::Item& item : items) {
        saved += item.saved ? 1 : 0;
        ids.insert(item.id);
    }
    m_count->setText(tr("%1/%2").arg(saved).arg(items.size()));
    m_thumbnails->retainOnly(ids);

    const std::optional<QUuid> activeID = m_model->activeID();
    const QModelIndex active = activeID ? m_rows->indexOf(*activeID) : QModelIndex();
    m_applyingSelection = true;
    if (active.isValid())
        m_list->selectionModel()->setCurrentIndex(active, QItemSelectionModel::ClearAndSelect);
    else
        m_list->selectionModel()->clearSelection();
    m_applyingSelection = false;

    const bool canRemove = m_model->active() != nullptr;
    m_remove->setEnabled(canRemove);
    m_backspace->setEnabled(canRemove);
    m_delete->setEnabled(canRemove);

    if (m_scrollPending && active.isValid()) {
        m_scrollPending = false;
        scrollToActive();
    }
    m_list->viewport()->update();
}

bool QueueDrawer::eventFilter(QObject* watched, QEvent* event)
{
    // A shorter list (a taller header, a smaller window) keeps the active row
    // in view if it was in view before.
    if (watched == m_list->viewport() && event->type() == QEvent::Resize) {
        const auto* resize = static_cast<QResizeEvent*>(event);
        const std::optional<QUuid> id = m_model->activeID();
        const QModelIndex active = id ? m_rows->indexOf(*id) : QModelIndex();
        if (active.isValid() && resize->size().height() < resize->oldSize().height()) {
            const QRect row = m_list->visualRect(active);
            if (row.top() >= 0 && row.bottom() < resize->oldSize().height() && row.bottom() >= resize->size().height())
                QMetaObject::invokeMethod(this, &QueueDrawer::scrollToActive, Qt::QueuedConnection);
        }
    }
    return QWidget::eventFilter(watched, event);
}

void QueueDrawer::setHeaderHeight(int height)
{
    if (height < m_header->minimumSizeHint().height()) {
        m_header->setMinimumHeight(0);
        m_header->setMaximumHeight(QWIDGETSIZE_MAX);
    } else {
        m_header->setFixedHeight(height);
    }
}

void QueueDrawer::selectionChanged()
{
    if (m_applyingSelection)
        return;
    const QModelIndexList selected = m_list->selectionModel()->selectedIndexes();
    if (selected.isEmpty()) {
        // An emptied selection calls nothing; the active row is marked again.
        m_refresh->schedule();
        return;
    }
    const QUuid id = selected.first().data(QueueListModel::IdRole).value<QUuid>();
    if (!id.isNull())
        m_model->select(id);
}

void QueueDrawer::removeActive()
{
    if (const std::optional<QUuid> id = m_model->activeID())
        m_model->remove(*id);
}

void QueueDrawer::scrollToActive()
{
    const std::optional<QUuid> id = m_model->activeID();
    const QModelIndex index = id ? m_rows->indexOf(*id) : QModelIndex();
    if (!index.isValid())
        return;
    // Just far enough to bring the row into view, no further.
    const QRect row = m_list->visualRect(index);
    const int viewport = m_list->viewport()->height();
    QScrollBar* bar = m_list->verticalScrollBar();
    int target = bar->value();
    if (row.top() < 0)
        target += row.top();
    else if (row.bottom() >= viewport)
        target += row.bottom() - viewport + 1;
    target = std::clamp(target, bar->minimum(), bar->maximum());
    if (target == bar->value())
        return;
    m_scroll.stop();
    if (!isVisible()) {
        bar->setValue(target);
        return;
    }
    m_scroll.setStartValue(bar->value());
    m_scroll.setEndValue(target);
    m_scroll.start();
}

void QueueDrawer::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.fillRect(rect(), Theme::bar(palette()));
}

void QueueDrawer::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::FontChange)
        applyStyle();
    QWidget::changeEvent(event);
}

} // namespace orvane
