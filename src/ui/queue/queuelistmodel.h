// The queue as rows of a Qt item model, for the drawer's list.
#pragma once

#include <QAbstractListModel>
#include <QUuid>

namespace orvane {

class CropModel;

/// Presents the model's items as rows, in queue order. Reads the model afresh
/// for every question; it remembers only how many rows the list was last told
/// about, because Qt's views need to be told when that number changes.
/// refresh() brings the rows in line with the model. Main thread only; the
/// model is observed, not owned, and must outlive this object.
class QueueListModel : public QAbstractListModel {
    Q_OBJECT

public:
    enum Role {
        IdRole = Qt::UserRole + 1, ///< the item's id (QUuid)
        SavedRole,                 ///< whether the item has been saved (bool)
    };

    explicit QueueListModel(CropModel* model, QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    /// Display and tool tip: the file name. IdRole, SavedRole as above.
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;

    /// Tells the views: a reset when the number of items changed, else that
    /// every row may have changed.
    void refresh();

    /// The row of the item with this id; invalid when none.
    QModelIndex indexOf(const QUuid& id) const;

private:
    CropModel* m_model;
    int m_rows = 0;
};

} // namespace orvane
