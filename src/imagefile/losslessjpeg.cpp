#include "imagefile/losslessjpeg.h"

#include "imagefile/jpegscan.h"

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <jpeglib.h>
#include <jerror.h>

namespace orvane::LosslessJpeg {

namespace {

// libjpeg reports an error through a callback that must not return: it jumps
// back to the setjmp() of the operation that failed. A warning (damaged data
// that libjpeg works around) fails the read too, so that a damaged file goes
// to the normal decoder, which says what is wrong with it.
struct ErrorManager {
    jpeg_error_mgr pub{};
    std::jmp_buf* jump = nullptr;
    bool warned = false;
};

[[noreturn]] void errorExit(j_common_ptr info)
{
    std::longjmp(*reinterpret_cast<ErrorManager*>(info->err)->jump, 1);
}

void emitMessage(j_common_ptr info, int level)
{
    if (level < 0)
        reinterpret_cast<ErrorManager*>(info->err)->warned = true;
}

void outputMessage(j_common_ptr) {}

jpeg_error_mgr* install(ErrorManager& errors)
{
    jpeg_error_mgr* manager = jpeg_std_error(&errors.pub);
    manager->error_exit = errorExit;
    manager->emit_message = emitMessage;
    manager->output_message = outputMessage;
    return manager;
}

std::int64_t alignDown(std::int64_t value, int step)
{
    return value / step * step;
}

std::int64_t ceilDiv(std::int64_t a, std::int64_t b)
{
    return (a + b - 1) / b;
}

// libjpeg's YCbCr to RGB arithmetic (16-bit fixed point, rounded), for
// bounding the colours a block can decode to. Each term is monotonic in its
// sample, so bounds of the samples give bounds of the colours.
constexpr int kScaleBits = 16;
constexpr long fix(double x) { return long(x * (1L << kScaleBits) + 0.5); }
constexpr long kHalf = 1L << (kScaleBits - 1);
int crToRed(int cr) { return int((fix(1.40200) * (cr - 128) + kHalf) >> kScaleBits); }
int cbToBlue(int cb) { return int((fix(1.77200) * (cb - 128) + kHalf) >> kScaleBits); }
int chromaToGreen(int cb, int cr)
{
    return int((-fix(0.34414) * (cb - 128) + kHalf - fix(0.71414) * (cr - 128)) >> kScaleBits);
}

int clampSample(int v) { return std::clamp(v, 0, 255); }

// The range of one block held by libjpeg.
Range rangeOf(const JCOEF* coef, const UINT16* quant)
{
    int any = 0; // any AC coefficient set
    for (int k = 1; k < DCTSIZE2; ++k)
        any |= coef[k];
    std::int64_t spread = 0;
    for (int k = 1; any != 0 && k < DCTSIZE2; ++k)
        spread += std::abs(std::int64_t(coef[k]) * quant[k]);
    return blockRange(std::int64_t(coef[0]) * quant[0], spread);
}

// A libjpeg destination that writes into a QByteArray, which the caller
// owns whatever happens (libjpeg's own memory destination loses track of its
// buffer when an error ends the write).
struct ByteArrayDestination {
    jpeg_destination_mgr pub{};
    QByteArray* bytes = nullptr;

    static ByteArrayDestination* of(j_compress_ptr info) { return reinterpret_cast<ByteArrayDestination*>(info->dest); }
    static void init(j_compress_ptr info) { grow(info, 0); }
    static boolean empty(j_compress_ptr info)
    {
        grow(info, of(info)->bytes->size());
        return TRUE;
    }
    static void term(j_compress_ptr info)
    {
        QByteArray& bytes = *of(info)->bytes;
        bytes.truncate(bytes.size() - qsizetype(of(info)->pub.free_in_buffer));
    }
    // Makes room after the first used bytes.
    static void grow(j_compress_ptr info, qsizetype used)
    {
        QByteArray& bytes = *of(info)->bytes;
        bool grown = true;
        try {
            bytes.resize(std::max<qsizetype>(2 * used, 1 << 16));
        } catch (...) {
            grown = false;
        }
        if (!grown) {
            info->err->msg_code = JERR_OUT_OF_MEMORY;
            info->err->error_exit(reinterpret_cast<j_common_ptr>(info));
        }
        of(info)->pub.next_output_byte = reinterpret_cast<JOCTET*>(bytes.data()) + used;
        of(info)->pub.free_in_buffer = std::size_t(bytes.size() - used);
    }
};

// Whether blocks hold only coefficients that baseline Huffman coding can
// write: up to 10 bits (and a DC difference of up to 11). A damaged file can
// decode to larger ones, which libjpeg-turbo would write as garbage.
bool encodable(const JBLOCK* blocks, std::size_t count)
{
    const JCOEF* c = blocks[0];
    unsigned outside = 0;
    for (std::size_t i = 0; i < count * DCTSIZE2; ++i)
        outside |= unsigned(c[i] + 1023) > 2046u;
    return outside == 0;
}

struct Raster {
    std::vector<std::uint8_t> pixels;
    std::int64_t width = 0, height = 0;
    int components = 1;
    const std::uint8_t* at(std::int64_t x, std::int64_t y) const
    {
        return pixels.data() + (y * width + x) * components;
    }
};

// Decodes a whole JPEG held in memory, as the normal decoder does: libjpeg's
// defaults (the integer IDCT and smooth upsampling), grey or RGB.
bool decodeWhole(const unsigned char* data, unsigned long size, Raster& out)
{
    ErrorManager errors;
    std::jmp_buf jump;
    errors.jump = &jump;
    jpeg_decompress_struct info{};
    info.err = install(errors);
    if (setjmp(jump)) {
        jpeg_destroy_decompress(&info);
        return false;
    }
    jpeg_create_decompress(&info);
    jpeg_mem_src(&info, data, size);
    jpeg_read_header(&info, TRUE);
    info.out_color_space = info.num_components == 1 ? JCS_GRAYSCALE : JCS_RGB;
    jpeg_start_decompress(&info);
    out.width = info.output_width;
    out.height = info.output_height;
    out.components = info.output_components;
    out.pixels.resize(std::size_t(out.width * out.height * out.components));
    while (info.output_scanline < info.output_height) {
        JSAMPROW row = out.pixels.data() + std::size_t(info.output_scanline) * out.width * out.components;
        jpeg_read_scanlines(&info, &row, 1);
    }
    jpeg_finish_decompress(&info);
    const bool clean = !errors.warned;
    jpeg_destroy_decompress(&info);
    return clean;
}

} // namespace

PixelRect writtenRect(const PixelRect& rect, const Grid& grid)
{
    // One axis at a time: [first, end) within [0, size), on a grid of step
    // pixels, subsampled when the step is more than one 8-pixel block. Smooth
    // upsampling gives pixel 2i the colour samples i − 1 and i, pixel 2i + 1
    // the samples i and i + 1; at the edge of a file it repeats the last.
    const auto axis = [](std::int64_t first, std::int64_t end, std::int64_t size, int step) {
        first = std::clamp<std::int64_t>(first, 0, size);
        end = std::clamp<std::int64_t>(end, first, size);
        const bool subsampled = step > 8;
        std::int64_t from = alignDown(subsampled ? std::max<std::int64_t>(first - 1, 0) : first, step);
        if (subsampled && end % 2 == 0 && end < size && end > first)
            ++end;
        return std::pair{from, end};
    };
    const auto [left, right] = axis(rect.x, rect.x + rect.width, grid.width, grid.blockWidth);
    const auto [top, bottom] = axis(rect.y, rect.y + rect.height, grid.height, grid.blockHeight);
    return {left, top, right - left, bottom - top};
}

struct Blocks::Impl {
    QByteArray file;
    // Plain sequential files are read by our own decoder, which keeps no
    // coefficients and cuts by copying bits; libjpeg holds the blocks of
    // every other file.
    std::unique_ptr<Scan> scan;
    ErrorManager errors;
    jpeg_decompress_struct source{};
    jvirt_barray_ptr* coefficients = nullptr;
    Grid grid;
    bool progressive = false;
    std::vector<JOCTET> profile; // the ICC profile, if the file has one
    bool findsContent = false;
    bool spent = false; // the blocks have been moved by a cut

    // Per 8 × 8 block of the image (the luma grid), the lowest value the
    // smallest of red, green and blue can decode to anywhere in the block;
    // -1 until needed.
    int components = 1, lumaH = 1, lumaV = 1;
    std::int64_t blocksWide = 0, blocksHigh = 0;
    std::vector<std::int16_t> lowest;
    // Per block of each colour component: its sample range, and that range
    // widened by the neighbouring blocks that smooth upsampling blends in;
    // lo = -1 until needed.
    std::int64_t chromaWide = 0, chromaHigh = 0;
    std::vector<Range> chroma[2], chromaAround[2];

    ~Impl() { jpeg_destroy_decompress(&source); }

    bool read();
    bool readCoefficients();
    // Every row of blocks of each component, held in memory by libjpeg.
    std::vector<JBLOCKROW> rows[MAX_COMPONENTS];
    JBLOCKROW blockRow(int component, JDIMENSION row) const { return rows[component][row]; }
    Range rangeAt(int component, std::int64_t bx, std::int64_t by)
    {
        if (scan)
            return scan->range(component, bx, by);
        const jpeg_component_info& c = source.comp_info[component];
        return rangeOf(blockRow(component, JDIMENSION(by))[bx], c.quant_table->quantval);
    }
    Range chromaRange(int which, std::int64_t bx, std::int64_t by);
    int lowestAt(std::int64_t bx, std::int64_t by);
    bool write(const PixelRect& rect, bool progressiveOut, bool withProfile, bool inPlace, QByteArray& out);
    bool decodeRegion(std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1, Raster& raster,
                      std::int64_t& originX, std::int64_t& originY);
};

bool Blocks::Impl::read()
{
    bool ycc = false;
    if ((scan = Scan::read(file))) {
        components = scan->components();
        ycc = components == 3;
        lumaH = scan->lumaH();
        lumaV = scan->lumaV();
        grid = {scan->width(), scan->height(), 8 * lumaH, 8 * lumaV};
        findsContent = true;
        if (ycc) {
            chromaWide = scan->blocksWide(1);
            chromaHigh = scan->blocksHigh(1);
        }
    } else {
        if (!readCoefficients())
            return false;
        const bool grey = source.num_components == 1;
        grid = {source.image_width, source.image_height, grey ? 8 : source.max_h_samp_factor * DCTSIZE,
                grey ? 8 : source.max_v_samp_factor * DCTSIZE};

        // Content is found from the blocks where the decoded pixels follow
        // from them as sketched above: 8-bit grey, or YCbCr with
        // full-resolution luma and one sample of each colour per iMCU.
        const jpeg_component_info* c = source.comp_info;
        ycc = source.num_components == 3 && source.jpeg_color_space == JCS_YCbCr
              && c[0].h_samp_factor == source.max_h_samp_factor && c[0].v_samp_factor == source.max_v_samp_factor
              && c[0].h_samp_factor <= 2 && c[0].v_samp_factor <= 2 && c[1].h_samp_factor == 1
              && c[1].v_samp_factor == 1 && c[2].h_samp_factor == 1 && c[2].v_samp_factor == 1;
        findsContent = source.data_precision == 8 && (grey || ycc);
        components = source.num_components;
        lumaH = c[0].h_samp_factor;
        lumaV = c[0].v_samp_factor;
        if (ycc) {
            chromaWide = c[1].width_in_blocks;
            chromaHigh = c[1].height_in_blocks;
        }
    }
    blocksWide = ceilDiv(grid.width, 8);
    blocksHigh = ceilDiv(grid.height, 8);
    if (findsContent) {
        lowest.assign(std::size_t(blocksWide * blocksHigh), -1);
        if (ycc)
            for (int which = 0; which < 2; ++which)
                chroma[which] = chromaAround[which] = std::vector<Range>(std::size_t(chromaWide * chromaHigh), Range{-1, -1});
    }
    return true;
}

bool Blocks::Impl::readCoefficients()
{
    std::jmp_buf jump;
    errors.jump = &jump;
    source.err = install(errors);
    if (setjmp(jump))
        return false;
    jpeg_create_decompress(&source);
    jpeg_mem_src(&source, reinterpret_cast<const unsigned char*>(file.constData()), static_cast<unsigned long>(file.size()));
    jpeg_save_markers(&source, JPEG_APP0 + 2, 0xffff);
    if (jpeg_read_header(&source, TRUE) != JPEG_HEADER_OK)
        return false;
    coefficients = jpeg_read_coefficients(&source);
    if (!coefficients || errors.warned)
        return false;
    for (int ci = 0; ci < source.num_components; ++ci)
        for (JDIMENSION row = 0; row < source.comp_info[ci].height_in_blocks; ++row)
            rows[ci].push_back(source.mem->access_virt_barray(reinterpret_cast<j_common_ptr>(&source),
                                                              coefficients[ci], row, 1, FALSE)[0]);
    progressive = source.progressive_mode;
    // A progressive file whose scans leave coefficients unfinished decodes
    // with smoothing the blocks alone do not give: left to the normal path.
    if (progressive)
        for (int component = 0; component < source.num_components; ++component)
            for (int k = 0; k < DCTSIZE2; ++k)
                if (source.coef_bits[component][k] != 0)
                    return false;
    JOCTET* icc = nullptr;
    unsigned int iccLength = 0;
    if (jpeg_read_icc_profile(&source, &icc, &iccLength)) {
        profile.assign(icc, icc + iccLength);
        std::free(icc);
    }
    return true;
}

Range Blocks::Impl::chromaRange(int which, std::int64_t bx, std::int64_t by)
{
    const std::int64_t wide = chromaWide, high = chromaHigh;
    Range& cached = chromaAround[which][std::size_t(by * wide + bx)];
    if (cached.lo >= 0)
        return cached;
    Range range{255, 0};
    for (std::int64_t y = std::max<std::int64_t>(by - 1, 0); y <= std::min(by + 1, high - 1); ++y) {
        for (std::int64_t x = std::max<std::int64_t>(bx - 1, 0); x <= std::min(bx + 1, wide - 1); ++x) {
            Range& r = chroma[which][std::size_t(y * wide + x)];
            if (r.lo < 0)
                r = rangeAt(1 + which, x, y);
            range = {std::min(range.lo, r.lo), std::max(range.hi, r.hi)};
        }
    }
    return cached = range;
}

int Blocks::Impl::lowestAt(std::int64_t bx, std::int64_t by)
{
    std::int16_t& cached = lowest[std::size_t(by * blocksWide + bx)];
    if (cached >= 0)
        return cached;
    const int luma = rangeAt(0, bx, by).lo;
    if (components == 1)
        return cached = std::int16_t(luma);
    const auto cx = bx / lumaH, cy = by / lumaV;
    const Range cb = chromaRange(0, cx, cy), cr = chromaRange(1, cx, cy);
    const int red = clampSample(luma + crToRed(cr.lo));
    const int green = clampSample(luma + chromaToGreen(cb.hi, cr.hi));
    const int blue = clampSample(luma + cbToBlue(cb.lo));
    return cached = std::int16_t(std::min({red, green, blue}));
}

// Writes the blocks of rect (on the grid, inside the image) as a JPEG of
// their own. In place, the blocks are moved to the top left of the source's
// own arrays (which are then no longer the source's) instead of copied.
bool Blocks::Impl::write(const PixelRect& rect, bool progressiveOut, bool withProfile, bool inPlace,
                         QByteArray& out)
{
    if (scan) {
        if (scan->cut(rect, withProfile, out))
            return true;
        // The cut needs a DC code the file's own table lacks (it was made
        // for this image's differences alone): libjpeg codes it afresh.
        scan.reset();
        if (!readCoefficients())
            return false;
    }
    ErrorManager destinationErrors;
    std::jmp_buf jump;
    errors.jump = &jump;
    destinationErrors.jump = &jump;
    jpeg_compress_struct destination{};
    destination.err = install(destinationErrors);
    ByteArrayDestination sink;
    sink.bytes = &out;
    sink.pub.init_destination = ByteArrayDestination::init;
    sink.pub.empty_output_buffer = ByteArrayDestination::empty;
    sink.pub.term_destination = ByteArrayDestination::term;
    if (setjmp(jump)) {
        jpeg_destroy_compress(&destination);
        return false;
    }
    jpeg_create_compress(&destination);
    destination.dest = &sink.pub;
    jpeg_copy_critical_parameters(&source, &destination);
    destination.image_width = JDIMENSION(rect.width);
    destination.image_height = JDIMENSION(rect.height);
    const bool grey = source.num_components == 1;
    if (grey) // one component is coded block by block, whatever its sampling factors say
        destination.comp_info[0].h_samp_factor = destination.comp_info[0].v_samp_factor = 1;
    if (progressiveOut)
        jpeg_simple_progression(&destination);

    jvirt_barray_ptr arrays[MAX_COMPONENTS];
    const int maxH = grey ? 1 : source.max_h_samp_factor, maxV = grey ? 1 : source.max_v_samp_factor;
    const auto blocksOf = [&](int ci) {
        const int h = destination.comp_info[ci].h_samp_factor, v = destination.comp_info[ci].v_samp_factor;
        return std::pair{JDIMENSION(ceilDiv(rect.width * h, maxH * DCTSIZE)), JDIMENSION(ceilDiv(rect.height * v, maxV * DCTSIZE))};
    };
    for (int ci = 0; ci < source.num_components && !inPlace; ++ci) {
        const int h = destination.comp_info[ci].h_samp_factor, v = destination.comp_info[ci].v_samp_factor;
        const auto [wide, high] = blocksOf(ci);
        arrays[ci] = destination.mem->request_virt_barray(reinterpret_cast<j_common_ptr>(&destination), JPOOL_IMAGE,
                                                          TRUE, JDIMENSION(ceilDiv(wide, h) * h),
                                                          JDIMENSION(ceilDiv(high, v) * v), JDIMENSION(v));
    }
    if (!inPlace)
        destination.mem->realize_virt_arrays(reinterpret_cast<j_common_ptr>(&destination));
    for (int ci = 0; ci < source.num_components; ++ci) {
        const auto [wide, high] = blocksOf(ci);
        const auto left = std::size_t(rect.x / (maxH * DCTSIZE) * destination.comp_info[ci].h_samp_factor);
        const auto top = JDIMENSION(rect.y / (maxV * DCTSIZE) * destination.comp_info[ci].v_samp_factor);
        if (inPlace)
            arrays[ci] = coefficients[ci];
        for (JDIMENSION row = 0; row < high; ++row) {
            const JBLOCKROW from = blockRow(ci, top + row) + left;
            if (!encodable(from, wide)) {
                destination.err->msg_code = JERR_BAD_DCT_COEF;
                destination.err->error_exit(reinterpret_cast<j_common_ptr>(&destination));
            }
            if (inPlace) {
                if (from != blockRow(ci, row))
                    std::memmove(blockRow(ci, row), from, wide * sizeof(JBLOCK));
            } else {
                std::memcpy(destination.mem->access_virt_barray(reinterpret_cast<j_common_ptr>(&destination), arrays[ci], row, 1, TRUE)[0],
                            from, wide * sizeof(JBLOCK));
            }
        }
    }
    jpeg_write_coefficients(&destination, arrays);
    if (withProfile && !profile.empty())
        jpeg_write_icc_profile(&destination, profile.data(), unsigned(profile.size()));
    jpeg_finish_compress(&destination);
    jpeg_destroy_compress(&destination);
    return true;
}

// The exact pixels of [x0, x1) × [y0, y1): the blocks around them written as
// a small JPEG and decoded. Smooth upsampling blends each pixel with the
// colour samples beside it, so the small file reaches a grid step beyond the
// region on every side that is not the image's own edge, where a decoder of
// the whole file would see the same samples.
bool Blocks::Impl::decodeRegion(std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1, Raster& raster,
                                std::int64_t& originX, std::int64_t& originY)
{
    const std::int64_t left = alignDown(std::max<std::int64_t>(x0 - grid.blockWidth, 0), grid.blockWidth);
    const std::int64_t top = alignDown(std::max<std::int64_t>(y0 - grid.blockHeight, 0), grid.blockHeight);
    const std::int64_t right = std::min(x1 + grid.blockWidth, grid.width);
    const std::int64_t bottom = std::min(y1 + grid.blockHeight, grid.height);
    QByteArray jpeg;
    if (!write({left, top, right - left, bottom - top}, false, false, false, jpeg))
        return false;
    originX = left;
    originY = top;
    return decodeWhole(reinterpret_cast<const unsigned char*>(jpeg.constData()), static_cast<unsigned long>(jpeg.size()), raster);
}

std::unique_ptr<Blocks> Blocks::read(const QByteArray& jpeg)
{
    if (jpeg.size() < 4 || uchar(jpeg.at(0)) != 0xff || uchar(jpeg.at(1)) != 0xd8)
        return nullptr;
    auto impl = std::make_unique<Impl>();
    impl->file = jpeg;
    if (!impl->read())
        return nullptr;
    return std::unique_ptr<Blocks>(new Blocks(std::move(impl)));
}

Blocks::Blocks(std::unique_ptr<Impl> impl)
    : d(std::move(impl))
{
}

Blocks::~Blocks() = default;

const Grid& Blocks::grid() const
{
    return d->grid;
}

Blocks::Content Blocks::contentRect(double tolerance)
{
    const std::int64_t width = d->grid.width, height = d->grid.height;
    if (!d->findsContent)
        return {};
    if (tolerance <= 0)
        return {true, PixelRect{0, 0, width, height}};
    const int whiteness = CropEngine::cutOffs(tolerance).whiteness;

    // The blocks that may hold content; everything outside their bounding
    // box is background by the coefficients alone.
    std::int64_t bx0 = d->blocksWide, bx1 = -1, by0 = -1, by1 = -1;
    const auto mayHoldContent = [&](std::int64_t bx, std::int64_t by) { return d->lowestAt(bx, by) < whiteness; };
    for (std::int64_t by = 0; by < d->blocksHigh && by0 < 0; ++by)
        for (std::int64_t bx = 0; bx < d->blocksWide; ++bx)
            if (mayHoldContent(bx, by)) {
                by0 = by;
                break;
            }
    if (by0 < 0)
        return {true, std::nullopt};
    for (std::int64_t by = d->blocksHigh - 1; by >= by0 && by1 < 0; --by)
        for (std::int64_t bx = 0; bx < d->blocksWide; ++bx)
            if (mayHoldContent(bx, by)) {
                by1 = by;
                break;
            }
    for (std::int64_t by = by0; by <= by1; ++by) {
        for (std::int64_t bx = 0; bx < bx0; ++bx)
            if (mayHoldContent(bx, by)) {
                bx0 = bx;
                break;
            }
        for (std::int64_t bx = d->blocksWide - 1; bx > bx1; --bx)
            if (mayHoldContent(bx, by)) {
                bx1 = bx;
                break;
            }
    }
    const std::int64_t cx0 = bx0 * 8, cx1 = std::min((bx1 + 1) * 8, width);
    const std::int64_t cy0 = by0 * 8, cy1 = std::min((by1 + 1) * 8, height);

    // Within that box, strips from each side are decoded, growing until they
    // meet content.
    Raster raster;
    std::int64_t ox = 0, oy = 0;
    const auto isContent = [&](std::int64_t x, std::int64_t y) {
        const std::uint8_t* p = raster.at(x - ox, y - oy);
        return (raster.components == 1 ? p[0] : std::min({p[0], p[1], p[2]})) < whiteness;
    };
    std::int64_t left = -1, right = -1, top = -1, bottom = -1;
    for (std::int64_t from = cx0, step = 64; left < 0 && from < cx1; from += step, step *= 4) {
        const std::int64_t to = std::min(from + step, cx1);
        if (!d->decodeRegion(from, cy0, to, cy1, raster, ox, oy))
            return {};
        for (std::int64_t y = cy0; y < cy1; ++y)
            for (std::int64_t x = from; x < (left < 0 ? to : left); ++x)
                if (isContent(x, y)) {
                    left = x;
                    break;
                }
    }
    if (left < 0)
        return {true, std::nullopt};
    for (std::int64_t to = cx1, step = 64; right < 0 && to > left; to -= step, step *= 4) {
        const std::int64_t from = std::max(to - step, left);
        if (!d->decodeRegion(from, cy0, to, cy1, raster, ox, oy))
            return {};
        for (std::int64_t y = cy0; y < cy1; ++y)
            for (std::int64_t x = to - 1; x >= std::max(from, right + 1); --x)
                if (isContent(x, y)) {
                    right = x;
                    break;
                }
    }
    for (std::int64_t from = cy0, step = 64; right >= 0 && top < 0 && from < cy1; from += step, step *= 4) {
        const std::int64_t to = std::min(from + step, cy1);
        if (!d->decodeRegion(left, from, right + 1, to, raster, ox, oy))
            return {};
        for (std::int64_t y = from; y < to && top < 0; ++y)
            for (std::int64_t x = left; x <= right; ++x)
                if (isContent(x, y)) {
                    top = y;
                    break;
                }
    }
    for (std::int64_t to = cy1, step = 64; top >= 0 && bottom < 0 && to > top; to -= step, step *= 4) {
        const std::int64_t from = std::max(to - step, top);
        if (!d->decodeRegion(left, from, right + 1, to, raster, ox, oy))
            return {};
        for (std::int64_t y = to - 1; y >= from && bottom < 0; --y)
            for (std::int64_t x = left; x <= right; ++x)
                if (isContent(x, y)) {
                    bottom = y;
                    break;
                }
    }
    if (bottom < 0) // the strips disagree with each other: never for a sound decoder
        return {};
    return {true, PixelRect{left, top, right - left + 1, bottom - top + 1}};
}

std::optional<QByteArray> Blocks::crop(const PixelRect& rect)
{
    const Grid& g = d->grid;
    if (rect.width <= 0 || rect.height <= 0 || rect.x < 0 || rect.y < 0 || rect.x % g.blockWidth != 0
        || rect.y % g.blockHeight != 0 || rect.x + rect.width > g.width || rect.y + rect.height > g.height)
        return std::nullopt;
    QByteArray file;
    if (d->spent || !d->write(rect, d->progressive, true, true, file))
        return std::nullopt;
    d->spent = true;
    return file;
}

} // namespace orvane::LosslessJpeg
