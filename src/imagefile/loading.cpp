// Opening image files: the decoder chosen by the content, the memory a read
// would take tested from the header, and the decode itself, whole or in
// sequential strips.
#include "imagefile/imagefile.h"
#include "imagefile/headerprobes.h"
#include "imagefile/opening.h"
#include "imagefile/sourceformat.h"

#include <mutex>

#include <QFile>
#include <QFileInfo>

namespace orvane::ImageFile {

namespace {

using detail::bmpSize;
using detail::tiffSize;
using detail::webpIsLossless;

// Enough for every signature and for QMimeDatabase's usual magic offsets.
constexpr qint64 kHeadBytes = 4096;

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

// Whether a JPEG's frame is sequential and Huffman-coded (SOF0, SOF1, SOF3):
// the coding in which every 8 × 8 block of every component costs at least
// two bits of the file, a DC difference and an end of block. Progressive
// frames (runs of empty blocks in one code) and arithmetic coding can go
// below that. Reads the markers up to the frame header.
bool isSequentialHuffmanJpeg(QFile& file)
{
    qint64 at = 2;
    for (int segments = 0; segments < 256; ++segments) {
        if (!file.seek(at))
            return false;
        const QByteArray marker = file.read(4);
        if (marker.size() < 4 || uchar(marker[0]) != 0xff)
            return false;
        const uchar code = uchar(marker[1]);
        if (code >= 0xc0 && code <= 0xcf && code != 0xc4 && code != 0xc8 && code != 0xcc)
            return code == 0xc0 || code == 0xc1 || code == 0xc3;
        if (code == 0xd9 || code == 0xda) // end of image or start of scan before any frame
            return false;
        at += 2 + (uchar(marker[2]) << 8 | uchar(marker[3]));
    }
    return false;
}

// Pixels one byte of a sequential Huffman JPEG can describe at most: 256 for
// a single component at two bits a block, doubled for headroom. A file whose
// frame claims more is a header that lies: its decoder would fill the rest
// with grey, after spending seconds on it.
constexpr std::int64_t kJpegPixelsPerByte = 512;

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
        QFile jpeg(path);
        if (std::int64_t(header.width()) * header.height() > kJpegPixelsPerByte * info.size()
            && jpeg.open(QIODevice::ReadOnly) && isSequentialHuffmanJpeg(jpeg))
            return std::nullopt;
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
    SourceFormat::read(path, *type).attachTo(image);
    return detail::Opened{image, *type, cost.whole(), cost.sequential()};
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

} // namespace orvane::ImageFile
