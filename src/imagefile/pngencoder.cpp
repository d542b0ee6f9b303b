#include "imagefile/pngencoder.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include <libdeflate.h>

#include "imagefile/pngrows.h"

namespace orvane::PngEncoder {

namespace {

using PngRows::Buffer;
using PngRows::paeth;

// Against zlib at level 7 (see referenceZlibLevel) with the same filters,
// libdeflate's level 8 writes artwork about a quarter smaller and grainy
// photographs within a percent or two either way, in about half the time.
// Level 7 and below write artwork larger than zlib does; 9 and up cost much
// more time for a few bytes.
constexpr int compressionLevel = 8;

// IDAT chunks of 1 MiB: small enough for any decoder's buffers, large enough
// that the 12 bytes of each chunk's frame don't count.
constexpr std::size_t idatChunkBytes = std::size_t(1) << 20;

Buffer allocate(std::size_t bytes)
{
    return Buffer(static_cast<std::uint8_t*>(std::malloc(std::max<std::size_t>(bytes, 1))));
}

struct CompressorDeleter {
    void operator()(libdeflate_compressor* c) const { libdeflate_free_compressor(c); }
};

void appendBigEndian32(QByteArray& out, std::uint32_t value)
{
    const char bytes[4] = {char(value >> 24), char(value >> 16), char(value >> 8), char(value)};
    out.append(bytes, 4);
}

void appendChunk(QByteArray& out, const char type[4], const std::uint8_t* data, std::size_t length)
{
    appendBigEndian32(out, std::uint32_t(length));
    const qsizetype typeAt = out.size();
    out.append(type, 4);
    if (length > 0)
        out.append(reinterpret_cast<const char*>(data), qsizetype(length));
    const auto* covered = reinterpret_cast<const std::uint8_t*>(out.constData() + typeAt);
    appendBigEndian32(out, std::uint32_t(libdeflate_crc32(0, covered, 4 + length)));
}

void appendChunk(QByteArray& out, const char type[4], const QByteArray& data)
{
    appendChunk(out, type, reinterpret_cast<const std::uint8_t*>(data.constData()), std::size_t(data.size()));
}

// zlib stream of the bytes; empty when memory runs out.
QByteArray zlibCompress(libdeflate_compressor* compressor, const std::uint8_t* data, std::size_t length)
{
    const std::size_t bound = libdeflate_zlib_compress_bound(compressor, length);
    Buffer out = allocate(bound);
    if (!out)
        return {};
    const std::size_t written = libdeflate_zlib_compress(compressor, data, length, out.get(), bound);
    if (written == 0)
        return {};
    return QByteArray(reinterpret_cast<const char*>(out.get()), qsizetype(written));
}

// ---------------------------------------------------------------- row filters
//
// Each row is written with the filter whose output bytes, read as signed,
// have the smallest sum of magnitudes: libpng's rule, so that files come
// out as small as theirs for the same compression.
// The loops are written so that the compiler vectorises them; the AVX2 clone
// is picked at load time where the processor has it.

inline std::uint32_t magnitude(std::uint8_t v)
{
    return std::uint32_t(std::abs(int(std::int8_t(v))));
}

enum Filter : std::uint8_t { None = 0, Sub = 1, Up = 2, Average = 3, Paeth = 4 };

// The sums of magnitudes of the five filters' output for one row. prev is
// the row above (all zeros for the first row); bpp the bytes per pixel.
__attribute__((target_clones("avx2", "default"))) void filterSums(const std::uint8_t* __restrict cur,
                                                                     const std::uint8_t* __restrict prev, std::size_t n,
                                                                     std::size_t bpp, std::uint32_t* sums)
{
    std::uint32_t none = 0, sub = 0, up = 0, average = 0, paethSum = 0;
    const std::size_t lead = std::min(bpp, n);
    for (std::size_t i = 0; i < lead; ++i) {
        const std::uint8_t x = cur[i];
        const std::uint8_t b = prev[i];
        none += magnitude(x);
        sub += magnitude(x);
        up += magnitude(std::uint8_t(x - b));
        average += magnitude(std::uint8_t(x - (b >> 1)));
        paethSum += magnitude(std::uint8_t(x - b)); // a = c = 0: the predictor is b
    }
    for (std::size_t i = lead; i < n; ++i) {
        const std::uint8_t x = cur[i];
        const std::uint8_t a = cur[i - bpp];
        const std::uint8_t b = prev[i];
        const std::uint8_t c = prev[i - bpp];
        none += magnitude(x);
        sub += magnitude(std::uint8_t(x - a));
        up += magnitude(std::uint8_t(x - b));
        average += magnitude(std::uint8_t(x - std::uint8_t((unsigned(a) + unsigned(b)) >> 1)));
        paethSum += magnitude(std::uint8_t(x - paeth(a, b, c)));
    }
    sums[None] = none;
    sums[Sub] = sub;
    sums[Up] = up;
    sums[Average] = average;
    sums[Paeth] = paethSum;
}

__attribute__((target_clones("avx2", "default"))) void applyFilter(Filter filter, const std::uint8_t* __restrict cur,
                                                                      const std::uint8_t* __restrict prev, std::size_t n,
                                                                      std::size_t bpp, std::uint8_t* __restrict out)
{
    const std::size_t lead = std::min(bpp, n);
    switch (filter) {
    case None:
        std::memcpy(out, cur, n);
        break;
    case Sub:
        std::memcpy(out, cur, lead);
        for (std::size_t i = lead; i < n; ++i)
            out[i] = std::uint8_t(cur[i] - cur[i - bpp]);
        break;
    case Up:
        for (std::size_t i = 0; i < n; ++i)
            out[i] = std::uint8_t(cur[i] - prev[i]);
        break;
    case Average:
        for (std::size_t i = 0; i < lead; ++i)
            out[i] = std::uint8_t(cur[i] - (prev[i] >> 1));
        for (std::size_t i = lead; i < n; ++i)
            out[i] = std::uint8_t(cur[i] - std::uint8_t((unsigned(cur[i - bpp]) + unsigned(prev[i])) >> 1));
        break;
    case Paeth:
        for (std::size_t i = 0; i < lead; ++i)
            out[i] = std::uint8_t(cur[i] - prev[i]);
        for (std::size_t i = lead; i < n; ++i)
            out[i] = std::uint8_t(cur[i] - paeth(cur[i - bpp], prev[i], prev[i - bpp]));
        break;
    }
}

Filter bestFilter(const std::uint8_t* cur, const std::uint8_t* prev, std::size_t n, std::size_t bpp)
{
    std::array<std::uint32_t, 5> sums{};
    filterSums(cur, prev, n, bpp, sums.data());
    // The first smallest: None wins ties, as it costs the decoder nothing.
    return Filter(std::min_element(sums.begin(), sums.end()) - sums.begin());
}

// ---------------------------------------------------------------- indexed colour

struct Palette {
    std::vector<std::array<std::uint8_t, 4>> entries; // RGBA; translucent ones first
    int bits = 8;                                    // per index: 1, 2, 4 or 8
};

// A colour as a hash key: its bytes, plus one so that 0 marks an empty slot.
inline std::uint64_t colourKey(const std::uint8_t* p, int bands)
{
    return (std::uint64_t(p[0]) | std::uint64_t(p[1]) << 8 | std::uint64_t(p[2]) << 16
            | std::uint64_t(bands == 4 ? p[3] : 255) << 24)
        + 1;
}

// Open addressing over 1024 slots, enough for 256 colours at a quarter full.
class ColourTable {
public:
    // The colour's number, adding it when new; -1 once a 257th would be added.
    int find(std::uint64_t key)
    {
        std::size_t slot = std::size_t((key * 0x9E3779B97F4A7C15ull) >> 54);
        while (m_keys[slot] != 0 && m_keys[slot] != key)
            slot = (slot + 1) & 1023;
        if (m_keys[slot] == 0) {
            if (m_count == 256)
                return -1;
            m_keys[slot] = key;
            m_values[slot] = std::uint8_t(m_count++);
        }
        return m_values[slot];
    }
    int count() const { return m_count; }
    void renumber(const std::array<std::uint8_t, 256>& to)
    {
        for (std::size_t slot = 0; slot < m_keys.size(); ++slot) {
            if (m_keys[slot] != 0)
                m_values[slot] = to[m_values[slot]];
        }
    }

private:
    std::array<std::uint64_t, 1024> m_keys{};
    std::array<std::uint8_t, 1024> m_values{};
    int m_count = 0;
};

// The exact palette of an 8-bit RGB or RGBA image of at most 256 distinct
// pixels; absent otherwise. Photographs give up within a few hundred pixels.
std::optional<Palette> exactPalette(const Pixels& px, ColourTable& table)
{
    if (px.depth != 8 || px.bands < 3)
        return std::nullopt;
    std::vector<std::uint64_t> firstSeen;
    for (int y = 0; y < px.height; ++y) {
        const std::uint8_t* p = px.data + std::size_t(y) * px.stride;
        std::uint64_t last = 0;
        for (int x = 0; x < px.width; ++x, p += px.bands) {
            const std::uint64_t key = colourKey(p, px.bands);
            if (key == last)
                continue;
            last = key;
            const int before = table.count();
            if (table.find(key) < 0)
                return std::nullopt;
            if (table.count() > before)
                firstSeen.push_back(key);
        }
    }
    // Translucent entries first, so that the tRNS chunk lists only those.
    std::array<std::uint8_t, 256> order{};
    Palette palette;
    for (const bool translucent : {true, false}) {
        for (std::size_t i = 0; i < firstSeen.size(); ++i) {
            const std::uint64_t colour = firstSeen[i] - 1;
            const auto alpha = std::uint8_t(colour >> 24);
            if ((alpha < 255) != translucent)
                continue;
            order[i] = std::uint8_t(palette.entries.size());
            palette.entries.push_back({std::uint8_t(colour), std::uint8_t(colour >> 8), std::uint8_t(colour >> 16), alpha});
        }
    }
    table.renumber(order);
    const std::size_t count = palette.entries.size();
    palette.bits = count <= 2 ? 1 : count <= 4 ? 2 : count <= 16 ? 4 : 8;
    return palette;
}

std::size_t rowBytes(const Pixels& px, int bitsPerPixel)
{
    return (std::size_t(px.width) * std::size_t(bitsPerPixel) + 7) / 8;
}

bool validPixels(const Pixels& px)
{
    return px.data && px.width > 0 && px.height > 0 && px.bands >= 1 && px.bands <= 4
        && (px.depth == 8 || px.depth == 16) && px.stride >= std::size_t(px.width) * std::size_t(px.bands * px.depth / 8);
}

} // namespace

std::size_t workingMemory(const Pixels& px)
{
    const std::size_t filtered = std::size_t(px.height) * (rowBytes(px, px.bands * px.depth) + 1);
    // The filtered rows, the compressed stream (at worst a little more than
    // its input), the file assembled from it, and a few rows.
    return 3 * filtered + filtered / 64 + 4 * rowBytes(px, px.bands * px.depth) + (std::size_t(1) << 20);
}

namespace {

// The file, as indexed colour when a palette is given (table then numbers
// its colours), else as grey or truecolour. Empty when memory runs out.
QByteArray encodeAs(const Pixels& px, const Metadata& metadata, const Palette* palette, ColourTable& table,
                    libdeflate_compressor* compressor)
{
    const int bitsPerPixel = palette ? palette->bits : px.bands * px.depth;
    const std::size_t n = rowBytes(px, bitsPerPixel);
    const std::size_t filteredSize = std::size_t(px.height) * (n + 1);
    Buffer filtered = allocate(filteredSize);
    if (!filtered)
        return {};

    if (palette) {
        // Indices packed from the high bits down; no filter, as for every
        // indexed image: neighbouring indices say nothing of each other.
        const int bits = palette->bits;
        for (int y = 0; y < px.height; ++y) {
            std::uint8_t* out = filtered.get() + std::size_t(y) * (n + 1);
            *out++ = None;
            std::memset(out, 0, n);
            const std::uint8_t* p = px.data + std::size_t(y) * px.stride;
            std::uint64_t lastKey = 0;
            int lastIndex = 0;
            for (int x = 0; x < px.width; ++x, p += px.bands) {
                const std::uint64_t key = colourKey(p, px.bands);
                if (key != lastKey) {
                    lastKey = key;
                    lastIndex = table.find(key);
                }
                const std::size_t bit = std::size_t(x) * std::size_t(bits);
                out[bit / 8] |= std::uint8_t(lastIndex << (8 - bits - int(bit % 8)));
            }
        }
    } else {
        const std::size_t bpp = std::size_t(px.bands * px.depth / 8);
        // Rows in PNG's byte order: big-endian samples when 16-bit.
        Buffer zeros = allocate(n);
        Buffer swapped[2] = {allocate(px.depth == 16 ? n : 0), allocate(px.depth == 16 ? n : 0)};
        if (!zeros || !swapped[0] || !swapped[1])
            return {};
        std::memset(zeros.get(), 0, n);
        const std::uint8_t* prev = zeros.get();
        for (int y = 0; y < px.height; ++y) {
            const std::uint8_t* cur = px.data + std::size_t(y) * px.stride;
            if (px.depth == 16) {
                std::uint8_t* row = swapped[y & 1].get();
                const auto* samples = reinterpret_cast<const std::uint16_t*>(cur);
                for (std::size_t i = 0; i < n / 2; ++i) {
                    std::uint16_t s;
                    std::memcpy(&s, samples + i, 2);
                    row[2 * i] = std::uint8_t(s >> 8);
                    row[2 * i + 1] = std::uint8_t(s);
                }
                cur = row;
            }
            std::uint8_t* out = filtered.get() + std::size_t(y) * (n + 1);
            const Filter filter = bestFilter(cur, prev, n, bpp);
            out[0] = filter;
            applyFilter(filter, cur, prev, n, bpp, out + 1);
            prev = cur;
        }
    }

    const QByteArray stream = zlibCompress(compressor, filtered.get(), filteredSize);
    filtered.reset();
    if (stream.isEmpty())
        return {};

    QByteArray file;
    file.reserve(stream.size() + (stream.size() / qsizetype(idatChunkBytes) + 1) * 12 + metadata.iccProfile.size() + 1024);
    file.append("\x89PNG\r\n\x1a\n", 8);

    const std::uint8_t colourType = palette ? 3 : std::array<std::uint8_t, 4>{0, 4, 2, 6}[std::size_t(px.bands - 1)];
    std::uint8_t header[13] = {};
    const std::uint32_t size[2] = {std::uint32_t(px.width), std::uint32_t(px.height)};
    for (int i = 0; i < 2; ++i) {
        for (int b = 0; b < 4; ++b)
            header[i * 4 + b] = std::uint8_t(size[i] >> (24 - 8 * b));
    }
    header[8] = std::uint8_t(palette ? palette->bits : px.depth);
    header[9] = colourType; // compression, filter method and interlacing stay 0
    appendChunk(file, "IHDR", header, sizeof header);

    if (!metadata.iccProfile.isEmpty()) {
        const QByteArray profile = zlibCompress(compressor,
                                                reinterpret_cast<const std::uint8_t*>(metadata.iccProfile.constData()),
                                                std::size_t(metadata.iccProfile.size()));
        if (profile.isEmpty())
            return {};
        appendChunk(file, "iCCP", QByteArray("icc\0\0", 5) + profile); // name, terminator, method 0
    }
    if (metadata.xPixelsPerMetre > 0 && metadata.yPixelsPerMetre > 0) {
        QByteArray physical;
        appendBigEndian32(physical, metadata.xPixelsPerMetre);
        appendBigEndian32(physical, metadata.yPixelsPerMetre);
        physical.append('\1'); // the unit is the metre
        appendChunk(file, "pHYs", physical);
    }
    if (palette) {
        QByteArray colours, alphas;
        for (const std::array<std::uint8_t, 4>& entry : palette->entries) {
            colours.append(reinterpret_cast<const char*>(entry.data()), 3);
            if (entry[3] < 255)
                alphas.append(char(entry[3]));
        }
        // An RGBA image whose pixels are all opaque still gets a tRNS chunk,
        // so that it reads back with its alpha band.
        if (alphas.isEmpty() && px.bands == 4)
            alphas.append('\xff');
        appendChunk(file, "PLTE", colours);
        if (!alphas.isEmpty())
            appendChunk(file, "tRNS", alphas);
    }
    const auto* data = reinterpret_cast<const std::uint8_t*>(stream.constData());
    for (std::size_t at = 0; at < std::size_t(stream.size()); at += idatChunkBytes)
        appendChunk(file, "IDAT", data + at, std::min(idatChunkBytes, std::size_t(stream.size()) - at));
    appendChunk(file, "IEND", nullptr, 0);
    return file;
}

} // namespace

QByteArray encode(const Pixels& px, const Metadata& metadata)
{
    if (!validPixels(px))
        return {};
    const std::unique_ptr<libdeflate_compressor, CompressorDeleter> compressor(
        libdeflate_alloc_compressor(compressionLevel));
    if (!compressor)
        return {};
    ColourTable table;
    const std::optional<Palette> palette = exactPalette(px, table);
    QByteArray truecolour = encodeAs(px, metadata, nullptr, table, compressor.get());
    if (!palette)
        return truecolour;
    // Indexed colour usually wins, but not always: small icons with soft
    // edges pay more for the palette than they save, and smooth gradients
    // predict better as colours than as indices. The smaller file is kept.
    QByteArray indexed = encodeAs(px, metadata, &*palette, table, compressor.get());
    if (truecolour.isEmpty() || indexed.isEmpty())
        return {};
    return indexed.size() <= truecolour.size() ? indexed : truecolour;
}

} // namespace orvane::PngEncoder
