// Why a file could not be opened: a diagnosis made after the fact, from the
// file system and the file's first bytes, so that opening itself stays one
// quick yes or no.
#include "imagefile/imagesource.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <QFileInfo>
#include <QMimeDatabase>
#include <QMimeType>

#include "imagefile/imagefile.h"
#include "imagefile/tiffdirectory.h"

namespace orvane::ImageFile {

namespace {

constexpr qint64 kHeadBytes = 4096;

struct Size {
    std::int64_t width = 0;
    std::int64_t height = 0;
    std::int64_t bytesPerPixel = 1;
};

std::uint32_t bigEndian32(const QByteArray& bytes, qsizetype at)
{
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.constData() + at);
    return std::uint32_t(p[0]) << 24 | std::uint32_t(p[1]) << 16 | std::uint32_t(p[2]) << 8 | p[3];
}

std::uint32_t littleEndian32(const QByteArray& bytes, qsizetype at)
{
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.constData() + at);
    return std::uint32_t(p[3]) << 24 | std::uint32_t(p[2]) << 16 | std::uint32_t(p[1]) << 8 | p[0];
}

// The size an image's header claims, read without decoding anything. Absent
// when the header itself cannot be read.
std::optional<Size> headerSize(QFile& file, const QByteArray& head, const ImageType& type)
{
    if (type == ImageType::png()) {
        if (head.size() < 29)
            return std::nullopt;
        static const int bands[] = {1, 0, 3, 1, 2, 0, 4};
        const int colourType = std::uint8_t(head[25]);
        const int samples = colourType < 7 ? bands[colourType] : 0;
        return Size{bigEndian32(head, 16), bigEndian32(head, 20), std::max(1, samples * std::uint8_t(head[24]) / 8)};
    }
    if (type == ImageType::tiff()) {
        const std::optional<TiffDirectory> tiff = TiffDirectory::read(file);
        if (!tiff || tiff->width < 0 || tiff->height < 0)
            return std::nullopt;
        return Size{tiff->width, tiff->height, std::max(1, tiff->samplesPerPixel * tiff->bitsPerSample / 8)};
    }
    if (type == ImageType::bmp()) {
        if (head.size() < 26)
            return std::nullopt;
        const auto width = std::int64_t(std::int32_t(littleEndian32(head, 18)));
        const auto height = std::int64_t(std::int32_t(littleEndian32(head, 22)));
        return Size{std::abs(width), std::abs(height), 4};
    }
    // JPEG, GIF, WebP, HEIF: libvips reads the header alone until pixels are asked for.
    try {
        const vips::VImage image = vips::VImage::new_from_file(QFile::encodeName(file.fileName()).constData());
        const Size size{image.width(), image.height(), image.bands() * std::int64_t(vips_format_sizeof(image.format()))};
        vips_error_clear();
        return size;
    } catch (const vips::VError&) {
        vips_error_clear();
        return std::nullopt;
    }
}

// Whether an image of this size is beyond what opening takes: more memory
// than is free for the image, its raster and the decoder's own buffers
// (counted generously: this runs only after opening failed, and names the
// likelier cause).
bool tooLarge(const Size& size)
{
    const auto need = std::uint64_t(size.width * size.height) * std::uint64_t(2 * size.bytesPerPixel + 12);
    return need > availableMemory() / 2;
}

QString megapixels(const Size& size)
{
    return QString::number(double(size.width) * double(size.height) / 1e6, 'f', 1);
}

Failure unreadable(int error)
{
    if (error == EACCES || error == EPERM)
        return {FailureReason::Unreadable, QStringLiteral("You don’t have permission to read the file.")};
    return {FailureReason::Unreadable,
            QStringLiteral("The file can’t be read (%1).").arg(QString::fromLocal8Bit(std::strerror(error)))};
}

const QString kAcceptedList = QStringLiteral("PNG, JPEG, TIFF, BMP, GIF, HEIC, HEIF or WebP");

// The name people know an accepted type by.
QString formatName(const ImageType& type)
{
    if (type == ImageType::webP())
        return QStringLiteral("WebP");
    return type.mimeName().mid(int(sizeof "image/") - 1).toUpper();
}

// The file's content is no image Orvane decodes; say what it is.
Failure foreignContent(const QMimeType& content, const QString& extension, bool nameAccepted)
{
    const bool image = content.name().startsWith(QLatin1String("image/"));
    if (!image) {
        if (nameAccepted)
            return {FailureReason::NotAnImage,
                    QStringLiteral("The file isn’t an image, although its name ends in “.%1”.").arg(extension)};
        return {FailureReason::NotAnImage, QStringLiteral("The file isn’t an image.")};
    }
    return {FailureReason::Unsupported, QStringLiteral("It’s a “%1” file; only %2 images are opened.")
                                            .arg(content.comment(), kAcceptedList)};
}

} // namespace

QString reasonCode(FailureReason reason)
{
    switch (reason) {
    case FailureReason::Missing: return QStringLiteral("missing");
    case FailureReason::Unreadable: return QStringLiteral("unreadable");
    case FailureReason::NotAnImage: return QStringLiteral("not-an-image");
    case FailureReason::Unsupported: return QStringLiteral("unsupported");
    case FailureReason::Damaged: return QStringLiteral("damaged");
    case FailureReason::TooLarge: return QStringLiteral("too-large");
    }
    return QStringLiteral("damaged");
}

Failure whyNotOpened(const QString& path)
{
    const QByteArray name = QFile::encodeName(path);
    struct stat status {};
    if (::stat(name.constData(), &status) != 0) {
        const int error = errno;
        struct stat link {};
        if (::lstat(name.constData(), &link) == 0 && S_ISLNK(link.st_mode))
            return {FailureReason::Missing, QStringLiteral("The link leads to a file that isn’t there.")};
        if (error == ENOENT || error == ENOTDIR)
            return {FailureReason::Missing, QStringLiteral("There’s no file by that name; it may have been moved or deleted.")};
        return unreadable(error);
    }
    if (S_ISDIR(status.st_mode))
        return {FailureReason::Unreadable, QStringLiteral("It’s a folder, not an image file.")};
    if (!S_ISREG(status.st_mode))
        return {FailureReason::Unreadable,
                QStringLiteral("It isn’t a regular file but a pipe, socket or device, which isn’t read.")};

    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        // QFile keeps no errno; opening again says which.
        const int descriptor = ::open(name.constData(), O_RDONLY);
        const int error = descriptor < 0 ? errno : EIO;
        if (descriptor >= 0)
            ::close(descriptor);
        return unreadable(error);
    }
    const QByteArray head = file.read(kHeadBytes);
    if (head.isEmpty())
        return {FailureReason::NotAnImage, QStringLiteral("The file is empty.")};

    const QString extension = QFileInfo(path).suffix();
    const bool nameAccepted = isAccepted(path);
    const std::optional<ImageType> byName = ImageType::fromExtension(extension.toLower());
    if (byName && !nameAccepted && QMimeDatabase().mimeTypeForName(byName->mimeName()).inherits(QStringLiteral("image/x-dcraw")))
        return {FailureReason::Unsupported,
                QStringLiteral("Camera raw files aren’t opened, so that they are never overwritten by a "
                               "trimmed copy; export the photo as TIFF, JPEG or PNG first.")};

    const std::optional<ImageType> content = ImageType::fromContent(head);
    const bool accepted = content && acceptedTypes().contains(*content);
    if (!accepted) {
        const QMimeType found = content ? QMimeDatabase().mimeTypeForName(content->mimeName()) : QMimeType();
        return foreignContent(found, extension, nameAccepted);
    }
    if (!nameAccepted) {
        return {FailureReason::Unsupported,
                QStringLiteral("The file holds a %1 image, but its name doesn’t end in an image extension; "
                               "rename it to end in “.%2”.")
                    .arg(formatName(*content), content->preferredExtension())};
    }

    const std::optional<Size> size = headerSize(file, head, *content);
    if (size && size->width > 0 && size->height > 0 && tooLarge(*size)) {
        const QString dimensions = QStringLiteral("%1 × %2 pixels").arg(size->width).arg(size->height);
        return {FailureReason::TooLarge, QStringLiteral("The image is too large for the memory that is free now: "
                                                        "%1 (%2 megapixels). Close other programs and try again.")
                                             .arg(dimensions, megapixels(*size))};
    }
    return {FailureReason::Damaged, QStringLiteral("The file is damaged or incomplete, or uses a variant of its "
                                                   "format that can’t be decoded.")};
}

} // namespace orvane::ImageFile
