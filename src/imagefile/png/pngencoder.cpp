#include "imagefile/png/pngencoder.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include <libdeflate.h>

#include "imagefile/png/pngrows.h"

namespace orvane::PngEncoder {

namespace {

using PngRows::Buffer;
using PngRows::paeth;

// libdeflate's level 8 finds the long matches that make up most of what is
// left of smooth artwork (gradients and flat shapes): there it writes files
// 35-60 % smaller than level 6, and a quarter smaller than zlib at level 7
// (see referenceZlibLevel). Elsewhere it only costs time: on grainy
// photographs and on screenshots (flat colours and text) level 6 comes within
// 3 % of it in size and is a quarter to a third faster. So a sample of rows
// that compresses well is compressed again at level 8, which is used only
// where it makes the sample clearly smaller.
constexpr int compressionLevel = 6;
constexpr int strongLevel = 8;
constexpr double wellCompressedRatio = 8.0; // grainy photographs compress about 2 : 1
constexpr double strongLevelGain = 0.9;
// Samples that shrink more than this are smooth artwork (60 : 1 and more;
// screenshots mostly 20 to 45 : 1) and get level 8 without the second look.
constexpr double smoothRatio = 50.0;
// Grey images are a third of the bytes of colour ones per pixel, so a
// stronger level costs little time there, and grainy scans need it to come
// out no larger than zlib's best.
constexpr int greyCompressionLevel = 10;

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

// ---------------------------------------------------------------- what the pixels allow
//
// One look at every sample finds which smaller layouts hold the pixels
// exactly: 8 bits where 16-bit samples repeat their high byte in the low one,
// grey where red, green and blue agree, no alpha where it is opaque
// everywhere. The loops keep running flags so that they vectorise.

inline std::uint16_t sample16(const std::uint8_t* p)
{
    std::uint16_t s;
    std::memcpy(&s, p, 2);
    return s;
}

enum Breaks : unsigned { NotEightBits = 1, NotGrey = 2, NotOpaque = 4 };

__attribute__((target_clones("avx2", "default"))) unsigned rowBreaks8(const std::uint8_t* __restrict p,
                                                                         std::size_t width, int bands)
{
    unsigned colour = 0, alpha = 0;
    switch (bands) {
    case 2:
        for (std::size_t i = 0; i < width; ++i)
            alpha |= p[2 * i + 1] ^ 255u;
        break;
    case 3:
        for (std::size_t i = 0; i < width; ++i)
            colour |= unsigned(p[3 * i] ^ p[3 * i + 1]) | unsigned(p[3 * i + 1] ^ p[3 * i + 2]);
        break;
    case 4:
        for (std::size_t i = 0; i < width; ++i) {
            colour |= unsigned(p[4 * i] ^ p[4 * i + 1]) | unsigned(p[4 * i + 1] ^ p[4 * i + 2]);
            alpha |= p[4 * i + 3] ^ 255u;
        }
        break;
    default:
        break;
    }
    return (colour ? NotGrey : 0u) | (alpha ? NotOpaque : 0u);
}

__attribute__((target_clones("avx2", "default"))) unsigned rowBreaks16(const std::uint8_t* __restrict p,
                                                                          std::size_t width, int bands)
{
    unsigned wide = 0, colour = 0, alpha = 0;
    const std::size_t n = width * std::size_t(bands);
    for (std::size_t i = 0; i < n; ++i) {
        const unsigned s = sample16(p + 2 * i);
        wide |= (s >> 8) ^ (s & 255u);
    }
    if (bands >= 3) {
        const std::size_t step = std::size_t(bands) * 2;
        for (std::size_t i = 0; i < width; ++i) {
            const std::uint8_t* q = p + i * step;
            colour |= unsigned(sample16(q) ^ sample16(q + 2)) | unsigned(sample16(q + 2) ^ sample16(q + 4));
        }
    }
    if (bands == 2 || bands == 4) {
        const std::size_t step = std::size_t(bands) * 2;
        for (std::size_t i = 0; i < width; ++i)
            alpha |= sample16(p + i * step + step - 2) ^ 0xffffu;
    }
    return (wide ? NotEightBits : 0u) | (colour ? NotGrey : 0u) | (alpha ? NotOpaque : 0u);
}

// Which of the reductions that apply to the pixels they break; stops once
// every one is broken.
unsigned breaks(const Pixels& px)
{
    const unsigned relevant = (px.depth == 16 ? NotEightBits : 0u) | (px.bands >= 3 ? NotGrey : 0u)
        | (px.bands == 2 || px.bands == 4 ? NotOpaque : 0u);
    unsigned found = 0;
    for (int y = 0; y < px.height && (found & relevant) != relevant; ++y) {
        const std::uint8_t* row = px.data + std::size_t(y) * px.stride;
        found |= px.depth == 8 ? rowBreaks8(row, std::size_t(px.width), px.bands)
                               : rowBreaks16(row, std::size_t(px.width), px.bands);
    }
    return found;
}

// The pixels in the fewest bands and bits that hold them exactly.
struct Reduced {
    Buffer data; // empty when the pixels are already as small as they go
    Pixels px;
};

// Reduced pixels; px.data null when memory runs out.
Reduced reduced(const Pixels& px, unsigned broken, bool greyAllowed)
{
    const bool grey = px.bands < 3 || (greyAllowed && !(broken & NotGrey));
    const bool alpha = (px.bands == 2 || px.bands == 4) && (broken & NotOpaque);
    const bool narrow = px.depth == 16 && !(broken & NotEightBits);
    Reduced r;
    r.px = px;
    r.px.bands = (grey ? 1 : 3) + (alpha ? 1 : 0);
    r.px.depth = narrow ? 8 : px.depth;
    if (r.px.bands == px.bands && r.px.depth == px.depth)
        return r;

    // Which source sample each written one is.
    int from[4] = {0, 1, 2, px.bands - 1};
    if (grey && alpha)
        from[1] = px.bands - 1;
    const int inBytes = px.depth / 8, outBytes = r.px.depth / 8;
    const std::size_t inPixel = std::size_t(px.bands * inBytes), outPixel = std::size_t(r.px.bands * outBytes);
    r.px.stride = std::size_t(px.width) * outPixel;
    r.data = allocate(r.px.stride * std::size_t(px.height));
    r.px.data = r.data.get();
    if (!r.data)
        return r;
    for (int y = 0; y < px.height; ++y) {
        const std::uint8_t* in = px.data + std::size_t(y) * px.stride;
        std::uint8_t* out = r.data.get() + std::size_t(y) * r.px.stride;
        for (int x = 0; x < px.width; ++x, in += inPixel, out += outPixel) {
            for (int k = 0; k < r.px.bands; ++k) {
                const std::uint8_t* s = in + from[k] * inBytes;
                if (narrow)
                    out[k] = std::uint8_t(sample16(s) >> 8);
                else if (outBytes == 1)
                    out[k] = *s;
                else
                    std::memcpy(out + 2 * k, s, 2);
            }
        }
    }
    return r;
}

// The grey values of 8-bit grey pixels: how many there are, and the fewest
// bits (1, 2, 4 or 8) per sample that hold every one exactly. PNG scales a
// sample of b bits to 8 by multiplying it by 255 / (2^b − 1), so 2 bits hold
// 0, 85, 170 and 255.
struct GreyLevels {
    int count = 0;
    int bits = 1;
};

GreyLevels greyLevels(const Pixels& px)
{
    std::array<bool, 256> seen{};
    for (int y = 0; y < px.height; ++y) {
        const std::uint8_t* p = px.data + std::size_t(y) * px.stride;
        for (int x = 0; x < px.width; ++x)
            seen[p[x]] = true;
    }
    GreyLevels levels;
    for (int v = 0; v < 256; ++v) {
        if (!seen[std::size_t(v)])
            continue;
        ++levels.count;
        levels.bits = std::max(levels.bits, v % 255 == 0 ? 1 : v % 85 == 0 ? 2 : v % 17 == 0 ? 4 : 8);
    }
    return levels;
}

// The colour space an ICC profile says it describes ('GRAY', 'RGB ' …);
// zero when the profile is too short to say.
std::uint32_t profileColourSpace(const QByteArray& profile)
{
    if (profile.size() < 20)
        return 0;
    const auto* p = reinterpret_cast<const std::uint8_t*>(profile.constData()) + 16;
    return std::uint32_t(p[0]) << 24 | std::uint32_t(p[1]) << 16 | std::uint32_t(p[2]) << 8 | p[3];
}

constexpr std::uint32_t greySpace = 0x47524159; // 'GRAY'

// ---------------------------------------------------------------- indexed colour

struct ColourPalette {
    std::vector<std::array<std::uint8_t, 4>> entries; // RGBA; translucent ones first
    int bits = 8;                                    // per index: 1, 2, 4 or 8
};

int bitsFor(std::size_t count)
{
    return count <= 2 ? 1 : count <= 4 ? 2 : count <= 16 ? 4 : 8;
}

// A pixel of 8-bit samples as a hash key: its RGBA bytes, plus one so that 0
// marks an empty slot.
inline std::uint64_t colourKey(const std::uint8_t* p, int bands)
{
    std::uint64_t r, g, b, a = 255;
    switch (bands) {
    case 1: r = g = b = p[0]; break;
    case 2: r = g = b = p[0]; a = p[1]; break;
    case 3: r = p[0]; g = p[1]; b = p[2]; break;
    default: r = p[0]; g = p[1]; b = p[2]; a = p[3]; break;
    }
    return (r | g << 8 | b << 16 | a << 24) + 1;
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

// The exact palette of 8-bit pixels of at most 256 distinct values; absent
// otherwise. Photographs give up within a few hundred pixels.
std::optional<ColourPalette> exactPalette(const Pixels& px, ColourTable& table)
{
    if (px.depth != 8)
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
    ColourPalette palette;
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
    palette.bits = bitsFor(palette.entries.size());
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

// ---------------------------------------------------------------- writing

// How the (reduced) pixels are written: as indices into a palette, as grey
// of fewer than 8 bits, or sample for sample.
struct Layout {
    const ColourPalette* palette = nullptr;
    int bits = 8; // per index, or per sample
};

int bitsPerPixel(const Pixels& px, const Layout& layout)
{
    return layout.palette ? layout.palette->bits : px.bands * layout.bits;
}

// Rows first to last of the image, filtered, each after its filter byte, into
// out. Packed rows (indices, grey of fewer than 8 bits) are not filtered, as
// libpng does by default: neighbouring indices say nothing of each other.
// False when memory runs out.
bool filterRows(const Pixels& px, const Layout& layout, ColourTable& table, int first, int last, std::uint8_t* out)
{
    const int bpp = bitsPerPixel(px, layout);
    const std::size_t n = rowBytes(px, bpp);
    if (layout.palette || layout.bits < 8) {
        const int bits = layout.palette ? layout.palette->bits : layout.bits;
        const int greyShift = 8 - bits; // a grey value v = k · 255 / (2^bits − 1) packs as its top bits, k
        for (int y = first; y < last; ++y, out += n + 1) {
            out[0] = None;
            std::uint8_t* row = out + 1;
            std::memset(row, 0, n);
            const std::uint8_t* p = px.data + std::size_t(y) * px.stride;
            std::uint64_t lastKey = 0;
            int lastIndex = 0;
            for (int x = 0; x < px.width; ++x, p += px.bands) {
                int value;
                if (layout.palette) {
                    const std::uint64_t key = colourKey(p, px.bands);
                    if (key != lastKey) {
                        lastKey = key;
                        lastIndex = table.find(key);
                    }
                    value = lastIndex;
                } else {
                    value = p[0] >> greyShift;
                }
                const std::size_t bit = std::size_t(x) * std::size_t(bits);
                row[bit / 8] |= std::uint8_t(value << (8 - bits - int(bit % 8)));
            }
        }
        return true;
    }

    // Rows in PNG's byte order: big-endian samples when 16-bit.
    const std::size_t bytesPerPixel = std::size_t(bpp / 8);
    Buffer zeros = allocate(n);
    Buffer swapped[2] = {allocate(px.depth == 16 ? n : 0), allocate(px.depth == 16 ? n : 0)};
    if (!zeros || !swapped[0] || !swapped[1])
        return false;
    std::memset(zeros.get(), 0, n);
    const auto inOrder = [&](int y, std::uint8_t* row) -> const std::uint8_t* {
        const std::uint8_t* cur = px.data + std::size_t(y) * px.stride;
        if (px.depth != 16)
            return cur;
        for (std::size_t i = 0; i < n / 2; ++i) {
            const std::uint16_t s = sample16(cur + 2 * i);
            row[2 * i] = std::uint8_t(s >> 8);
            row[2 * i + 1] = std::uint8_t(s);
        }
        return row;
    };
    const std::uint8_t* prev = first > 0 ? inOrder(first - 1, swapped[(first - 1) & 1].get()) : zeros.get();
    for (int y = first; y < last; ++y, out += n + 1) {
        const std::uint8_t* cur = inOrder(y, swapped[y & 1].get());
        const Filter filter = bestFilter(cur, prev, n, bytesPerPixel);
        out[0] = filter;
        applyFilter(filter, cur, prev, n, bytesPerPixel, out + 1);
        prev = cur;
    }
    return true;
}

// The bytes a palette adds to the file: PLTE and tRNS with their frames.
std::size_t paletteBytes(const ColourPalette& palette)
{
    std::size_t translucent = 0;
    for (const std::array<std::uint8_t, 4>& entry : palette.entries)
        translucent += entry[3] < 255;
    return 12 + 3 * palette.entries.size() + (translucent ? 12 + translucent : 0);
}

// Indexed colour against the other layout, judged by compressing the same
// sample of rows both ways: strips of sampleRows rows spread evenly over the
// image, about a sixteenth of it, compressed at a fast level. Rows of one
// image are alike enough that the sample ranks the two as the whole would.
constexpr int sampleRows = 16;
constexpr int estimateLevel = 5;

// The sample of rows in the layout, compressed; its size with the palette,
// zero when memory runs out.
struct Sample {
    std::size_t raw = 0;
    std::size_t compressed = 0;
    double ratio() const { return compressed ? double(raw) / double(compressed) : 0.0; }
};

// The strips are compressed as one stream, so that, as in the file, later
// rows find earlier ones to match.
Sample sampled(const Pixels& px, const Layout& layout, ColourTable& table, libdeflate_compressor* compressor)
{
    const int wanted = std::clamp((px.height + 16 * sampleRows - 1) / (16 * sampleRows), 4, 32);
    const int strips = wanted * sampleRows >= px.height ? 1 : wanted;
    const int rows = strips == 1 ? px.height : sampleRows;
    const std::size_t stripBytes = std::size_t(rows) * (rowBytes(px, bitsPerPixel(px, layout)) + 1);
    const std::size_t sampleBytes = stripBytes * std::size_t(strips);
    const std::size_t bound = libdeflate_zlib_compress_bound(compressor, sampleBytes);
    Buffer filtered = allocate(sampleBytes);
    Buffer compressed = allocate(bound);
    if (!filtered || !compressed)
        return {};
    for (int k = 0; k < strips; ++k) {
        const int first = strips == 1 ? 0 : int(std::int64_t(k) * (px.height - rows) / (strips - 1));
        if (!filterRows(px, layout, table, first, first + rows, filtered.get() + std::size_t(k) * stripBytes))
            return {};
    }
    const std::size_t size = libdeflate_zlib_compress(compressor, filtered.get(), sampleBytes, compressed.get(), bound);
    return {sampleBytes, size == 0 ? 0 : size + (layout.palette ? paletteBytes(*layout.palette) : 0)};
}

} // namespace

std::size_t workingMemory(const Pixels& px)
{
    const std::size_t filtered = std::size_t(px.height) * (rowBytes(px, px.bands * px.depth) + 1);
    // A reduced copy of the pixels (never larger than they are), the filtered
    // rows, the compressed stream (at worst a little more than its input),
    // the file assembled from it, and a few rows and the sample.
    return 4 * filtered + filtered / 64 + 4 * rowBytes(px, px.bands * px.depth) + (std::size_t(4) << 20);
}

namespace {

// The file of the pixels in the layout. Empty when memory runs out.
QByteArray encodeAs(const Pixels& px, const Metadata& metadata, const Layout& layout, ColourTable& table,
                    libdeflate_compressor* compressor)
{
    const std::size_t n = rowBytes(px, bitsPerPixel(px, layout));
    const std::size_t filteredSize = std::size_t(px.height) * (n + 1);
    Buffer filtered = allocate(filteredSize);
    if (!filtered || !filterRows(px, layout, table, 0, px.height, filtered.get()))
        return {};
    const QByteArray stream = zlibCompress(compressor, filtered.get(), filteredSize);
    filtered.reset();
    if (stream.isEmpty())
        return {};

    QByteArray file;
    file.reserve(stream.size() + (stream.size() / qsizetype(idatChunkBytes) + 1) * 12 + metadata.iccProfile.size() + 1024);
    file.append("\x89PNG\r\n\x1a\n", 8);

    const std::uint8_t colourType = layout.palette ? 3 : std::array<std::uint8_t, 4>{0, 4, 2, 6}[std::size_t(px.bands - 1)];
    std::uint8_t header[13] = {};
    const std::uint32_t size[2] = {std::uint32_t(px.width), std::uint32_t(px.height)};
    for (int i = 0; i < 2; ++i) {
        for (int b = 0; b < 4; ++b)
            header[i * 4 + b] = std::uint8_t(size[i] >> (24 - 8 * b));
    }
    header[8] = std::uint8_t(layout.palette ? layout.palette->bits : layout.bits);
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
    if (layout.palette) {
        QByteArray colours, alphas;
        for (const std::array<std::uint8_t, 4>& entry : layout.palette->entries) {
            colours.append(reinterpret_cast<const char*>(entry.data()), 3);
            if (entry[3] < 255)
                alphas.append(char(entry[3]));
        }
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

QByteArray encode(const Pixels& source, const Metadata& metadata, Palette choice)
{
    if (!validPixels(source))
        return {};
    using Compressor = std::unique_ptr<libdeflate_compressor, CompressorDeleter>;

    // A profile for RGB must not go with grey pixels, nor one for grey with a
    // palette, whose entries are RGB.
    const std::uint32_t space = profileColourSpace(metadata.iccProfile);
    const bool greyAllowed = metadata.iccProfile.isEmpty() || space == greySpace;
    const bool paletteAllowed = choice == Palette::IfSmaller && (metadata.iccProfile.isEmpty() || space != greySpace);

    const Reduced r = reduced(source, breaks(source), greyAllowed);
    const Pixels& px = r.px;
    if (!px.data)
        return {};
    Layout direct{nullptr, px.depth};
    // A palette is looked for where it could hold the pixels in fewer bits:
    // grey only when few values fall between the steps of fewer bits.
    bool tryPalette = paletteAllowed && px.depth == 8;
    if (px.bands == 1 && px.depth == 8) {
        const GreyLevels levels = greyLevels(px);
        direct.bits = levels.bits;
        tryPalette = tryPalette && bitsFor(std::size_t(levels.count)) < levels.bits;
    }
    ColourTable table;
    std::optional<ColourPalette> palette;
    if (tryPalette)
        palette = exactPalette(px, table);

    // Indexed colour usually wins, but not always: small icons with soft
    // edges pay more for the palette than they save, and smooth gradients
    // predict better as colours than as indices. The sample that decides
    // also decides the level (grey has its own).
    const Compressor fast(libdeflate_alloc_compressor(estimateLevel));
    if (!fast)
        return {};
    Layout layout = direct;
    Sample sample;
    if (palette) {
        const Layout indexed{&*palette, palette->bits};
        const Sample asIndexed = sampled(px, indexed, table, fast.get());
        sample = sampled(px, direct, table, fast.get());
        if (asIndexed.compressed == 0 || sample.compressed == 0)
            return {};
        if (asIndexed.compressed <= sample.compressed) {
            layout = indexed;
            sample = asIndexed;
        }
    } else if (px.bands > 1) {
        sample = sampled(px, direct, table, fast.get());
        if (sample.compressed == 0)
            return {};
    }
    int level = px.bands == 1 ? greyCompressionLevel : compressionLevel;
    if (px.bands > 1 && sample.ratio() > smoothRatio) {
        level = strongLevel;
    } else if (px.bands > 1 && sample.ratio() > wellCompressedRatio) {
        const Compressor strong(libdeflate_alloc_compressor(strongLevel));
        if (!strong)
            return {};
        const Sample again = sampled(px, layout, table, strong.get());
        if (again.compressed > 0 && double(again.compressed) < strongLevelGain * double(sample.compressed))
            level = strongLevel;
    }
    const Compressor compressor(libdeflate_alloc_compressor(level));
    if (!compressor)
        return {};
    return encodeAs(px, metadata, layout, table, compressor.get());
}

} // namespace orvane::PngEncoder
