#include "engine/rasterpass.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>

#include "engine/rasterconversion.h"

namespace orvane::RasterPass {

namespace {

// Adds a row of bytes to running column sums; the hot loop of the copies.
// Two plain functions rather than a template: clang cannot make clones of
// a template for each processor.
__attribute__((target_clones("avx2", "default"))) void addBytes(std::uint16_t* __restrict sums,
                                                                 const std::uint8_t* __restrict row, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        sums[i] = std::uint16_t(sums[i] + row[i]);
}

__attribute__((target_clones("avx2", "default"))) void addBytes(std::uint32_t* __restrict sums,
                                                                 const std::uint8_t* __restrict row, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        sums[i] += row[i];
}

// Reduces a raster fed row by row, top to bottom, by averaging boxes: source
// column x falls in box floor(x × dw / sw), and the same for rows. The rows of
// a box are summed column by column as they come (in 16 bits while a box is
// at most 257 rows tall), and the columns once the box's last row is in.
class BoxScaler {
public:
    BoxScaler(std::size_t srcWidth, std::size_t srcHeight, std::size_t dstWidth, std::size_t dstHeight)
        : m_srcHeight(srcHeight)
        , m_dstWidth(dstWidth)
        , m_dstHeight(dstHeight)
        , m_columnStart(dstWidth + 1)
        , m_out(dstWidth * dstHeight * 4)
    {
        for (std::size_t dx = 0; dx <= dstWidth; ++dx)
            m_columnStart[dx] = dx * srcWidth / dstWidth;
        m_nextRowStart = rowStart(1);
        if ((srcHeight / dstHeight + 1) * 255 <= 0xFFFF)
            m_narrow.assign(srcWidth * 4, 0);
        else
            m_wide.assign(srcWidth * 4, 0);
    }

    void addRow(std::size_t y, const std::uint8_t* row)
    {
        if (y >= m_nextRowStart)
            flush();
        if (!m_narrow.empty())
            addBytes(m_narrow.data(), row, m_narrow.size());
        else
            addBytes(m_wide.data(), row, m_wide.size());
        ++m_rowsSummed;
    }

    Scaled finish()
    {
        if (m_rowsSummed > 0)
            flush();
        return Scaled{std::int64_t(m_dstWidth), std::int64_t(m_dstHeight), std::move(m_out)};
    }

private:
    std::size_t rowStart(std::size_t dy) const { return dy * m_srcHeight / m_dstHeight; }

    template<typename Sum>
    void reduce(std::vector<Sum>& sums)
    {
        std::uint8_t* out = m_out.data() + m_dy * m_dstWidth * 4;
        for (std::size_t dx = 0; dx < m_dstWidth; ++dx) {
            std::uint64_t box[4] = {0, 0, 0, 0};
            for (std::size_t x = m_columnStart[dx]; x < m_columnStart[dx + 1]; ++x) {
                for (std::size_t c = 0; c < 4; ++c) {
                    box[c] += sums[4 * x + c];
                    sums[4 * x + c] = 0;
                }
            }
            const std::uint64_t count = (m_columnStart[dx + 1] - m_columnStart[dx]) * m_rowsSummed;
            for (std::size_t c = 0; c < 4; ++c)
                out[4 * dx + c] = std::uint8_t((box[c] + count / 2) / count);
        }
    }

    void flush()
    {
        if (!m_narrow.empty())
            reduce(m_narrow);
        else
            reduce(m_wide);
        m_rowsSummed = 0;
        ++m_dy;
        m_nextRowStart = rowStart(m_dy + 1);
    }

    std::size_t m_srcHeight;
    std::size_t m_dstWidth;
    std::size_t m_dstHeight;
    std::vector<std::size_t> m_columnStart;
    std::vector<std::uint16_t> m_narrow;
    std::vector<std::uint32_t> m_wide;
    std::vector<std::uint8_t> m_out;
    std::size_t m_dy = 0;
    std::size_t m_rowsSummed = 0;
    std::size_t m_nextRowStart = 0;
};

Scaled scaledDown(const Scaled& from, int longSide)
{
    const auto [w, h] = scaledSize(from.width, from.height, longSide);
    if (w == from.width && h == from.height)
        return from;
    BoxScaler scaler(std::size_t(from.width), std::size_t(from.height), std::size_t(w), std::size_t(h));
    for (std::int64_t y = 0; y < from.height; ++y)
        scaler.addRow(std::size_t(y), from.pixels.data() + y * from.width * 4);
    return scaler.finish();
}

// RGB bytes as opaque raster pixels (what expandRow() does for three bands),
// in a loop the compiler vectorises: the most common photo by far.
__attribute__((target_clones("avx2", "default"))) void opaqueFromRgb(const std::uint8_t* __restrict in,
                                                                      std::uint8_t* __restrict out, std::size_t width)
{
    for (std::size_t x = 0; x < width; ++x) {
        out[4 * x] = in[3 * x];
        out[4 * x + 1] = in[3 * x + 1];
        out[4 * x + 2] = in[3 * x + 2];
        out[4 * x + 3] = 255;
    }
}

// The same for grey bytes.
__attribute__((target_clones("avx2", "default"))) void opaqueFromGrey(const std::uint8_t* __restrict in,
                                                                       std::uint8_t* __restrict out, std::size_t width)
{
    for (std::size_t x = 0; x < width; ++x) {
        out[4 * x] = in[x];
        out[4 * x + 1] = in[x];
        out[4 * x + 2] = in[x];
        out[4 * x + 3] = 255;
    }
}

// What happens to the rows of each strip once they are read: made into raster
// rows (when they are the image's own bytes) and folded into the index and
// the reduced copy.
class Folder {
public:
    Folder(std::size_t width, std::size_t height, std::optional<int> bands, std::int64_t scaledWidth,
           std::int64_t scaledHeight)
        : m_width(width)
        , m_bands(bands)
        , m_builder(width, height)
        , m_scaler(width, height, std::size_t(scaledWidth), std::size_t(scaledHeight))
        , m_row(bands ? width * 4 : 0)
    {
    }

    void fold(std::size_t top, std::size_t rows, const std::uint8_t* strip, std::size_t stride)
    {
        for (std::size_t i = 0; i < rows; ++i) {
            const std::uint8_t* row = strip + i * stride;
            if (m_bands == 3) {
                opaqueFromRgb(row, m_row.data(), m_width);
                row = m_row.data();
            } else if (m_bands == 1) {
                opaqueFromGrey(row, m_row.data(), m_width);
                row = m_row.data();
            } else if (m_bands) {
                CropEngine::detail::expandRow(row, *m_bands, m_row.data(), m_width);
                row = m_row.data();
            }
            m_builder.addRow(top + i, row);
            m_scaler.addRow(top + i, row);
        }
    }

    ToleranceIndex finishIndex() { return m_builder.finish(); }
    Scaled finishCopy() { return m_scaler.finish(); }

private:
    std::size_t m_width;
    std::optional<int> m_bands;
    ToleranceIndex::Builder m_builder;
    BoxScaler m_scaler;
    std::vector<std::uint8_t> m_row;
};

// A strip of rows read into one of two regions, handed from the reading
// thread to the folding one.
struct Strip {
    std::size_t top = 0;
    std::size_t rows = 0;
    const std::uint8_t* data = nullptr;
    std::size_t stride = 0;
};

// Two strips in turn: the reader prepares one region while the helper folds
// the rows of the other.
class StripQueue {
public:
    // Waits until strip number n may be read into its region (n % 2): the
    // helper is done with strip n − 2.
    void waitToFill(std::size_t n)
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_folded + 2 > n; });
    }
    void filled(const Strip& strip)
    {
        {
            std::lock_guard lock(m_mutex);
            m_strips[m_filled % 2] = strip;
            ++m_filled;
        }
        m_changed.notify_all();
    }
    void close()
    {
        {
            std::lock_guard lock(m_mutex);
            m_closed = true;
        }
        m_changed.notify_all();
    }
    // The next strip to fold; absent once the reader closed and all are folded.
    std::optional<Strip> toFold()
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_folded < m_filled || m_closed; });
        return m_folded < m_filled ? std::optional<Strip>(m_strips[m_folded % 2]) : std::nullopt;
    }
    void folded()
    {
        {
            std::lock_guard lock(m_mutex);
            ++m_folded;
        }
        m_changed.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    Strip m_strips[2];
    std::size_t m_filled = 0;
    std::size_t m_folded = 0;
    bool m_closed = false;
};

struct RegionDeleter {
    void operator()(VipsRegion* region) const { g_object_unref(region); }
};
using Region = std::unique_ptr<VipsRegion, RegionDeleter>;

// Rows per strip: about 4 MiB of raster, between 16 and 256 rows.
int stripRows(std::size_t width) { return int(std::clamp<std::size_t>((std::size_t{4} << 20) / (width * 4), 16, 256)); }

// Images from this many pixels on are folded on a helper thread.
constexpr std::size_t kHelperPixels = std::size_t{1} << 20;

bool readStrips(const vips::VImage& source, std::size_t width, std::size_t height, Folder& folder)
{
    Region regions[2] = {Region(vips_region_new(source.get_image())), Region(vips_region_new(source.get_image()))};
    if (!regions[0] || !regions[1])
        return false;
    const int rows = stripRows(width);

    // Strip n from top, read into its region; absent when the decoder fails.
    const auto read = [&](std::size_t n, std::size_t top) -> std::optional<Strip> {
        VipsRegion* region = regions[n % 2].get();
        const int count = int(std::min<std::size_t>(std::size_t(rows), height - top));
        VipsRect rect{0, int(top), int(width), count};
        if (vips_region_prepare(region, &rect) != 0)
            return std::nullopt;
        return Strip{top, std::size_t(count), reinterpret_cast<const std::uint8_t*>(VIPS_REGION_ADDR(region, 0, int(top))),
                     std::size_t(VIPS_REGION_LSKIP(region))};
    };

    std::thread helper;
    StripQueue queue;
    if (width * height >= kHelperPixels) {
        try {
            helper = std::thread([&] {
                while (const std::optional<Strip> strip = queue.toFold()) {
                    folder.fold(strip->top, strip->rows, strip->data, strip->stride);
                    queue.folded();
                }
            });
        } catch (const std::system_error&) {
        }
    }
    bool ok = true;
    std::size_t n = 0;
    for (std::size_t top = 0; top < height; ++n) {
        if (helper.joinable())
            queue.waitToFill(n);
        const std::optional<Strip> strip = read(n, top);
        if (!strip) {
            ok = false;
            break;
        }
        if (helper.joinable())
            queue.filled(*strip);
        else // small image, or no thread to be had: fold here
            folder.fold(strip->top, strip->rows, strip->data, strip->stride);
        top += strip->rows;
    }
    queue.close();
    if (helper.joinable())
        helper.join();
    return ok;
}

} // namespace

std::pair<std::int64_t, std::int64_t> scaledSize(std::int64_t width, std::int64_t height, int longSide)
{
    const std::int64_t longest = std::max(width, height);
    if (longest <= longSide)
        return {width, height};
    const double scale = double(longSide) / double(longest);
    return {std::max<std::int64_t>(1, std::llround(double(width) * scale)),
            std::max<std::int64_t>(1, std::llround(double(height) * scale))};
}

std::optional<Result> run(const vips::VImage& image, int thumbnailSide, int previewSide)
{
    if (!image.get_image() || image.width() < 1 || image.height() < 1)
        return std::nullopt;
    try {
        const auto width = std::size_t(image.width());
        const auto height = std::size_t(image.height());
        const std::optional<int> bands = CropEngine::detail::bytesToExpand(image);
        const vips::VImage source = bands ? image : CropEngine::detail::rasterPipeline(image);

        const int copySide = previewSide > 0 ? previewSide : thumbnailSide;
        const auto [copyWidth, copyHeight] = scaledSize(image.width(), image.height(), copySide);
        Folder folder(width, height, bands, copyWidth, copyHeight);
        if (!readStrips(source, width, height, folder)) {
            vips_error_clear();
            return std::nullopt;
        }
        Result result;
        result.width = image.width();
        result.height = image.height();
        result.index = folder.finishIndex();
        Scaled copy = folder.finishCopy();
        result.thumbnail = scaledDown(copy, thumbnailSide);
        if (previewSide > 0)
            result.preview = std::move(copy);
        return result;
    } catch (const vips::VError&) {
        vips_error_clear();
        return std::nullopt;
    } catch (const std::bad_alloc&) {
        vips_error_clear();
        return std::nullopt;
    }
}

} // namespace orvane::RasterPass
