// Draws one row of the queue drawer's list.
#pragma once

#include <QStyledItemDelegate>

namespace orvane {

class CropModel;
class ScaledImageCache;

/// Paints a queued item as a row: a 34 × 34 letterboxed thumbnail on a faint
/// rounded square, the file name shortened in the middle, and a green check
/// mark when the item is saved. The selected row gets a rounded highlight.
/// Reads the item afresh from the model by row; draws the thumbnail from the
/// cache (one copy per item). Main thread only; neither pointer is owned.
class QueueRowDelegate : public QStyledItemDelegate {
    Q_OBJECT

public:
    QueueRowDelegate(CropModel* model, ScaledImageCache* thumbnails, QObject* parent = nullptr);

    void paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const override;
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;

    /// Side of the thumbnail frame, in points.
    static constexpr int thumbnailSide = 34;
    /// The thumbnail's size in device pixels for an image of width × height
    /// pixels: fitted whole into the frame, aspect kept; at least 1 × 1.
    static QSize thumbnailPixels(qint64 width, qint64 height, double devicePixelRatio);

private:
    CropModel* m_model;
    ScaledImageCache* m_thumbnails;
};

} // namespace orvane
