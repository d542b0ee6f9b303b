#include "engine/cropengine.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <atomic>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

#include <sys/mman.h>

#include "engine/rasterconversion.h"
#include "engine/toleranceindex.h"

namespace orvane::CropEngine {

struct Buffer::Data {
    vips::VImage image;
    std::int64_t width = 0;
    std::int64_t height = 0;
    // Owned raster (from allocateRaster), or null when the raster is the image's own memory.
    std::unique_ptr<std::uint8_t, void (*)(void*)> owned{nullptr, std::free};
    const std::uint8_t* pixels = nullptr;
    ToleranceIndex index;
};

namespace {

// How the colour bands of a decoded image are read.
enum class ColourModel { Grey, Rgb, Cmyk, Other };

struct Layout {
    ColourModel model = ColourModel::Other;
    int colourBands = 3;
    bool hasAlpha = false;
    bool hasProfile = false;
};

Layout layoutOf(const vips::VImage& image)
{
    Layout layout;
    const int bands = image.bands();
    switch (image.guess_interpretation()) {
    case VIPS_INTERPRETATION_B_W:
    case VIPS_INTERPRETATION_GREY16:
        layout.model = ColourModel::Grey;
        layout.colourBands = 1;
        break;
    case VIPS_INTERPRETATION_sRGB:
    case VIPS_INTERPRETATION_RGB:
    case VIPS_INTERPRETATION_RGB16:
        layout.model = ColourModel::Rgb;
        layout.colourBands = 3;
        break;
    case VIPS_INTERPRETATION_CMYK:
        layout.model = ColourModel::Cmyk;
        layout.colourBands = 4;
        break;
    case VIPS_INTERPRETATION_MULTIBAND:
    case VIPS_INTERPRETATION_HISTOGRAM:
    case VIPS_INTERPRETATION_FOURIER:
    case VIPS_INTERPRETATION_MATRIX:
        // Nothing says what the bands mean: read them as grey or RGB by count.
        layout.model = bands < 3 ? ColourModel::Grey : ColourModel::Rgb;
        layout.colourBands = bands < 3 ? 1 : 3;
        break;
    default:
        // Lab, XYZ, scRGB and the like: libvips converts them to sRGB itself.
        layout.model = ColourModel::Other;
        layout.colourBands = image.interpretation() == VIPS_INTERPRETATION_LABQ ? 1 : 3;
        break;
    }
    if (bands < layout.colourBands) {
        layout.model = ColourModel::Grey;
        layout.colourBands = 1;
    }
    layout.hasAlpha = bands > layout.colourBands;
    layout.hasProfile = image.get_typeof(VIPS_META_ICC_NAME) != 0;
    return layout;
}

// The value that stands for full opacity in an alpha band of this format.
double maxAlpha(const vips::VImage& image)
{
    switch (image.format()) {
    case VIPS_FORMAT_USHORT:
        return 65535.0;
    case VIPS_FORMAT_SHORT:
        return 32767.0;
    case VIPS_FORMAT_CHAR:
        return 127.0;
    case VIPS_FORMAT_UINT:
        return 4294967295.0;
    case VIPS_FORMAT_INT:
        return 2147483647.0;
    case VIPS_FORMAT_FLOAT:
    case VIPS_FORMAT_DOUBLE:
        return image.interpretation() == VIPS_INTERPRETATION_scRGB ? 1.0 : 255.0;
    default:
        return 255.0;
    }
}

// Colour bands as float sRGB on the 0…255 scale, one band for grey.
vips::VImage toSrgbScale(const vips::VImage& colour)
{
    switch (colour.format()) {
    case VIPS_FORMAT_UCHAR:
        return colour.cast(VIPS_FORMAT_FLOAT);
    case VIPS_FORMAT_USHORT:
        // 16-bit values scale by 257 (65535 / 255), not by 256 as libvips'
        // own conversion to 8 bits does.
        return colour.cast(VIPS_FORMAT_FLOAT) / 257.0;
    default:
        return colour.cast(VIPS_FORMAT_FLOAT);
    }
}

vips::VImage colourAsSrgb(const vips::VImage& colour, const Layout& layout)
{
    if (layout.hasProfile || layout.model == ColourModel::Cmyk) {
        try {
            // 16-bit output so that premultiplying rounds only once.
            return toSrgbScale(colour.icc_transform(
                "srgb", vips::VImage::option()->set("embedded", true)->set("depth", 16)));
        } catch (const vips::VError&) {
            // A profile that does not fit the image (say an RGB profile on a
            // grey image) is ignored, as if the image had none.
            vips_error_clear();
            if (layout.model == ColourModel::Cmyk)
                throw;
        }
    }
    switch (layout.model) {
    case ColourModel::Grey:
    case ColourModel::Rgb:
        if (colour.format() == VIPS_FORMAT_UCHAR || colour.format() == VIPS_FORMAT_USHORT)
            return toSrgbScale(colour);
        [[fallthrough]];
    default: {
        vips::VImage srgb = colour.colourspace(VIPS_INTERPRETATION_sRGB);
        return toSrgbScale(srgb.bands() > 3 ? srgb.extract_band(0, vips::VImage::option()->set("n", 3)) : srgb);
    }
    }
}

// Memory for a raster, or null. Large rasters are asked to sit on huge pages:
// the raster is written once front to back, and taking a fault for every
// 4 KiB page costs more than the pass itself on some machines.
std::uint8_t* allocateRaster(std::size_t byteCount)
{
    constexpr std::size_t hugePage = std::size_t{2} << 20;
    if (byteCount < 4 * hugePage)
        return static_cast<std::uint8_t*>(std::malloc(byteCount));
    void* memory = nullptr;
    if (posix_memalign(&memory, hugePage, byteCount) != 0)
        return nullptr;
#ifdef MADV_HUGEPAGE
    madvise(memory, byteCount, MADV_HUGEPAGE);
#endif
    return static_cast<std::uint8_t*>(memory);
}

// The raster as a libvips pipeline: colour-managed, premultiplied, rounded to
// 8 bits. Works for any decoded image; nothing is computed until asked for.
vips::VImage lazyRaster(const vips::VImage& image, const Layout& layout)
{
    vips::VImage colour = image.bands() > layout.colourBands
        ? image.extract_band(0, vips::VImage::option()->set("n", layout.colourBands))
        : image;
    vips::VImage rgb = colourAsSrgb(colour, layout);
    if (rgb.bands() == 1)
        rgb = vips::VImage::bandjoin({rgb, rgb, rgb});
    rgb = rgb.copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));

    vips::VImage alpha;
    if (layout.hasAlpha) {
        // Alpha on its own scale, rounded to 8 bits before it multiplies the
        // colour, so that no colour byte exceeds its alpha byte.
        alpha = (image.extract_band(layout.colourBands).cast(VIPS_FORMAT_DOUBLE) * (255.0 / maxAlpha(image)) + 0.5)
                    .cast(VIPS_FORMAT_UCHAR)
                    .cast(VIPS_FORMAT_FLOAT);
    } else {
        alpha = vips::VImage::black(image.width(), image.height()).cast(VIPS_FORMAT_FLOAT) + 255.0;
    }
    vips::VImage premultiplied = rgb.bandjoin(alpha).premultiply(vips::VImage::option()->set("max_alpha", 255.0));
    // cast() truncates; adding one half rounds to nearest.
    return (premultiplied + 0.5)
        .cast(VIPS_FORMAT_UCHAR)
        .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
}

// The raster made by libvips, written into memory from allocateRaster.
std::uint8_t* rasterByPipeline(const vips::VImage& image, const Layout& layout, std::size_t byteCount)
{
    const vips::VImage raster = lazyRaster(image, layout);
    std::unique_ptr<std::uint8_t, void (*)(void*)> memory{allocateRaster(byteCount), std::free};
    if (!memory)
        return nullptr;
    vips::VImage target = vips::VImage::new_from_memory(memory.get(), byteCount, raster.width(), raster.height(), 4,
                                                        VIPS_FORMAT_UCHAR);
    if (vips_image_write(raster.get_image(), target.get_image()) != 0)
        throw vips::VError();
    return memory.release();
}

// Rounded c × a / 255 for bytes; exact for every pair.
inline std::uint8_t premultiplyByte(unsigned c, unsigned a)
{
    const unsigned t = c * a + 128;
    return static_cast<std::uint8_t>((t + (t >> 8)) >> 8);
}

void premultiplyPixels(const std::uint8_t* in, std::uint8_t* out, std::size_t count)
{
    for (std::size_t x = 0; x < count; ++x) {
        const unsigned a = in[4 * x + 3];
        out[4 * x] = premultiplyByte(in[4 * x], a);
        out[4 * x + 1] = premultiplyByte(in[4 * x + 1], a);
        out[4 * x + 2] = premultiplyByte(in[4 * x + 2], a);
        out[4 * x + 3] = static_cast<std::uint8_t>(a);
    }
}

void premultiplyRow(const std::uint8_t* in, std::uint8_t* out, std::size_t width)
{
    // Most pixels of real images are opaque or wholly transparent: runs of
    // eight such pixels are copied or cleared whole, which is what
    // premultiplying gives them.
    constexpr std::uint64_t alphas = std::endian::native == std::endian::little ? 0xff000000ff000000u : 0x000000ff000000ffu;
    std::size_t x = 0;
    for (; x + 8 <= width; x += 8) {
        std::uint64_t w[4];
        std::memcpy(w, in + 4 * x, sizeof w);
        if ((w[0] & w[1] & w[2] & w[3] & alphas) == alphas) {
            std::memcpy(out + 4 * x, in + 4 * x, sizeof w);
            continue;
        }
        if (((w[0] | w[1] | w[2] | w[3]) & alphas) == 0) {
            std::memset(out + 4 * x, 0, sizeof w);
            continue;
        }
        premultiplyPixels(in + 4 * x, out + 4 * x, 8);
    }
    premultiplyPixels(in + 4 * x, out + 4 * x, width - x);
}

void expandRow(const std::uint8_t* in, int bands, std::uint8_t* out, std::size_t width)
{
    switch (bands) {
    case 1:
        for (std::size_t x = 0; x < width; ++x) {
            const std::uint8_t v = in[x];
            out[4 * x] = out[4 * x + 1] = out[4 * x + 2] = v;
            out[4 * x + 3] = 255;
        }
        break;
    case 2:
        for (std::size_t x = 0; x < width; ++x) {
            const unsigned a = in[2 * x + 1];
            const std::uint8_t v = premultiplyByte(in[2 * x], a);
            out[4 * x] = out[4 * x + 1] = out[4 * x + 2] = v;
            out[4 * x + 3] = static_cast<std::uint8_t>(a);
        }
        break;
    case 3:
        for (std::size_t x = 0; x < width; ++x) {
            out[4 * x] = in[3 * x];
            out[4 * x + 1] = in[3 * x + 1];
            out[4 * x + 2] = in[3 * x + 2];
            out[4 * x + 3] = 255;
        }
        break;
    default:
        premultiplyRow(in, out, width);
        break;
    }
}

// Whether the raster is the image's bytes rearranged (and premultiplied):
// 8-bit grey or RGB, with or without alpha, and no profile to apply.
bool expandsByBytes(const vips::VImage& image, const Layout& layout)
{
    return image.format() == VIPS_FORMAT_UCHAR && !layout.hasProfile
        && (layout.model == ColourModel::Grey || layout.model == ColourModel::Rgb)
        && image.bands() == layout.colourBands + (layout.hasAlpha ? 1 : 0);
}

bool pixelsInMemory(const vips::VImage& image)
{
    const VipsImage* im = image.get_image();
    return im->data != nullptr
        && (im->dtype == VIPS_IMAGE_SETBUF || im->dtype == VIPS_IMAGE_SETBUF_FOREIGN
            || im->dtype == VIPS_IMAGE_MMAPIN);
}

// 8-bit sRGB or grey already in memory: one pass produces the raster and the
// index together, in row bands on several threads for large images. An RGBA
// image shares its memory with the raster for as long as every pixel seen is
// opaque, because then premultiplying changes nothing; libvips never marks an
// image as premultiplied, so any other alpha means a premultiplied copy.
bool rasterInMemory(const std::uint8_t* source, std::size_t sourceStride, int bands, Buffer::Data& data)
{
    const auto w = static_cast<std::size_t>(data.width);
    const auto h = static_cast<std::size_t>(data.height);
    const std::size_t rowBytes = w * 4;
    std::atomic<std::uint8_t*> raster{nullptr};
    std::once_flag allocated;
    const auto ensureRaster = [&]() {
        std::call_once(allocated, [&]() { raster = allocateRaster(rowBytes * h); });
        return raster.load();
    };
    if (bands != 4 && !ensureRaster())
        return false;

    const std::size_t bandCount = std::min<std::size_t>(ToleranceIndex::threadsFor(w * h), h);
    std::vector<ToleranceIndex::Builder> builders(bandCount, ToleranceIndex::Builder(w, h));
    // Per band: the first row written into the raster, and whether it ran out of memory.
    std::vector<std::size_t> firstWritten(bandCount);
    std::vector<char> failed(bandCount, 0);
    const auto bandStart = [&](std::size_t band) { return h * band / bandCount; };
    const auto fold = [&](std::size_t band) {
        ToleranceIndex::Builder& builder = builders[band];
        const std::size_t end = bandStart(band + 1);
        firstWritten[band] = end;
        for (std::size_t y = bandStart(band); y < end; ++y) {
            const std::uint8_t* in = source + y * sourceStride;
            std::uint8_t* out = raster.load();
            if (!out) {
                // Keys of unpremultiplied pixels are never above those of the
                // premultiplied ones (premultiplying only darkens), so a row
                // folded here and again below leaves the correct maxima.
                if (builder.addRow(y, in))
                    continue;
                if (!(out = ensureRaster())) {
                    failed[band] = 1;
                    return;
                }
            }
            firstWritten[band] = std::min(firstWritten[band], y);
            std::uint8_t* row = out + y * rowBytes;
            expandRow(in, bands, row, w);
            builder.addRow(y, row);
        }
    };
    std::vector<std::thread> helpers;
    for (std::size_t band = 1; band < bandCount; ++band) {
        try {
            helpers.emplace_back(fold, band);
        } catch (const std::system_error&) {
            fold(band);
        }
    }
    fold(0);
    for (std::thread& helper : helpers)
        helper.join();

    std::uint8_t* out = raster.load();
    data.owned.reset(out);
    if (std::find(failed.begin(), failed.end(), 1) != failed.end())
        return false;
    if (out) {
        // Rows passed over before the copy began were opaque: they copy as they are.
        for (std::size_t band = 0; band < bandCount; ++band)
            for (std::size_t y = bandStart(band); y < firstWritten[band]; ++y)
                std::memcpy(out + y * rowBytes, source + y * sourceStride, rowBytes);
    }
    for (std::size_t band = 1; band < bandCount; ++band)
        builders[0].absorb(builders[band]);
    data.pixels = out ? out : source;
    data.index = builders[0].finish();
    return true;
}

} // namespace

namespace {

// The image with packed Lab (an 8-bit CIELab TIFF) unpacked to float Lab,
// which is what the raster is made from.
vips::VImage unpacked(const vips::VImage& image)
{
    if (image.coding() == VIPS_CODING_NONE)
        return image;
    VipsImage* decoded = nullptr;
    if (vips_image_decode(image.get_image(), &decoded) != 0)
        throw vips::VError();
    return vips::VImage(decoded);
}

} // namespace

namespace detail {

std::optional<int> bytesToExpand(const vips::VImage& image)
{
    if (image.coding() != VIPS_CODING_NONE)
        return std::nullopt;
    return expandsByBytes(image, layoutOf(image)) ? std::optional<int>(image.bands()) : std::nullopt;
}

void expandRow(const std::uint8_t* in, int bands, std::uint8_t* out, std::size_t width)
{
    orvane::CropEngine::expandRow(in, bands, out, width);
}

vips::VImage rasterPipeline(const vips::VImage& image)
{
    const vips::VImage colours = unpacked(image);
    return lazyRaster(colours, layoutOf(colours));
}

} // namespace detail

std::optional<Buffer> Buffer::make(vips::VImage image)
{
    if (!image.get_image())
        return std::nullopt;
    const std::int64_t width = image.width();
    const std::int64_t height = image.height();
    if (width < 1 || height < 1)
        return std::nullopt;
    std::size_t byteCount = 0;
    if (__builtin_mul_overflow(static_cast<std::size_t>(width), static_cast<std::size_t>(height), &byteCount)
        || __builtin_mul_overflow(byteCount, std::size_t{4}, &byteCount)
        || byteCount > static_cast<std::size_t>(INT64_MAX))
        return std::nullopt;

    try {
        auto data = std::make_shared<Data>();
        data->image = image;
        data->width = width;
        data->height = height;
        const auto w = static_cast<std::size_t>(width);
        const auto h = static_cast<std::size_t>(height);
        // The buffer keeps the packed image, so that it is written back as Lab.
        const vips::VImage colours = unpacked(image);
        const Layout layout = layoutOf(colours);

        const bool direct = expandsByBytes(image, layout) && pixelsInMemory(image);

        if (!direct) {
            data->owned.reset(rasterByPipeline(colours, layout, byteCount));
            if (!data->owned)
                return std::nullopt;
            data->pixels = data->owned.get();
            data->index = ToleranceIndex::build(data->pixels, w, h, ToleranceIndex::threadsFor(w * h));
        } else {
            const VipsImage* im = image.get_image();
            if (!rasterInMemory(static_cast<const std::uint8_t*>(static_cast<const void*>(im->data)),
                                VIPS_IMAGE_SIZEOF_LINE(im), image.bands(), *data))
                return std::nullopt;
        }
        return Buffer(std::move(data));
    } catch (const vips::VError&) {
        vips_error_clear();
        return std::nullopt;
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
}

Buffer::Buffer(std::shared_ptr<const Data> data)
    : d(std::move(data))
{
}

const vips::VImage& Buffer::image() const { return d->image; }
std::int64_t Buffer::width() const { return d->width; }
std::int64_t Buffer::height() const { return d->height; }
const std::uint8_t* Buffer::pixels() const { return d->pixels; }
std::size_t Buffer::byteCount() const { return static_cast<std::size_t>(d->width * d->height * 4); }

const ToleranceIndex& Buffer::index() const { return d->index; }

std::size_t Buffer::extraBytes() const
{
    return (d->owned ? byteCount() : 0) + d->index.byteCount();
}

CutOffs cutOffs(double threshold)
{
    if (threshold <= 0)
        return {-1, 256};
    // The same double arithmetic in the same order everywhere, so that the
    // truncations agree at every boundary (25 gives 63.5 and 226.25).
    const double f = threshold < 100 ? threshold / 100 : 1.0;
    const double alpha = f * 254;
    const double whiteness = 255 + f * -115;
    return {static_cast<int>(alpha), static_cast<int>(whiteness)};
}

namespace {

PixelRect wholeImage(const Buffer& buffer) { return {0, 0, buffer.width(), buffer.height()}; }

} // namespace

std::optional<PixelRect> contentRect(const ToleranceIndex& index, std::int64_t width, std::int64_t height,
                                     double threshold)
{
    if (threshold <= 0)
        return PixelRect{0, 0, width, height};
    const CutOffs c = cutOffs(threshold);
    const auto key = ToleranceIndex::threshold(c.alpha, c.whiteness);
    // Every pair of cut-offs a tolerance yields has a key threshold.
    return key ? index.contentRect(*key) : std::nullopt;
}

std::optional<PixelRect> contentRect(const Buffer& buffer, double threshold)
{
    if (threshold <= 0)
        return wholeImage(buffer);
    const CutOffs c = cutOffs(threshold);
    if (const auto key = ToleranceIndex::threshold(c.alpha, c.whiteness))
        return buffer.d->index.contentRect(*key);
    // Every pair the cut-offs produce has a key threshold; should arithmetic
    // ever disagree, the plain scan still gives the right answer.
    return contentRectByScan(buffer, threshold);
}

std::optional<PixelRect> contentRectByScan(const Buffer& buffer, double threshold)
{
    if (threshold <= 0)
        return wholeImage(buffer);
    const CutOffs c = cutOffs(threshold);
    const std::int64_t width = buffer.width();
    const std::int64_t height = buffer.height();
    if (height == 0)
        return std::nullopt;
    std::int64_t minX = width;
    std::int64_t minY = height;
    std::int64_t maxX = -1;
    std::int64_t maxY = -1;
    const std::uint8_t* p = buffer.pixels();
    for (std::int64_t y = 0; y < height; ++y) {
        for (std::int64_t x = 0; x < width; ++x, p += 4) {
            const bool opaqueEnough = p[3] > c.alpha;
            const bool white = p[0] >= c.whiteness && p[1] >= c.whiteness && p[2] >= c.whiteness;
            if (opaqueEnough && !white) {
                minX = std::min(minX, x);
                maxX = std::max(maxX, x);
                minY = std::min(minY, y);
                maxY = std::max(maxY, y);
            }
        }
    }
    if (maxX < minX || maxY < minY)
        return std::nullopt;
    return PixelRect{minX, minY, maxX - minX + 1, maxY - minY + 1};
}

std::optional<vips::VImage> crop(const vips::VImage& image, const PixelRect& rect)
{
    const std::int64_t width = image.width();
    const std::int64_t height = image.height();
    if (rect.width <= 0 || rect.height <= 0)
        return std::nullopt;
    // The rectangle may lie partly or wholly outside the image; its far edges
    // saturate instead of overflowing.
    const auto farEdge = [](std::int64_t origin, std::int64_t size) {
        std::int64_t edge = 0;
        return __builtin_add_overflow(origin, size, &edge) ? INT64_MAX : edge;
    };
    const std::int64_t left = std::clamp<std::int64_t>(rect.x, 0, width);
    const std::int64_t top = std::clamp<std::int64_t>(rect.y, 0, height);
    const std::int64_t right = std::clamp<std::int64_t>(farEdge(rect.x, rect.width), 0, width);
    const std::int64_t bottom = std::clamp<std::int64_t>(farEdge(rect.y, rect.height), 0, height);
    if (right <= left || bottom <= top)
        return std::nullopt;
    if (left == 0 && top == 0 && right == width && bottom == height)
        return image;
    try {
        return image.extract_area(static_cast<int>(left), static_cast<int>(top), static_cast<int>(right - left),
                                  static_cast<int>(bottom - top));
    } catch (const vips::VError&) {
        vips_error_clear();
        return std::nullopt;
    }
}

std::optional<vips::VImage> crop(const Buffer& buffer, const PixelRect& rect)
{
    if (rect.width == buffer.width() && rect.height == buffer.height())
        return buffer.image();
    return crop(buffer.image(), rect);
}

} // namespace orvane::CropEngine
