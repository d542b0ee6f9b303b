// Writing images: the type a trimmed image is written as, the encoders
// (Orvane's PNG writer first), and replacing the file atomically.
#include "imagefile/imagefile.h"
#include "imagefile/opening.h"
#include "imagefile/png/pngencoder.h"
#include "imagefile/sourceformat.h"

#include <algorithm>
#include <mutex>

#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <QSaveFile>

namespace orvane::ImageFile {

namespace {

std::mutex& seamMutex()
{
    static std::mutex mutex;
    return mutex;
}

std::function<bool(const ImageType&)>& saverSeam()
{
    static std::function<bool(const ImageType&)> probe;
    return probe;
}

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

// The PNG without its chunks of the given type, for a file libvips wrote.
QByteArray withoutPngChunks(const QByteArray& png, const char* type)
{
    QByteArray out = png.left(8);
    for (qsizetype at = 8; at + 12 <= png.size();) {
        const auto* p = reinterpret_cast<const unsigned char*>(png.constData() + at);
        const qsizetype length = qsizetype(std::uint32_t(p[0]) << 24 | std::uint32_t(p[1]) << 16 | std::uint32_t(p[2]) << 8 | p[3]);
        if (length > png.size() - at - 12)
            return png;
        if (png.mid(at + 4, 4) != type)
            out += png.mid(at, 12 + length);
        at += 12 + length;
    }
    return out;
}

QByteArray encodePng(const vips::VImage& image, const SourceFormat& source)
{
    // A resolution is written only where the source stated one (or nothing
    // is known of the source): libvips gives every image one, 72 dpi by default.
    const bool resolution = source.hasResolution.value_or(true);
    const auto byLibvips = [&] {
        const QByteArray bytes = encodePngWithLibvips(image);
        return resolution ? bytes : withoutPngChunks(bytes, "pHYs");
    };

    if (writingSequentialImage)
        return byLibvips();
    const VipsInterpretation kind = image.interpretation();
    const int depth = image.format() == VIPS_FORMAT_UCHAR ? 8 : image.format() == VIPS_FORMAT_USHORT ? 16 : 0;
    const bool grey = image.bands() <= 2 && kind == (depth == 8 ? VIPS_INTERPRETATION_B_W : VIPS_INTERPRETATION_GREY16);
    const bool colour = (image.bands() == 3 || image.bands() == 4)
        && kind == (depth == 8 ? VIPS_INTERPRETATION_sRGB : VIPS_INTERPRETATION_RGB16);
    if (depth == 0 || !(grey || colour))
        return byLibvips();

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
        return byLibvips();

    PngEncoder::Metadata metadata;
    if (image.get_typeof(VIPS_META_ICC_NAME) != 0) {
        const void* data = nullptr;
        size_t length = 0;
        if (vips_image_get_blob(image.get_image(), VIPS_META_ICC_NAME, &data, &length) == 0)
            metadata.iccProfile = QByteArray(static_cast<const char*>(data), qsizetype(length));
    }
    // libvips keeps the resolution in pixels per millimetre.
    if (resolution) {
        metadata.xPixelsPerMetre = std::uint32_t(std::clamp(std::lround(image.xres() * 1000.0), 0L, long(INT32_MAX)));
        metadata.yPixelsPerMetre = std::uint32_t(std::clamp(std::lround(image.yres() * 1000.0), 0L, long(INT32_MAX)));
    }

    const vips::VRegion region = vips::VRegion::new_from_image(image);
    region.prepare(0, 0, image.width(), image.height());
    pixels.data = static_cast<const std::uint8_t*>(static_cast<const void*>(region.addr()));
    pixels.stride = std::size_t(region.stride());
    QByteArray bytes = PngEncoder::encode(pixels, metadata);
    return bytes.isEmpty() ? byLibvips() : bytes;
}

QByteArray encode(const vips::VImage& image, const ImageType& written, const SourceFormat& source, bool losslessSource)
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
        return encodePng(image, source);
    if (written == ImageType::tiff())
        return fromBlob(image.tiffsave_buffer(tiffSaveOptions(source, image)->set("strip", false)));
    if (written == ImageType::webP()) {
        return fromBlob(image.webpsave_buffer(
            vips::VImage::option()->set("Q", lossyWebpQuality)->set("smart_subsample", true)->set("strip", false)));
    }
    if (written == ImageType::heic() || written == ImageType::heif()) {
        // Halving the chroma of a 4:4:4 source would cost far more than the
        // quality setting saves; a 4:2:0 source is re-encoded on its own grid.
        const bool fullChroma = source.fullChroma.value_or(false);
        return fromBlob(image.heifsave_buffer(
            vips::VImage::option()
                ->set("Q", heifQuality)
                ->set("subsample_mode", fullChroma ? VIPS_FOREIGN_SUBSAMPLE_OFF : VIPS_FOREIGN_SUBSAMPLE_ON)
                ->set("strip", false)));
    }
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

} // namespace

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

bool write(const QByteArray& bytes, const QString& path)
{
    return writeAtomically(path, bytes);
}

bool save(const vips::VImage& image, const QString& path, const ImageType& type)
{
    try {
        const bool losslessSource = image.get_typeof(kLosslessSourceField) != 0 && image.get_int(kLosslessSourceField) != 0;
        const QByteArray bytes
            = encode(withoutMetadata(image), writableType(type), SourceFormat::of(image), losslessSource);
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

} // namespace orvane::ImageFile
