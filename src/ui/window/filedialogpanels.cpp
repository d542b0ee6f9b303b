#include "ui/window/filedialogpanels.h"

#include <QFileDialog>
#include <QMimeDatabase>

namespace orvane {

namespace {

QString typeName(const ImageType& type)
{
    const QMimeType mime = QMimeDatabase().mimeTypeForName(type.mimeName());
    QString name = mime.isValid() ? mime.comment() : QString();
    if (name.isEmpty()) {
        const QString extension = type.preferredExtension();
        name = extension.isEmpty() ? type.mimeName() : extension.toUpper();
    }
    return name;
}

} // namespace

FileDialogPanels::FileDialogPanels(QWidget* window)
    : m_window(window)
{
}

QStringList FileDialogPanels::patterns(const ImageType& type)
{
    QStringList extensions;
    if (!type.preferredExtension().isEmpty())
        extensions << type.preferredExtension().toLower();
    const QMimeType mime = QMimeDatabase().mimeTypeForName(type.mimeName());
    if (mime.isValid()) {
        for (const QString& suffix : mime.suffixes()) {
            // Keep only the extensions that really name this type (image/heif
            // lists heic too, which is a type of its own here).
            const std::optional<ImageType> named = ImageType::fromExtension(suffix);
            if (named && *named == type && !extensions.contains(suffix.toLower()))
                extensions << suffix.toLower();
        }
    }
    QStringList result;
    for (const QString& extension : std::as_const(extensions)) {
        result << QStringLiteral("*.") + extension;
        // Name filters are case-sensitive on Linux; cameras write PHOTO.JPG.
        result << QStringLiteral("*.") + extension.toUpper();
    }
    return result;
}

QStringList FileDialogPanels::openFilters(const QList<ImageType>& types)
{
    QStringList all;
    QStringList perType;
    for (const ImageType& type : types) {
        const QStringList own = patterns(type);
        if (own.isEmpty())
            continue;
        all << own;
        perType << QStringLiteral("%1 (%2)").arg(typeName(type), own.join(QLatin1Char(' ')));
    }
    QStringList filters;
    if (!all.isEmpty())
        filters << tr("Images (%1)").arg(all.join(QLatin1Char(' ')));
    filters << perType;
    return filters;
}

QString FileDialogPanels::saveFilter(const ImageType& type)
{
    const QStringList own = patterns(type);
    if (own.isEmpty())
        return tr("All files (*)");
    return QStringLiteral("%1 (%2)").arg(typeName(type), own.join(QLatin1Char(' ')));
}

QList<QUrl> FileDialogPanels::chooseImagesToOpen(const QList<ImageType>& types)
{
    QFileDialog dialog(m_window, tr("Open Images"));
    dialog.setAcceptMode(QFileDialog::AcceptOpen);
    // Files only, several at once: folders enter the queue only by a drop.
    dialog.setFileMode(QFileDialog::ExistingFiles);
    dialog.setNameFilters(openFilters(types));
    if (dialog.exec() != QDialog::Accepted)
        return {};
    return dialog.selectedUrls();
}

std::optional<QUrl> FileDialogPanels::chooseSaveDestination(const QString& proposedName, const ImageType& type)
{
    QFileDialog dialog(m_window, tr("Save as New"));
    dialog.setAcceptMode(QFileDialog::AcceptSave);
    dialog.setFileMode(QFileDialog::AnyFile);
    dialog.setNameFilter(saveFilter(type));
    if (!type.preferredExtension().isEmpty())
        dialog.setDefaultSuffix(type.preferredExtension());
    dialog.selectFile(proposedName);
    if (dialog.exec() != QDialog::Accepted)
        return std::nullopt;
    const QList<QUrl> urls = dialog.selectedUrls();
    if (urls.isEmpty())
        return std::nullopt;
    return urls.first();
}

} // namespace orvane
