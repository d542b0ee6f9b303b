#include "imagefile/imagefile.h"
#include "imagefile/opening.h"
#include "imagefile/pngencoder.h"

#include <algorithm>
#include <array>
#include <mutex>

#include <sys/stat.h>
#include <unistd.h>

#include <QCollator>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QSaveFile>

namespace orvane::ImageFile {

namespace {

// Set by load() on an image whose file stored it without loss where its
// format also allows lossy storage (WebP), so that save() keeps it that way.
constexpr const char* kLosslessSourceField = "orvane-lossless-source";

// Enough for every signature and for QMimeDatabase's usual magic offsets.
constexpr qint64 kHeadBytes = 4096;

std::mutex& seamMutex()
{
    static std::mutex mutex;
    return mutex;
}

std::optional<std::uint64_t>& memorySeam()
{
    static std::optional<std::uint64_t> bytes;
    return bytes;
}

std::function<bool(const ImageType&)>& saverSeam()
{
    static std::function<bool(const ImageType&)> probe;
    return probe;
}

// ---------------------------------------------------------------- memory

std::optional<std::uint64_t> readNumber(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QByteArray text = file.readAll().trimmed();
    bool ok = false;
    const qulonglong value = text.toULongLong(&ok);
    if (!ok)
        return std::nullopt; // "max" in cgroup v2 means no limit
    return value;
}

std::optional<std::uint64_t> memAvailable()
{
    QFile file(QStringLiteral("/proc/meminfo"));
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray& line : lines) {
        if (!line.startsWith("MemAvailable:"))
            continue;
        const QList<QByteArray> parts = line.simplified().split(' ');
        bool ok = false;
        const qulonglong kib = parts.value(1).toULongLong(&ok);
        if (ok)
            return std::uint64_t(kib) * 1024;
    }
    return std::nullopt;
}

// What the memory cgroup of this process still allows: the smallest
// (limit − usage) of its folder and every folder above it, since a limit on a
// parent binds as well. Absent when no limit is set or nothing can be read.
std::optional<std::uint64_t> cgroupHeadroom()
{
    QFile cgroupFile(QStringLiteral("/proc/self/cgroup"));
    QFile mountFile(QStringLiteral("/proc/self/mountinfo"));
    if (!cgroupFile.open(QIODevice::ReadOnly) || !mountFile.open(QIODevice::ReadOnly))
        return std::nullopt;

    // A v1 memory controller, when mounted, is the one that limits; the
    // unified line "0::" only counts on a pure v2 system.
    QByteArray v1Path;
    QByteArray v2Path;
    bool hasV2 = false;
    for (const QByteArray& line : cgroupFile.readAll().split('\n')) {
        const qsizetype first = line.indexOf(':');
        const qsizetype second = line.indexOf(':', first + 1);
        if (first < 0 || second < 0)
            continue;
        const QByteArray controllers = line.mid(first + 1, second - first - 1);
        const QByteArray path = line.mid(second + 1);
        if (line.startsWith("0::")) {
            v2Path = path;
            hasV2 = true;
        } else if (controllers.split(',').contains("memory")) {
            v1Path = path;
        }
    }
    const bool useV1 = !v1Path.isEmpty();
    if (!useV1 && !hasV2)
        return std::nullopt;

    QString mountPoint;
    QByteArray mountRoot;
    for (const QByteArray& line : mountFile.readAll().split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        const qsizetype dash = fields.indexOf("-");
        if (dash < 5 || fields.size() < dash + 4)
            continue;
        const QByteArray& fsType = fields[dash + 1];
        const QByteArray& superOptions = fields[dash + 3];
        const bool matches = useV1 ? (fsType == "cgroup" && superOptions.split(',').contains("memory"))
                                   : fsType == "cgroup2";
        if (matches) {
            mountRoot = fields[3];
            mountPoint = QFile::decodeName(fields[4]);
            break;
        }
    }
    if (mountPoint.isEmpty())
        return std::nullopt;

    QByteArray relative = useV1 ? v1Path : v2Path;
    if (mountRoot != "/" && relative.startsWith(mountRoot))
        relative = relative.mid(mountRoot.size());
    QString folder = QDir::cleanPath(mountPoint + QLatin1Char('/') + QFile::decodeName(relative));
    if (!QFileInfo(folder).isDir())
        folder = mountPoint; // a cgroup namespace shows our own group at the mount point

    const QString limitName = useV1 ? QStringLiteral("memory.limit_in_bytes") : QStringLiteral("memory.max");
    const QString usageName = useV1 ? QStringLiteral("memory.usage_in_bytes") : QStringLiteral("memory.current");
    std::optional<std::uint64_t> headroom;
    const QString top = QDir::cleanPath(mountPoint);
    for (int depth = 0; depth < 64; ++depth) {
        const std::optional<std::uint64_t> limit = readNumber(folder + QLatin1Char('/') + limitName);
        // v1 writes "no limit" as a number near 2^63.
        if (limit && *limit < (std::uint64_t(1) << 62)) {
            const std::uint64_t usage = readNumber(folder + QLatin1Char('/') + usageName).value_or(0);
            const std::uint64_t room = usage < *limit ? *limit - usage : 0;
            headroom = std::min(headroom.value_or(room), room);
        }
        if (folder == top || folder.size() <= top.size())
            break;
        folder = QFileInfo(folder).path();
    }
    return headroom;
}

// ---------------------------------------------------------------- loading

// The magick loader is blocked like every loader that is not ours; it is let
// through only while a file that starts with "BM" is being decoded. The count
// keeps overlapping BMP loads on several threads from blocking each other.
class MagickGate {
public:
    MagickGate()
    {
        std::lock_guard lock(mutex());
        if (count()++ == 0)
            vips_operation_block_set("VipsForeignLoadMagick", FALSE);
    }
    ~MagickGate()
    {
        std::lock_guard lock(mutex());
        if (--count() == 0)
            vips_operation_block_set("VipsForeignLoadMagick", TRUE);
    }
    MagickGate(const MagickGate&) = delete;
    MagickGate& operator=(const MagickGate&) = delete;

private:
    static std::mutex& mutex()
    {
        static std::mutex m;
        return m;
    }
    static int& count()
    {
        static int c = 0;
        return c;
    }
};

std::uint32_t littleEndian32(const QByteArray& bytes, qsizetype offset)
{
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.constData() + offset);
    return std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 | std::uint32_t(p[2]) << 16 | std::uint32_t(p[3]) << 24;
}

// The image decoded into memory on the calling thread, in strips from the
// top. copy_memory() decodes on libvips' pool of threads, and libvips 8.14
// then loses a loader's error now and then: a PNG with a broken checksum
// loaded about half the time. Here every error reaches the caller (as a
// VError), and each decode takes one thread, which is what parallel opening
// wants anyway.
vips::VImage decodedInMemory(const vips::VImage& lazy)
{
    constexpr int kStripRows = 128;
    vips::VImage memory = vips::VImage::new_memory();
    VipsImage* in = lazy.get_image();
    VipsImage* out = memory.get_image();
    if (vips_image_pipelinev(out, VIPS_DEMAND_STYLE_THINSTRIP, in, nullptr) != 0 || vips_image_write_prepare(out) != 0)
        throw vips::VError();
    VipsRegion* source = vips_region_new(in);
    VipsRegion* target = vips_region_new(out);
    bool ok = source && target;
    for (int top = 0; ok && top < in->Ysize; top += kStripRows) {
        VipsRect strip{0, top, in->Xsize, std::min(kStripRows, in->Ysize - top)};
        ok = vips_region_image(target, &strip) == 0 && vips_region_prepare_to(source, target, &strip, 0, top) == 0;
    }
    if (source)
        g_object_unref(source);
    if (target)
        g_object_unref(target);
    if (!ok)
        throw vips::VError();
    return memory;
}

// Width and height from a BMP header, read by us so that the size test is
// made before ImageMagick sees the file at all.
std::optional<std::pair<std::int64_t, std::int64_t>> bmpSize(const QByteArray& head)
{
    if (head.size() < 26)
        return std::nullopt;
    const std::uint32_t headerSize = littleEndian32(head, 14);
    if (headerSize == 12) { // OS/2 1.x: 16-bit unsigned sizes
        const auto* p = reinterpret_cast<const unsigned char*>(head.constData());
        return std::pair<std::int64_t, std::int64_t>(p[18] | p[19] << 8, p[20] | p[21] << 8);
    }
    if (headerSize < 40)
        return std::nullopt;
    const auto width = std::int64_t(std::int32_t(littleEndian32(head, 18)));
    const auto height = std::int64_t(std::int32_t(littleEndian32(head, 22)));
    return std::pair<std::int64_t, std::int64_t>(width, height < 0 ? -height : height);
}

// Width and height from a TIFF's first directory (classic or BigTIFF, either
// byte order), read by us: libtiff sizes its strip tables by the height it is
// told, and a directory claiming a million rows costs it a third of a second
// and megabytes before the size test would see the header. Absent when the
// directory cannot be read; libtiff then has its say.
std::optional<std::pair<std::int64_t, std::int64_t>> tiffSize(QFile& file)
{
    if (!file.seek(0))
        return std::nullopt;
    const QByteArray header = file.read(16);
    if (header.size() < 8 || (!header.startsWith("II") && !header.startsWith("MM")))
        return std::nullopt;
    const bool little = header.startsWith("II");
    const auto number = [little](const QByteArray& bytes, qsizetype at, int size) {
        std::uint64_t value = 0;
        for (int i = 0; i < size; ++i) {
            const auto byte = std::uint64_t(std::uint8_t(bytes[at + (little ? size - 1 - i : i)]));
            value = value << 8 | byte;
        }
        return value;
    };
    const std::uint64_t magic = number(header, 2, 2);
    if (magic != 42 && !(magic == 43 && header.size() == 16 && number(header, 4, 2) == 8))
        return std::nullopt;
    const bool big = magic == 43;
    const std::uint64_t directory = big ? number(header, 8, 8) : number(header, 4, 4);
    const int countSize = big ? 8 : 2;
    const int entrySize = big ? 20 : 12;
    if (directory > std::uint64_t(file.size()) || !file.seek(qint64(directory)))
        return std::nullopt;
    const QByteArray countBytes = file.read(countSize);
    if (countBytes.size() != countSize)
        return std::nullopt;
    // Tags are sorted, and width and height are the first two of all.
    const std::uint64_t count = std::min<std::uint64_t>(number(countBytes, 0, countSize), 64);
    const QByteArray entries = file.read(qint64(count) * entrySize);
    std::int64_t width = -1, height = -1;
    for (qsizetype at = 0; at + entrySize <= entries.size(); at += entrySize) {
        const std::uint64_t tag = number(entries, at, 2);
        const std::uint64_t type = number(entries, at + 2, 2);
        const qsizetype value = at + (big ? 12 : 8);
        std::int64_t size = -1;
        if (type == 3) // SHORT
            size = std::int64_t(number(entries, value, 2));
        else if (type == 4) // LONG
            size = std::int64_t(number(entries, value, 4));
        else if (type == 16 && big) // LONG8
            size = std::int64_t(std::min<std::uint64_t>(number(entries, value, 8), std::uint64_t(INT64_MAX)));
        if (tag == 256)
            width = size;
        else if (tag == 257)
            height = size;
    }
    if (width < 0 || height < 0)
        return std::nullopt;
    return std::pair(width, height);
}

// Whether a WebP file's (first) image is stored losslessly: a VP8L bitstream
// rather than a VP8 one, at the top level or in the first animation frame.
bool webpIsLossless(QFile& file)
{
    const auto littleEndian = [](const QByteArray& b, qsizetype at) {
        return std::uint32_t(std::uint8_t(b[at])) | std::uint32_t(std::uint8_t(b[at + 1])) << 8
            | std::uint32_t(std::uint8_t(b[at + 2])) << 16 | std::uint32_t(std::uint8_t(b[at + 3])) << 24;
    };
    qint64 at = 12; // after "RIFF", the size and "WEBP"
    for (int chunks = 0; chunks < 64 && file.seek(at); ++chunks) {
        const QByteArray header = file.read(8);
        if (header.size() != 8)
            return false;
        const QByteArray fourcc = header.left(4);
        if (fourcc == "VP8L")
            return true;
        if (fourcc == "VP8 ")
            return false;
        // A frame: 16 bytes of position, size and timing, then its own chunks.
        const qint64 skip = fourcc == "ANMF" ? 16 : (qint64(littleEndian(header, 4)) + 1) & ~qint64(1);
        at += 8 + skip;
    }
    return false;
}

// libvips 8.14's HEIF loader lends the image its profile and metadata blobs
// from memory that it frees when it goes: with the operation cache off that
// happens as soon as the image is in memory, and the profile then reads as
// garbage. Giving every blob field a copy of its own, while the loader is
// still alive, makes the decoded image independent of it whatever the format.
void ownBlobs(vips::VImage& image)
{
    VipsImage* raw = image.get_image();
    gchar** fields = vips_image_get_fields(raw);
    for (gchar** field = fields; field && *field; ++field) {
        if (vips_image_get_typeof(raw, *field) != VIPS_TYPE_BLOB)
            continue;
        const void* data = nullptr;
        size_t length = 0;
        if (vips_image_get_blob(raw, *field, &data, &length) == 0 && data)
            vips_image_set_blob_copy(raw, *field, data, length);
    }
    g_strfreev(fields);
}

vips::VOption* loadOptions()
{
    return vips::VImage::option()->set("access", VIPS_ACCESS_SEQUENTIAL)->set("fail_on", VIPS_FAIL_ON_ERROR);
}

// What reading an image of width × height costs: the decoded image (bytes
// per pixel) and what the decoder holds whole besides it while it reads.
struct Cost {
    std::int64_t width = 0;
    std::int64_t height = 0;
    std::int64_t bytesPerPixel = 0;
    std::int64_t extraPerPixel = 0;
    std::int64_t extraBytes = 0; ///< a copy of the file, for decoders that take it whole

    std::uint64_t whole() const { return std::uint64_t(width * height) * std::uint64_t(bytesPerPixel + extraPerPixel) + std::uint64_t(extraBytes); }
    std::uint64_t sequential() const { return std::uint64_t(width * height) * std::uint64_t(extraPerPixel) + std::uint64_t(extraBytes); }
};

// Sizes beyond what libvips addresses are refused whatever the memory.
bool plausible(std::int64_t width, std::int64_t height)
{
    return width > 0 && height > 0 && width <= VIPS_MAX_COORD && height <= VIPS_MAX_COORD;
}

bool affordable(const Cost& cost, detail::Access access)
{
    if (!plausible(cost.width, cost.height))
        return false;
    const std::uint64_t need = access == detail::Access::Whole ? cost.whole() : cost.sequential();
    return need <= availableMemory() / 2;
}

std::optional<detail::Opened> openBmp(QFile& file, const QByteArray& head, detail::Access access)
{
    const auto size = bmpSize(head);
    if (!size)
        return std::nullopt;
    // ImageMagick keeps its own copy of the pixels (four 16-bit channels)
    // and is given the whole file.
    const Cost cost{size->first, size->second, 4, 8, file.size()};
    if (!affordable(cost, access) || file.size() > std::int64_t(availableMemory() / 4))
        return std::nullopt;
    if (access == detail::Access::Header)
        return detail::Opened{{}, ImageType::bmp(), cost.whole(), cost.sequential()};
    if (!file.seek(0))
        return std::nullopt;
    const QByteArray bytes = file.readAll();
    if (bytes.size() != file.size())
        return std::nullopt;

    MagickGate gate;
    VipsBlob* blob = vips_blob_copy(bytes.constData(), size_t(bytes.size()));
    vips::VImage image;
    try {
        image = vips::VImage::magickload_buffer(blob, loadOptions());
    } catch (...) {
        vips_area_unref(VIPS_AREA(blob));
        throw;
    }
    vips_area_unref(VIPS_AREA(blob));
    if (image.width() != size->first || image.height() != size->second)
        return std::nullopt;
    ownBlobs(image);
    if (access == detail::Access::Whole)
        image = decodedInMemory(image);
    return detail::Opened{image, ImageType::bmp(), cost.whole(), cost.sequential()};
}

std::optional<detail::Opened> openUnchecked(const QString& path, detail::Access access)
{
    const QFileInfo info(path);
    if (!info.isFile()) // missing, a folder, a device or a pipe
        return std::nullopt;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QByteArray head = file.read(kHeadBytes);
    if (head.isEmpty())
        return std::nullopt;

    // The decoder follows the content: an SVG or a PDF named x.png never
    // reaches a decoder, a JPEG named x.png is decoded as JPEG.
    const std::optional<ImageType> type = ImageType::fromContent(head);
    if (!type)
        return std::nullopt;
    if (*type == ImageType::bmp())
        return openBmp(file, head, access);
    if (*type == ImageType::tiff()) {
        // At least a byte a pixel, whatever the samples: a size that fails
        // even that is refused before libtiff reads the directory.
        const auto size = tiffSize(file);
        if (size && !affordable(Cost{size->first, size->second, 1, 0, 0}, detail::Access::Whole))
            return std::nullopt;
    }
    file.close();

    const QByteArray name = QFile::encodeName(path);
    vips::VImage header;
    std::int64_t extraPerPixel = 0;
    const auto flag = [&](const char* field) {
        return header.get_typeof(field) != 0 && header.get_int(field) != 0;
    };
    if (*type == ImageType::png()) {
        header = vips::VImage::pngload(name.constData(), loadOptions());
        if (flag("interlaced")) // an interlaced PNG is inflated whole
            extraPerPixel = header.bands() * std::int64_t(vips_format_sizeof(header.format()));
    } else if (*type == ImageType::jpeg()) {
        header = vips::VImage::jpegload(name.constData(), loadOptions());
        if (flag("jpeg-multiscan")) // a progressive JPEG keeps every coefficient, 16 bits each
            extraPerPixel = 2 * header.bands();
    } else if (*type == ImageType::tiff()) {
        header = vips::VImage::tiffload(name.constData(), loadOptions());
    } else if (*type == ImageType::gif()) {
        header = vips::VImage::gifload(name.constData(), loadOptions());
        extraPerPixel = 4; // the decoder's own frame
    } else if (*type == ImageType::heic() || *type == ImageType::heif()) {
        header = vips::VImage::heifload(name.constData(), loadOptions());
        extraPerPixel = header.bands() * std::int64_t(vips_format_sizeof(header.format())); // libheif's planes
    } else if (*type == ImageType::webP()) {
        header = vips::VImage::webpload(name.constData(), loadOptions());
        extraPerPixel = 4; // libwebp decodes the frame whole
    } else {
        return std::nullopt;
    }

    // Only the header has been read so far.
    const std::int64_t bytesPerPixel = header.bands() * std::int64_t(vips_format_sizeof(header.format()));
    const Cost cost{header.width(), header.height(), bytesPerPixel, extraPerPixel, 0};
    if (!affordable(cost, access))
        return std::nullopt;
    if (access == detail::Access::Header)
        return detail::Opened{{}, *type, cost.whole(), cost.sequential()};
    ownBlobs(header);
    vips::VImage image = access == detail::Access::Whole ? decodedInMemory(header) : header;
    if (*type == ImageType::webP()) {
        QFile webp(path);
        if (webp.open(QIODevice::ReadOnly) && webpIsLossless(webp))
            image.set(kLosslessSourceField, 1);
    }
    return detail::Opened{image, *type, cost.whole(), cost.sequential()};
}

// ---------------------------------------------------------------- saving

bool encoderExists(const ImageType& type)
{
    if (type == ImageType::bmp()) {
        // No libvips saver claims .bmp; BMP is written through ImageMagick,
        // so ask it to write one pixel.
        if (!vips_type_find("VipsOperation", "magicksave_buffer"))
            return false;
        try {
            VipsBlob* blob = vips::VImage::black(1, 1).magicksave_buffer(vips::VImage::option()->set("format", "bmp"));
            vips_area_unref(VIPS_AREA(blob));
            return true;
        } catch (const vips::VError&) {
            vips_error_clear();
            return false;
        }
    }
    const QString extension = type.preferredExtension();
    if (extension.isEmpty())
        return false;
    const QByteArray suffix = "." + extension.toUtf8();
    const bool found = vips_foreign_find_save_buffer(suffix.constData()) != nullptr;
    vips_error_clear();
    return found;
}

bool canEncode(const ImageType& type)
{
    std::function<bool(const ImageType&)> probe;
    {
        std::lock_guard lock(seamMutex());
        probe = saverSeam();
    }
    return probe ? probe(type) : encoderExists(type);
}

// A copy of the image that carries no metadata of the source but its ICC
// profile: libvips' strip option would drop the profile too.
vips::VImage withoutMetadata(const vips::VImage& image)
{
    vips::VImage copy = image.copy();
    VipsImage* raw = copy.get_image();
    gchar** fields = vips_image_get_fields(raw);
    for (gchar** field = fields; field && *field; ++field) {
        if (qstrcmp(*field, VIPS_META_ICC_NAME) != 0)
            vips_image_remove(raw, *field); // built-in fields (width, format …) are not removable
    }
    g_strfreev(fields);
    return copy;
}

QByteArray fromBlob(VipsBlob* blob)
{
    size_t length = 0;
    const void* data = vips_blob_get(blob, &length);
    QByteArray bytes(static_cast<const char*>(data), qsizetype(length));
    vips_area_unref(VIPS_AREA(blob));
    return bytes;
}

// libvips' PNG writer, for what our own doesn't take: other sample formats
// and colour spaces, which libvips converts, and images too large to hold a
// second time in memory, which libvips streams. Adaptive row filters at zlib
// level 7, ImageMagick's default strength.
QByteArray encodePngWithLibvips(const vips::VImage& image)
{
    return fromBlob(image.pngsave_buffer(
        vips::VImage::option()->set("compression", PngEncoder::referenceZlibLevel)->set("filter", VIPS_FOREIGN_PNG_FILTER_ALL)->set("strip", false)));
}

// Set while an image read sequentially from its file is written: its pixels
// exist only as libvips computes them, so libvips' PNG writer, which takes
// them row by row, writes it instead of ours, which wants them all at once.
thread_local bool writingSequentialImage = false;

QByteArray encodePng(const vips::VImage& image)
{
    if (writingSequentialImage)
        return encodePngWithLibvips(image);
    const VipsInterpretation kind = image.interpretation();
    const int depth = image.format() == VIPS_FORMAT_UCHAR ? 8 : image.format() == VIPS_FORMAT_USHORT ? 16 : 0;
    const bool grey = image.bands() <= 2 && kind == (depth == 8 ? VIPS_INTERPRETATION_B_W : VIPS_INTERPRETATION_GREY16);
    const bool colour = (image.bands() == 3 || image.bands() == 4)
        && kind == (depth == 8 ? VIPS_INTERPRETATION_sRGB : VIPS_INTERPRETATION_RGB16);
    if (depth == 0 || !(grey || colour))
        return encodePngWithLibvips(image);

    PngEncoder::Pixels pixels;
    pixels.width = image.width();
    pixels.height = image.height();
    pixels.bands = image.bands();
    pixels.depth = depth;
    // A trimmed image is cut from a decoded one and the region below points
    // into it; anything else is computed into the region, which is counted
    // here either way.
    const std::size_t imageBytes = std::size_t(VIPS_IMAGE_SIZEOF_IMAGE(image.get_image()));
    if (PngEncoder::workingMemory(pixels) + imageBytes > availableMemory() / 2)
        return encodePngWithLibvips(image);

    PngEncoder::Metadata metadata;
    if (image.get_typeof(VIPS_META_ICC_NAME) != 0) {
        const void* data = nullptr;
        size_t length = 0;
        if (vips_image_get_blob(image.get_image(), VIPS_META_ICC_NAME, &data, &length) == 0)
            metadata.iccProfile = QByteArray(static_cast<const char*>(data), qsizetype(length));
    }
    // libvips keeps the resolution in pixels per millimetre.
    metadata.xPixelsPerMetre = std::uint32_t(std::clamp(std::lround(image.xres() * 1000.0), 0L, long(INT32_MAX)));
    metadata.yPixelsPerMetre = std::uint32_t(std::clamp(std::lround(image.yres() * 1000.0), 0L, long(INT32_MAX)));

    const vips::VRegion region = vips::VRegion::new_from_image(image);
    region.prepare(0, 0, image.width(), image.height());
    pixels.data = static_cast<const std::uint8_t*>(static_cast<const void*>(region.addr()));
    pixels.stride = std::size_t(region.stride());
    QByteArray bytes = PngEncoder::encode(pixels, metadata);
    return bytes.isEmpty() ? encodePngWithLibvips(image) : bytes;
}

QByteArray encode(const vips::VImage& image, const ImageType& written, bool losslessSource)
{
    if (written == ImageType::webP() && losslessSource) {
        // A lossless WebP (a screenshot, artwork) stays lossless: a lossy
        // copy would blur the very edges that were just trimmed to.
        return fromBlob(image.webpsave_buffer(vips::VImage::option()->set("lossless", true)->set("strip", false)));
    }
    if (written == ImageType::jpeg()) {
        // Optimised Huffman tables cost nothing in quality and shrink the
        // file, but libjpeg then holds every coefficient of the image: not
        // for an image too large to hold.
        return fromBlob(image.jpegsave_buffer(
            vips::VImage::option()->set("Q", 92)->set("optimize_coding", !writingSequentialImage)->set("strip", false)));
    }
    if (written == ImageType::png())
        return encodePng(image);
    if (written == ImageType::bmp())
        return fromBlob(image.magicksave_buffer(vips::VImage::option()->set("format", "bmp")->set("strip", false)));

    const QByteArray suffix = "." + written.preferredExtension().toUtf8();
    void* data = nullptr;
    size_t length = 0;
    image.write_to_buffer(suffix.constData(), &data, &length, vips::VImage::option()->set("strip", false));
    QByteArray bytes(static_cast<const char*>(data), qsizetype(length));
    g_free(data);
    return bytes;
}

// QSaveFile writes a temporary file beside the target and renames it over the
// target only once everything is written and synced: a failure leaves the old
// file as it was. It copies the read/write bits of a file it replaces; the
// owner and the remaining mode bits are copied here.
bool writeAtomically(const QString& path, const QByteArray& bytes)
{
    struct stat old {};
    const bool replacing = ::stat(QFile::encodeName(path).constData(), &old) == 0 && S_ISREG(old.st_mode);

    QSaveFile file(path);
    file.setDirectWriteFallback(false);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    if (replacing) {
        const int fd = file.handle();
        if (fd >= 0) {
            // Best effort: only root may give a file away.
            if (old.st_uid != ::geteuid() || old.st_gid != ::getegid())
                (void)!::fchown(fd, old.st_uid, old.st_gid);
            (void)!::fchmod(fd, old.st_mode & 07777);
        }
    }
    if (file.write(bytes) != bytes.size()) {
        file.cancelWriting(); // the temporary file goes with the QSaveFile
        return false;
    }
    return file.commit();
}

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

const QList<ImageType>& acceptedTypes()
{
    static const QList<ImageType> types{ImageType::png(), ImageType::jpeg(), ImageType::tiff(), ImageType::bmp(),
                                        ImageType::gif(), ImageType::heic(), ImageType::heif(), ImageType::webP()};
    return types;
}

void initialise()
{
    static std::once_flag once;
    std::call_once(once, [] {
        // A cached load would hand back the old pixels after a save over the file.
        vips_cache_set_max(0);
        // Only Orvane's decoders may run. The names are the base classes; the
        // file, buffer and source variants below them follow.
        vips_operation_block_set("VipsForeignLoad", TRUE);
        // Damaged files make libvips and its decoders print warnings; Orvane
        // reports failure only by absent results.
        g_log_set_handler("VIPS", GLogLevelFlags(G_LOG_LEVEL_WARNING | G_LOG_LEVEL_MESSAGE | G_LOG_LEVEL_INFO),
                          [](const gchar*, GLogLevelFlags, const gchar*, gpointer) {}, nullptr);
        for (const char* loader : {"VipsForeignLoadPng", "VipsForeignLoadJpeg", "VipsForeignLoadTiff",
                                   "VipsForeignLoadNsgif", "VipsForeignLoadGif", "VipsForeignLoadHeif",
                                   "VipsForeignLoadWebp"})
            vips_operation_block_set(loader, FALSE);
    });
}

std::optional<LoadResult> load(const QString& path)
{
    std::optional<detail::Opened> opened = detail::open(path, detail::Access::Whole);
    if (!opened)
        return std::nullopt;
    return LoadResult{std::move(opened->image), opened->type};
}

std::optional<detail::Opened> detail::open(const QString& path, Access access)
{
    try {
        std::optional<Opened> result = openUnchecked(path, access);
        vips_error_clear();
        return result;
    } catch (const vips::VError&) {
    } catch (const std::bad_alloc&) {
    }
    vips_error_clear();
    return std::nullopt;
}

std::uint64_t availableMemory()
{
    {
        std::lock_guard lock(seamMutex());
        if (memorySeam())
            return *memorySeam();
    }
    std::optional<std::uint64_t> available = memAvailable();
    if (!available) {
        const long pages = ::sysconf(_SC_AVPHYS_PAGES);
        const long pageSize = ::sysconf(_SC_PAGESIZE);
        if (pages > 0 && pageSize > 0)
            available = std::uint64_t(pages) * std::uint64_t(pageSize);
    }
    const std::optional<std::uint64_t> headroom = cgroupHeadroom();
    if (headroom)
        available = std::min(available.value_or(*headroom), *headroom);
    return available.value_or(0);
}

void setAvailableMemoryForTesting(std::optional<std::uint64_t> bytes)
{
    std::lock_guard lock(seamMutex());
    memorySeam() = bytes;
}

void setSaverProbeForTesting(std::function<bool(const ImageType&)> probe)
{
    std::lock_guard lock(seamMutex());
    saverSeam() = std::move(probe);
}

ImageType writableType(const ImageType& type)
{
    if (canEncode(type))
        return type;
    if (type.conforms(ImageType::jpeg()) && canEncode(ImageType::jpeg()))
        return ImageType::jpeg();
    return ImageType::png();
}

bool save(const vips::VImage& image, const QString& path, const ImageType& type)
{
    try {
        const bool losslessSource = image.get_typeof(kLosslessSourceField) != 0 && image.get_int(kLosslessSourceField) != 0;
        const QByteArray bytes = encode(withoutMetadata(image), writableType(type), losslessSource);
        vips_error_clear();
        return !bytes.isEmpty() && writeAtomically(path, bytes);
    } catch (const vips::VError&) {
    } catch (const std::bad_alloc&) {
    }
    vips_error_clear();
    return false;
}

bool detail::saveSequential(const vips::VImage& image, const QString& path, const ImageType& type)
{
    writingSequentialImage = true;
    const bool written = save(image, path, type);
    writingSequentialImage = false;
    return written;
}

bool isAccepted(const QString& path)
{
    const std::optional<ImageType> type = ImageType::fromExtension(extensionOf(path).toLower());
    if (!type)
        return false;
    const QList<ImageType>& accepted = acceptedTypes();
    return std::any_of(accepted.begin(), accepted.end(), [&](const ImageType& a) { return type->conforms(a); });
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
        const QFileInfoList entries = QDir(path).entryInfoList(QDir::Files | QDir::NoDotAndDotDot, QDir::NoSort);
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
