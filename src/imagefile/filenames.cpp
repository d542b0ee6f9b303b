// The file-name rules the window and orvane-trim share: accepted names,
// their order, folders expanded, and the name a trimmed copy is offered.
#include "imagefile/imagefile.h"

#include <algorithm>
#include <vector>

#include <QCollator>
#include <QDir>
#include <QFileInfo>
#include <QLocale>

namespace orvane::ImageFile {

namespace {

const QLocale& collationLocale()
{
    static const QLocale locale = QLocale::system().language() == QLocale::C ? QLocale(QLocale::English)
                                                                             : QLocale::system();
    return locale;
}

// The last path component's extension: the text after its last full stop,
// empty when there is none or the only full stop starts the name (".png").
QString extensionOf(const QString& path)
{
    const QString name = QFileInfo(path).fileName();
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    return dot > 0 ? name.mid(dot + 1) : QString();
}

} // namespace

bool isAccepted(const QString& path)
{
    // Only the extensions of the accepted types themselves: a type that
    // merely inherits from one (a camera raw from TIFF, motion JPEG from
    // JPEG) is another format, which writing back would destroy.
    const std::optional<ImageType> type = ImageType::fromExtension(extensionOf(path).toLower());
    return type && acceptedTypes().contains(*type);
}

bool fileNameLessThan(const QString& a, const QString& b)
{
    thread_local const QCollator collator = [] {
        QCollator c(collationLocale());
        c.setNumericMode(true);
        c.setCaseSensitivity(Qt::CaseInsensitive);
        return c;
    }();
    return collator.compare(a, b) < 0;
}

QStringList expandingFolders(const QStringList& paths)
{
    QStringList result;
    for (const QString& path : paths) {
        const QFileInfo info(path); // links followed
        if (!info.isDir()) {
            result.append(path);
            continue;
        }
        // Without QDir::Hidden, names starting with a full stop are skipped;
        // an unreadable folder lists as empty.
        // QDir::System keeps dangling links, pipes, sockets and devices: named
        // like an image, they are images that fail to open, and are counted so.
        const QFileInfoList entries
            = QDir(path).entryInfoList(QDir::Files | QDir::System | QDir::NoDotAndDotDot, QDir::NoSort);
        std::vector<std::pair<QString, QString>> images; // name, path
        for (const QFileInfo& entry : entries) {
            QString name = entry.fileName();
            if (isAccepted(name))
                images.emplace_back(std::move(name), entry.filePath());
        }
        std::stable_sort(images.begin(), images.end(),
                         [](const auto& x, const auto& y) { return fileNameLessThan(x.first, y.first); });
        for (auto& image : images)
            result.append(std::move(image.second));
    }
    return result;
}

QString proposedName(const QString& fileName, const ImageType& type)
{
    const QString name = QFileInfo(fileName).fileName();
    QString extension = extensionOf(name);
    const QString base = extension.isEmpty() ? name : name.left(name.size() - extension.size() - 1);
    if (extension.isEmpty())
        extension = type.preferredExtension();
    if (extension.isEmpty())
        extension = QStringLiteral("png");
    return base + QStringLiteral("-cropped.") + extension;
}

} // namespace orvane::ImageFile
