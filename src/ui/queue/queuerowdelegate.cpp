#include "ui/queue/queuerowdelegate.h"

#include <cmath>

#include <QPainter>
#include <QPainterPath>

#include "model/cropmodel.h"
#include "ui/style/painting.h"
#include "ui/preview/previewgeometry.h"
#include "ui/preview/scaledimagecache.h"
#include "ui/style/symbols.h"
#include "ui/style/theme.h"

namespace orvane {

namespace {

constexpr int rowPaddingY = 2;
constexpr int rowGap = 1;           // between the highlights of neighbouring rows
constexpr int highlightInsetX = 6;
constexpr int contentInsetX = 12;   // lines the row up with the drawer's header and footer
constexpr int spacing = 9;
constexpr int minimumSpace = 4;
constexpr int markSide = 14;
constexpr double thumbnailRadius = 5.0;
constexpr double highlightRadius = 5.0;

} // namespace

QueueRowDelegate::QueueRowDelegate(CropModel* model, ScaledImageCache* thumbnails, QObject* parent)
    : QStyledItemDelegate(parent)
    , m_model(model)
    , m_thumbnails(thumbnails)
{
}

QSize QueueRowDelegate::thumbnailPixels(qint64 width, qint64 height, double devicePixelRatio)
{
    const QRectF fitted = PreviewGeometry::fittedRect(width, height, QSizeF(thumbnailSide, thumbnailSide));
    const double dpr = devicePixelRatio > 0 ? devicePixelRatio : 1.0;
    return QSize(std::max(1, int(std::lround(fitted.width() * dpr))),
                 std::max(1, int(std::lround(fitted.height() * dpr))));
}

QSize QueueRowDelegate::sizeHint(const QStyleOptionViewItem& option, const QModelIndex&) const
{
    return QSize(option.rect.width() > 0 ? option.rect.width() : 200,
                 thumbnailSide + 2 * rowPaddingY + 2 * rowGap);
}

void QueueRowDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const
{
    const auto& items = m_model->items();
    if (index.row() < 0 || std::size_t(index.row()) >= items.size())
        return;
    const CropModel::Item& item = items[std::size_t(index.row())];

    painter->save();
    painter->setRenderHint(QPainter::Antialiasing);

    const QRect row = option.rect;
    const bool selected = option.state & QStyle::State_Selected;
    const QPalette::ColorGroup group = (option.state & QStyle::State_Active) ? QPalette::Active : QPalette::Inactive;
    const QColor text = option.palette.color(group, selected ? QPalette::HighlightedText : QPalette::Text);

    if (selected) {
        // An unfocused list marks its row more quietly, like a sidebar.
        const bool quiet = !(option.state & QStyle::State_HasFocus) && group == QPalette::Inactive;
        const QColor highlight = Theme::selection(option.palette, group, quiet);
        painter->setPen(Qt::NoPen);
        painter->setBrush(highlight);
        painter->drawRoundedRect(QRectF(row).adjusted(highlightInsetX, rowGap, -highlightInsetX, -rowGap),
                                 highlightRadius, highlightRadius);
    }

    // The thumbnail: the whole image letterboxed in its frame on a faint square.
    const QRectF frame(row.left() + contentInsetX, row.top() + (row.height() - thumbnailSide) / 2.0, thumbnailSide,
                       thumbnailSide);
    QPainterPath rounded;
    rounded.addRoundedRect(frame, thumbnailRadius, thumbnailRadius);
    painter->fillPath(rounded, Painting::withOpacity(text, 0.15));
    const QRectF fitted = PreviewGeometry::fittedRect(item.width(), item.height(), frame.size())
                              .translated(frame.topLeft());
    const double dpr = painter->device() ? painter->device()->devicePixelRatioF() : 1.0;
    const QSize pixels = thumbnailPixels(item.width(), item.height(), dpr);
    const QImage thumbnail = m_thumbnails->image(item.id, item.summary->thumbnail, pixels);
    if (!thumbnail.isNull()) {
        painter->save();
        painter->setClipPath(rounded);
        const bool enlarging = ScaledImageCache::enlarges(QSize(int(item.width()), int(item.height())), pixels);
        // On whole device pixels, so that the copy made for this size is drawn
        // as it is; a stand-in of another size is stretched, smoothly only
        // when reducing, so that a tiny image shows sharp pixels.
        const QRectF target(QPointF(std::round(fitted.x() * dpr) / dpr, std::round(fitted.y() * dpr) / dpr),
                            QSizeF(pixels) / dpr);
        painter->setRenderHint(QPainter::SmoothPixmapTransform, thumbnail.size() != pixels && !enlarging);
        painter->drawImage(target, thumbnail);
        painter->restore();
    }

    // The saved mark at the trailing end, then the name in what is left.
    int right = row.right() - contentInsetX;
    if (item.saved) {
        const QPixmap mark = Symbols::tinted(Symbol::CheckCircle, markSide, Theme::green(option.palette), dpr);
        painter->drawPixmap(QPointF(right - markSide + 1, row.top() + (row.height() - markSide) / 2.0), mark);
        right -= markSide + minimumSpace;
    } else {
        right -= minimumSpace;
    }
    const int left = int(frame.right()) + spacing;
    const QFont font = Theme::font(Theme::TextStyle::Callout, option.font);
    const QFontMetrics metrics(font);
    const QRect nameRect(left, row.top(), std::max(0, right - left), row.height());
    painter->setFont(font);
    painter->setPen(text);
    painter->drawText(nameRect, Qt::AlignLeft | Qt::AlignVCenter,
                      metrics.elidedText(item.url.fileName(), Qt::ElideMiddle, nameRect.width()));
    painter->restore();
}

} // namespace orvane
