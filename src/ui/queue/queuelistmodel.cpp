#include "ui/queue/queuelistmodel.h"

#include "model/cropmodel.h"

namespace orvane {

QueueListModel::QueueListModel(CropModel* model, QObject* parent)
    : QAbstractListModel(parent)
    , m_model(model)
    , m_rows(int(model->items().size()))
{
}

int QueueListModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : m_rows;
}

QVariant QueueListModel::data(const QModelIndex& index, int role) const
{
    const auto& items = m_model->items();
    // Between a change of the model and the next refresh the view may still
    // ask about a row that is gone.
    if (!index.isValid() || index.row() < 0 || std::size_t(index.row()) >= items.size())
        return QVariant();
    const CropModel::Item& item = items[std::size_t(index.row())];
    switch (role) {
    case Qt::DisplayRole:
    case Qt::ToolTipRole:
        return item.url.fileName();
    case IdRole:
        return QVariant::fromValue(item.id);
    case SavedRole:
        return item.saved;
    default:
        return QVariant();
    }
}

void QueueListModel::refresh()
{
    const int rows = int(m_model->items().size());
    if (rows != m_rows) {
        beginResetModel();
        m_rows = rows;
        endResetModel();
    } else if (rows > 0) {
        Q_EMIT dataChanged(index(0), index(rows - 1));
    }
}

QModelIndex QueueListModel::indexOf(const QUuid& id) const
{
    const auto& items = m_model->items();
    for (int row = 0; row < m_rows && std::size_t(row) < items.size(); ++row)
        if (items[std::size_t(row)].id == id)
            return index(row);
    return QModelIndex();
}

} // namespace orvane
