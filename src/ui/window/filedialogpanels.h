// The open and save panels of the window, as QFileDialog.
#pragma once

#include <QCoreApplication>
#include <QStringList>

#include "model/cropmodel.h"

class QWidget;

namespace orvane {

/// Modal file dialogs over the window. Main thread only. Does not own the
/// window, which must outlive it.
class FileDialogPanels : public Panels {
    Q_DECLARE_TR_FUNCTIONS(FileDialogPanels)

public:
    explicit FileDialogPanels(QWidget* window);

    QList<QUrl> chooseImagesToOpen(const QList<ImageType>& types) override;
    std::optional<QUrl> chooseSaveDestination(const QString& proposedName, const ImageType& type) override;

    /// The name patterns of a type: every extension it is known by, in lower
    /// and upper case ("*.jpeg *.JPEG *.jpg *.JPG …"), its preferred one first.
    static QStringList patterns(const ImageType& type);
    /// The open dialog's filters: all the types together first, then one per type.
    static QStringList openFilters(const QList<ImageType>& types);
    /// The save dialog's one filter: the type's own patterns.
    static QString saveFilter(const ImageType& type);

private:
    QWidget* m_window;
};

} // namespace orvane
