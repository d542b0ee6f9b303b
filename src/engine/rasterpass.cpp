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

// Reduces a raster fed row by row, top to bottom, by averaging boxes: source
// column x falls in box floor(x × dw / sw), and the same for rows. Holds one
// row of sums and the output.
class BoxScaler {
public:
    BoxScaler(std::size_t srcWidth, std::size_t srcHeight, std::size_t dstWidth, std::size_t dstHeight)
        : m_srcHeight(srcHeight)
        , m_dstWidth(dstWidth)
        , m_dstHeight(dstHeight)
        , m_columnStart(dstWidth + 1)
        , m_sums(dstWidth * 4, 0)
        , m_out(dstWidth * dstHeight * 4)
    {
        for (std::size_t dx = 0; dx <= dstWidth; ++dx)
            m_columnStart[dx] = dx * srcWidth / dstWidth;
        m_nextRowStart = rowStart(1);
    }

    void addRow(std::size_t y, const std::uint8_t* row)
    {
        if (y >= m_nextRowStart)
            flush();
        std::uint32_t* sum = m_sums.data();
        for (std::size_t dx = 0; dx < m_dstWidth; ++dx, sum += 4) {
            std::uint32_t r = 0, g = 0, b = 0, a = 0;
            const std::uint8_t* p = row + 4 * m_columnStart[dx];
            const std::uint8_t* end = row + 4 * m_columnStart[dx + 1];
            for (; p < end; p += 4) {
                r += p[0];
                g += p[1];
                b += p[2];
                a += p[3];
            }
            sum[0] += r;
            sum[1] += g;
            sum[2] += b;
            sum[3] += a;
        }
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

    void flush()
    {
        std::uint8_t* out = m_out.data() + m_dy * m_dstWidth * 4;
        for (std::size_t dx = 0; dx < m_dstWidth; ++dx) {
            const std::uint32_t count = std::uint32_t((m_columnStart[dx + 1] - m_columnStart[dx]) * m_rowsSummed);
            for (int c = 0; c < 4; ++c)
                out[4 * dx + c] = std::uint8_t((m_sums[4 * dx + c] + count / 2) / count);
        }
        std::fill(m_sums.begin(), m_sums.end(), 0);
        m_rowsSummed = 0;
        ++m_dy;
        m_nextRowStart = rowStart(m_dy + 1);
    }

    std::size_t m_srcHeight;
    std::size_t m_dstWidth;
    std::size_t m_dstHeight;
    std::vector<std::size_t> m_columnStart;
    std::vector<std::uint32_t> m_sums;
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
            if (m_bands) {
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

// A strip of copied rows handed from the reading thread to the folding one.
struct Strip {
    std::size_t top = 0;
    std::size_t rows = 0;
    std::vector<std::uint8_t> bytes;
};

// Two strips in turn: the reader fills one while the helper folds the other.
class StripQueue {
public:
    explicit StripQueue(std::size_t stripBytes)
    {
        for (Strip& s : m_strips)
            s.bytes.resize(stripBytes);
    }

    // The next strip to fill, once the helper is done with it.
    Strip& toFill()
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_filled - m_folded < 2; });
        return m_strips[m_filled % 2];
    }
    void filled()
    {
        {
            std::lock_guard lock(m_mutex);
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
    // The next strip to fold; null once the reader closed and all are folded.
    Strip* toFold()
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_folded < m_filled || m_closed; });
        return m_folded < m_filled ? &m_strips[m_folded % 2] : nullptr;
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

// Rows per strip: about 4 MiB of raster, between 16 and 256 rows.
int stripRows(std::size_t width) { return int(std::clamp<std::size_t>((std::size_t{4} << 20) / (width * 4), 16, 256)); }

// Images from this many pixels on are folded on a helper thread.
constexpr std::size_t kHelperPixels = std::size_t{1} << 20;

bool readStrips(const vips::VImage& source, std::size_t width, std::size_t height, std::size_t pixelBytes,
                Folder& folder)
{
    std::unique_ptr<VipsRegion, RegionDeleter> region(vips_region_new(source.get_image()));
    if (!region)
        return false;
    const int rows = stripRows(width);
    const std::size_t rowBytes = width * pixelBytes;

    const auto prepare = [&](std::size_t top) -> std::size_t {
        const int count = int(std::min<std::size_t>(std::size_t(rows), height - top));
        VipsRect strip{0, int(top), int(width), count};
        return vips_region_prepare(region.get(), &strip) == 0 ? std::size_t(count) : 0;
    };

    if (width * height < kHelperPixels) {
        for (std::size_t top = 0; top < height;) {
            const std::size_t count = prepare(top);
            if (count == 0)
                return false;
            folder.fold(top, count, reinterpret_cast<const std::uint8_t*>(VIPS_REGION_ADDR(region.get(), 0, int(top))),
                        std::size_t(VIPS_REGION_LSKIP(region.get())));
            top += count;
        }
        return true;
    }

    StripQueue queue(rowBytes * std::size_t(rows));
    const auto foldAll = [&] {
        while (Strip* strip = queue.toFold()) {
            folder.fold(strip->top, strip->rows, strip->bytes.data(), rowBytes);
            queue.folded();
        }
    };
    std::thread helper;
    try {
        helper = std::thread(foldAll);
    } catch (const std::system_error&) {
    }
    bool ok = true;
    for (std::size_t top = 0; top < height;) {
        const std::size_t count = prepare(top);
        if (count == 0) {
            ok = false;
            break;
        }
        Strip& strip = queue.toFill();
        const auto* first = reinterpret_cast<const std::uint8_t*>(VIPS_REGION_ADDR(region.get(), 0, int(top)));
        const std::size_t stride = std::size_t(VIPS_REGION_LSKIP(region.get()));
        for (std::size_t i = 0; i < count; ++i)
            std::memcpy(strip.bytes.data() + i * rowBytes, first + i * stride, rowBytes);
        strip.top = top;
        strip.rows = count;
        queue.filled();
        if (!helper.joinable()) // no thread to be had: fold here
            if (Strip* s = queue.toFold()) {
                folder.fold(s->top, s->rows, s->bytes.data(), rowBytes);
                queue.folded();
            }
        top += count;
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
        const std::size_t pixelBytes = bands ? std::size_t(*bands) : 4;

        const int copySide = previewSide > 0 ? previewSide : thumbnailSide;
        const auto [copyWidth, copyHeight] = scaledSize(image.width(), image.height(), copySide);
        Folder folder(width, height, bands, copyWidth, copyHeight);
        if (!readStrips(source, width, height, pixelBytes, folder)) {
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
