#include "imagefile/imagetype.h"

#include <array>

#include <QMimeDatabase>
#include <QMimeType>

namespace orvane {

namespace {

struct TableEntry {
    const char* mime;
    std::array<const char*, 3> extensions; // the first is the preferred one
};

// Our own entries for the accepted types. shared-mime-info would prefer jpg
// and tif, and knows image/heic only as an alias of image/heif.
constexpr std::array<TableEntry, 8> kTable{{
    {"image/png", {"png", nullptr, nullptr}},
    {"image/jpeg", {"jpeg", "jpg", "jpe"}},
    {"image/tiff", {"tiff", "tif", nullptr}},
    {"image/bmp", {"bmp", nullptr, nullptr}},
    {"image/gif", {"gif", nullptr, nullptr}},
    {"image/heic", {"heic", nullptr, nullptr}},
    {"image/heif", {"heif", nullptr, nullptr}},
    {"image/webp", {"webp", nullptr, nullptr}},
}};

const TableEntry* tableEntry(const QString& mime)
{
    for (const TableEntry& entry : kTable) {
        if (mime == QLatin1String(entry.mime))
            return &entry;
    }
    return nullptr;
}

const QString kData = QStringLiteral("application/octet-stream");

bool startsWith(const QByteArray& head, const char* signature, qsizetype length, qsizetype offset = 0)
{
    return head.size() >= offset + length && std::equal(signature, signature + length, head.constData() + offset);
}

std::optional<ImageType> fromSignature(const QByteArray& head)
{
    if (startsWith(head, "\x89PNG\r\n\x1a\n", 8))
        return ImageType::png();
    if (startsWith(head, "\xff\xd8\xff", 3))
        return ImageType::jpeg();
    // Classic and BigTIFF, both byte orders.
    if (startsWith(head, "II*\0", 4) || startsWith(head, "MM\0*", 4) || startsWith(head, "II+\0", 4)
        || startsWith(head, "MM\0+", 4))
        return ImageType::tiff();
    if (startsWith(head, "GIF87a", 6) || startsWith(head, "GIF89a", 6))
        return ImageType::gif();
    if (startsWith(head, "RIFF", 4) && startsWith(head, "WEBP", 4, 8))
        return ImageType::webP();
    // ISO base media file: a box "ftyp" whose major brand names the family.
    if (startsWith(head, "ftyp", 4, 4) && head.size() >= 12) {
        const QByteArray brand = head.mid(8, 4);
        if (brand == "heic" || brand == "heix" || brand == "hevc" || brand == "hevx")
            return ImageType::heic();
        if (brand == "mif1" || brand == "msf1" || brand == "heim" || brand == "heis")
            return ImageType::heif();
    }
    if (startsWith(head, "BM", 2))
        return ImageType::bmp();
    return std::nullopt;
}

} // namespace

ImageType::ImageType(QString mimeName)
    : m_mime(std::move(mimeName))
{
    if (tableEntry(m_mime) || m_mime == kData)
        return;
    // Aliases (image/jpg, image/x-png …) become the canonical name.
    const QMimeType known = QMimeDatabase().mimeTypeForName(m_mime);
    if (known.isValid() && !known.name().isEmpty())
        m_mime = known.name();
}

ImageType ImageType::png() { return ImageType(QStringLiteral("image/png")); }
ImageType ImageType::jpeg() { return ImageType(QStringLiteral("image/jpeg")); }
ImageType ImageType::tiff() { return ImageType(QStringLiteral("image/tiff")); }
ImageType ImageType::bmp() { return ImageType(QStringLiteral("image/bmp")); }
ImageType ImageType::gif() { return ImageType(QStringLiteral("image/gif")); }
ImageType ImageType::heic() { return ImageType(QStringLiteral("image/heic")); }
ImageType ImageType::heif() { return ImageType(QStringLiteral("image/heif")); }
ImageType ImageType::webP() { return ImageType(QStringLiteral("image/webp")); }
ImageType ImageType::data() { return ImageType(); }

std::optional<ImageType> ImageType::fromExtension(const QString& extension)
{
    const QString lower = extension.toLower();
    if (lower.isEmpty())
        return std::nullopt;
    for (const TableEntry& entry : kTable) {
        for (const char* candidate : entry.extensions) {
            if (candidate && lower == QLatin1String(candidate))
                return ImageType(QString::fromLatin1(entry.mime));
        }
    }
    const QList<QMimeType> types = QMimeDatabase().mimeTypesForFileName(QStringLiteral("x.") + lower);
    if (types.isEmpty())
        return std::nullopt;
    return ImageType(types.first().name());
}

std::optional<ImageType> ImageType::fromContent(const QByteArray& head)
{
    if (std::optional<ImageType> type = fromSignature(head))
        return type;
    if (head.isEmpty())
        return std::nullopt;
    const QMimeType found = QMimeDatabase().mimeTypeForData(head);
    if (!found.isValid() || found.name() == kData)
        return std::nullopt;
    return ImageType(found.name());
}

QString ImageType::preferredExtension() const
{
    if (const TableEntry* entry = tableEntry(m_mime))
        return QString::fromLatin1(entry->extensions[0]);
    if (m_mime == kData)
        return {};
    return QMimeDatabase().mimeTypeForName(m_mime).preferredSuffix();
}

bool ImageType::conforms(const ImageType& other) const
{
    if (*this == other || other.m_mime == kData)
        return true;
    // The accepted types inherit from nothing but data; in particular
    // image/heic is not image/heif although shared-mime-info aliases them.
    if (tableEntry(m_mime))
        return false;
    const QMimeType mine = QMimeDatabase().mimeTypeForName(m_mime);
    if (!mine.isValid())
        return false;
    if (other.m_mime == QLatin1String("image/heic"))
        return false;
    // shared-mime-info makes camera raw formats (NEF, DNG, CR2, ARW …)
    // sub-classes of image/tiff because their containers are TIFF-like; they
    // are formats of their own, and a TIFF writer would turn one into its
    // embedded thumbnail.
    if (other.m_mime == QLatin1String("image/tiff"))
        return false;
    return mine.inherits(other.m_mime);
}

} // namespace orvane
