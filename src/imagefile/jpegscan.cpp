#include "imagefile/jpegscan.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

namespace orvane::LosslessJpeg {

namespace {

int floorDiv(std::int64_t a, int b)
{
    return int(a >= 0 ? a / b : -((-a + b - 1) / b));
}

int clampSample(int v)
{
    return std::clamp(v, 0, 255);
}

std::int64_t ceilDiv(std::int64_t a, std::int64_t b)
{
    return (a + b - 1) / b;
}

int be16(const std::uint8_t* p)
{
    return p[0] << 8 | p[1];
}

// The entropy-coded data, its byte stuffing and restart markers taken out,
// read at any bit position: 57 bits are valid at the top of what peek()
// returns. Reads past the end see the zero padding behind the data.
constexpr std::size_t kPadding = 512; // more than one block can take (64 × 27 bits)

std::uint64_t peek(const std::uint8_t* data, std::uint64_t bit)
{
    std::uint64_t v;
    std::memcpy(&v, data + (bit >> 3), sizeof v);
    return __builtin_bswap64(v) << (bit & 7);
}

int extend(std::uint32_t bits, int size)
{
    return bits < (1u << (size - 1)) ? int(bits) - (1 << size) + 1 : int(bits);
}

// A Huffman table, as defined in the file, with what decoding and coding
// need. Codes of up to kLookBits bits are decoded by one lookup; an AC
// coefficient whose code and value fit there is decoded whole by another.
constexpr int kLookBits = 11;

struct HuffmanTable {
    bool defined = false;
    std::array<std::uint8_t, 16> counts{}; // codes of each length, 1 to 16
    std::vector<std::uint8_t> symbols;
    std::array<std::int32_t, 18> maxCode{}; // the largest code of each length; -1 for none
    std::array<std::int32_t, 17> offset{};  // symbol index minus code, per length
    std::array<std::uint16_t, 1 << kLookBits> look{}; // length << 8 | symbol; 0 when longer
    std::array<std::int32_t, 1 << kLookBits> fastAc{}; // value << 16 | run << 8 | bits; 0 when not
    std::array<std::uint16_t, 256> code{};
    std::array<std::uint8_t, 256> codeLength{}; // 0 for a symbol the table lacks

    bool build(bool ac);
    // The symbol at the top of bits and its code's length; false for no code.
    bool decode(std::uint64_t bits, int& length, int& symbol) const
    {
        const std::uint16_t entry = look[bits >> (64 - kLookBits)];
        if (entry != 0) {
            length = entry >> 8;
            symbol = entry & 0xff;
            return true;
        }
        for (int l = kLookBits + 1; l <= 16; ++l) {
            const auto c = std::int32_t(bits >> (64 - l));
            if (c <= maxCode[std::size_t(l)]) {
                length = l;
                symbol = symbols[std::size_t(c + offset[std::size_t(l)])];
                return true;
            }
        }
        return false;
    }
};

bool HuffmanTable::build(bool ac)
{
    // Canonical codes, checked as libjpeg checks them: no length may run out
    // of codes, and no code may be all ones.
    std::int32_t next = 0;
    std::size_t index = 0;
    look.fill(0);
    fastAc.fill(0);
    codeLength.fill(0);
    for (int l = 1; l <= 16; ++l) {
        offset[std::size_t(l)] = std::int32_t(index) - next;
        for (int k = 0; k < counts[std::size_t(l - 1)]; ++k, ++index, ++next) {
            if (next >= (1 << l))
                return false;
            const std::uint8_t symbol = symbols[index];
            code[symbol] = std::uint16_t(next);
            codeLength[symbol] = std::uint8_t(l);
            if (l <= kLookBits) {
                const int spare = kLookBits - l;
                for (int fill = 0; fill < (1 << spare); ++fill) {
                    const int at = next << spare | fill;
                    look[std::size_t(at)] = std::uint16_t(l << 8 | symbol);
                    const int size = symbol & 15, run = symbol >> 4;
                    if (ac && size != 0 && size <= spare) {
                        const auto bits = std::uint32_t(fill >> (spare - size)) & ((1u << size) - 1);
                        fastAc[std::size_t(at)] = std::int32_t(extend(bits, size) * 65536 + (run << 8) + l + size);
                    }
                }
            }
        }
        maxCode[std::size_t(l)] = counts[std::size_t(l - 1)] ? next - 1 : -1;
        if (next >= (1 << l))
            return false;
        next <<= 1;
    }
    maxCode[17] = 0x7fffffff;
    defined = true;
    return true;
}

struct Component {
    int id = 0;
    int h = 1, v = 1;  // sampling factors
    int quant = 0;     // table numbers
    int dc = 0, ac = 0;
};

struct QuantTable {
    bool defined = false;
    std::array<std::uint16_t, 64> values{}; // in zigzag order, as the file has them
};

// Writes entropy-coded bits, stuffing a zero byte after each 0xff.
class BitWriter {
public:
    explicit BitWriter(QByteArray& out)
        : m_out(out)
        , m_used(out.size())
    {
    }

    void put(std::uint32_t bits, int count) // count ≤ 32, bits above count clear
    {
        m_bits = m_bits << count | bits;
        m_count += count;
        if (m_count >= 32)
            flush32();
    }

    // The bits [from, to) of data.
    void copy(const std::uint8_t* data, std::uint64_t from, std::uint64_t to)
    {
        for (; to - from >= 32; from += 32)
            put(std::uint32_t(peek(data, from) >> 32), 32);
        if (to > from)
            put(std::uint32_t(peek(data, from) >> (64 - (to - from))), int(to - from));
    }

    // Pads the last byte with ones, as the format asks.
    void finish()
    {
        if (m_count % 8)
            put((1u << (8 - m_count % 8)) - 1, 8 - m_count % 8);
        while (m_count >= 8) {
            m_count -= 8;
            byte(std::uint8_t(m_bits >> m_count));
        }
        m_out.truncate(m_used);
    }

private:
    void flush32()
    {
        m_count -= 32;
        const auto word = std::uint32_t(m_bits >> m_count);
        reserve(8);
        const std::uint32_t inverse = ~word;
        if (((inverse - 0x01010101u) & ~inverse & 0x80808080u) == 0) { // no 0xff byte
            const std::uint32_t big = __builtin_bswap32(word);
            std::memcpy(m_out.data() + m_used, &big, 4);
            m_used += 4;
        } else {
            for (int shift = 24; shift >= 0; shift -= 8)
                byte(std::uint8_t(word >> shift));
        }
    }
    void byte(std::uint8_t b)
    {
        reserve(2);
        char* at = m_out.data() + m_used;
        at[0] = char(b);
        m_used += 1;
        if (b == 0xff) {
            at[1] = 0;
            m_used += 1;
        }
    }
    void reserve(qsizetype n)
    {
        if (m_used + n > m_out.size())
            m_out.resize(std::max<qsizetype>(2 * m_out.size(), m_used + n + 4096));
    }

    QByteArray& m_out;
    qsizetype m_used;
    std::uint64_t m_bits = 0;
    int m_count = 0;
};

// An ICC profile split over APP2 segments, taken as libjpeg takes it: the
// chunks numbered 1 to their count, each exactly once, or no profile at all.
struct IccChunks {
    int count = -1;
    bool sound = true;
    std::vector<QByteArray> chunks;
    std::vector<bool> seen;

    void add(int sequence, int total, const QByteArray& chunk)
    {
        sound = sound && total != 0 && (count < 0 || count == total) && sequence >= 1 && sequence <= total;
        if (!sound)
            return;
        count = total;
        chunks.resize(std::size_t(total));
        seen.resize(std::size_t(total));
        sound = !seen[std::size_t(sequence - 1)];
        seen[std::size_t(sequence - 1)] = true;
        chunks[std::size_t(sequence - 1)] = chunk;
    }
    QByteArray profile() const
    {
        QByteArray whole;
        if (!sound || std::find(seen.begin(), seen.end(), false) != seen.end())
            return whole;
        for (const QByteArray& chunk : chunks)
            whole.append(chunk);
        return whole;
    }
};

void appendMarker(QByteArray& out, int marker, const QByteArray& payload)
{
    const qsizetype length = payload.size() + 2;
    out.append(char(0xff)).append(char(marker)).append(char(length >> 8)).append(char(length & 0xff)).append(payload);
}

} // namespace

Range blockRange(std::int64_t dc, std::int64_t spread)
{
    if (std::abs(dc) + 2 * spread > 8 * 380)
        return {}; // beyond what libjpeg's range limiting clamps (far out it wraps)
    if (spread == 0) {
        const int value = clampSample(128 + floorDiv(dc + 4, 8));
        return {value, value};
    }
    return {clampSample(128 + floorDiv(dc - 2 * spread, 8) - 2), clampSample(128 - floorDiv(-(dc + 2 * spread), 8) + 2)};
}

struct Scan::Impl {
    std::int64_t width = 0, height = 0;
    int sofMarker = 0xc0;
    int count = 0; // components
    std::array<Component, 3> components;
    int maxH = 1, maxV = 1;
    std::array<HuffmanTable, 4> dcTables, acTables;
    std::array<QuantTable, 4> quantTables;
    int restartInterval = 0;
    // JFIF's version and resolution, carried over to a cut as libjpeg does.
    bool jfif = false;
    int jfifMajor = 1, jfifMinor = 1, densityUnit = 0, xDensity = 1, yDensity = 1;
    int adobeTransform = -1;
    QByteArray profile;

    std::vector<std::uint8_t> data;         // the entropy-coded data, unstuffed, with kPadding zeros after it
    std::uint64_t dataBits = 0;             // its length
    std::vector<std::size_t> restartStarts; // where each restart interval after the first begins, in bytes

    std::int64_t mcusWide = 0, mcusHigh = 0;
    std::vector<std::uint64_t> mcuStart;   // the bit where each MCU starts
    std::vector<std::int16_t> dcAfter;     // per MCU and component: its last block's DC coefficient
    std::vector<std::uint64_t> intervalEnd; // the bit after each restart interval's last MCU
    std::array<std::vector<std::uint8_t>, 3> lo, hi; // per block of each component, on the MCU grid
    std::array<std::int64_t, 3> stride{};

    bool parse(const std::uint8_t* p, std::size_t n);
    bool parseSegment(int marker, const std::uint8_t* s, std::size_t length);
    bool parseStartOfScan(const std::uint8_t* s, std::size_t length);
    bool unstuff(const std::uint8_t* p, std::size_t n, std::size_t& at);
    bool decode();
    // Decodes one block at bit, moving bit past it and pred to its DC
    // coefficient; acStart is where its AC coefficients begin.
    bool block(const Component& c, std::uint64_t& bit, int& pred, std::int64_t& spread, std::uint64_t& acStart) const;
    int blocksIn(const Component& c) const { return count == 1 ? 1 : c.h * c.v; }
    std::uint64_t mcuEnd(std::int64_t mcu) const
    {
        const std::int64_t next = mcu + 1;
        if (next < std::int64_t(mcuStart.size()) && (restartInterval == 0 || next % restartInterval != 0))
            return mcuStart[std::size_t(next)];
        return intervalEnd[std::size_t(restartInterval ? mcu / restartInterval : 0)];
    }
};

bool Scan::Impl::parse(const std::uint8_t* p, std::size_t n)
{
    if (n < 4 || p[0] != 0xff || p[1] != 0xd8)
        return false;
    std::size_t at = 2;
    IccChunks icc;
    while (at + 4 <= n) {
        if (p[at] != 0xff)
            return false; // stray bytes between markers: libjpeg would warn
        while (at < n && p[at] == 0xff)
            ++at;
        if (at + 3 > n)
            return false;
        const int marker = p[at++];
        const std::size_t length = std::size_t(be16(p + at));
        if (length < 2 || at + length > n)
            return false;
        const std::uint8_t* s = p + at + 2;
        const std::size_t size = length - 2;
        at += length;
        if (marker == 0xda) {
            if (!parseStartOfScan(s, size) || !unstuff(p, n, at))
                return false;
            break;
        }
        if (marker == 0xe2 && size >= 14 && std::memcmp(s, "ICC_PROFILE\0", 12) == 0) {
            icc.add(s[12], s[13], QByteArray(reinterpret_cast<const char*>(s + 14), qsizetype(size - 14)));
            continue;
        }
        if (!parseSegment(marker, s, size))
            return false;
    }
    if (data.empty())
        return false;
    profile = icc.profile();
    return true;
}

bool Scan::Impl::parseSegment(int marker, const std::uint8_t* s, std::size_t size)
{
    switch (marker) {
    case 0xc0: // baseline
    case 0xc1: { // extended sequential, Huffman
        if (count != 0 || size < 6)
            return false;
        sofMarker = marker;
        height = be16(s + 1);
        width = be16(s + 3);
        count = s[5];
        if (s[0] != 8 || width == 0 || height == 0 || (count != 1 && count != 3) || size != 6 + 3 * std::size_t(count))
            return false;
        for (int i = 0; i < count; ++i) {
            Component& c = components[std::size_t(i)];
            c.id = s[6 + 3 * i];
            c.h = s[7 + 3 * i] >> 4;
            c.v = s[7 + 3 * i] & 15;
            c.quant = s[8 + 3 * i];
            if (c.h < 1 || c.h > 4 || c.v < 1 || c.v > 4 || c.quant > 3)
                return false;
            for (int j = 0; j < i; ++j)
                if (components[std::size_t(j)].id == c.id)
                    return false;
        }
        if (count == 3) {
            // Full-resolution luma, one sample of each colour per MCU.
            const Component* c = components.data();
            if (c[0].h > 2 || c[0].v > 2 || c[1].h != 1 || c[1].v != 1 || c[2].h != 1 || c[2].v != 1)
                return false;
            maxH = c[0].h;
            maxV = c[0].v;
        }
        return true;
    }
    case 0xc4: // Huffman tables
        while (size > 0) {
            if (size < 17)
                return false;
            const int kind = s[0] >> 4, number = s[0] & 15;
            if (kind > 1 || number > 3)
                return false;
            HuffmanTable& table = kind == 0 ? dcTables[std::size_t(number)] : acTables[std::size_t(number)];
            std::size_t total = 0;
            for (int l = 0; l < 16; ++l)
                total += table.counts[std::size_t(l)] = s[1 + l];
            if (total > 256 || size < 17 + total)
                return false;
            table.symbols.assign(s + 17, s + 17 + total);
            if (!table.build(kind == 1))
                return false;
            s += 17 + total;
            size -= 17 + total;
        }
        return true;
    case 0xdb: // quantisation tables
        while (size > 0) {
            const int precision = s[0] >> 4, number = s[0] & 15;
            const std::size_t length = 1 + 64 * std::size_t(precision + 1);
            if (precision > 1 || number > 3 || size < length)
                return false;
            QuantTable& table = quantTables[std::size_t(number)];
            for (std::size_t k = 0; k < 64; ++k)
                table.values[k] = std::uint16_t(precision ? be16(s + 1 + 2 * k) : s[1 + k]);
            table.defined = true;
            s += length;
            size -= length;
        }
        return true;
    case 0xdd: // restart interval
        if (size != 2)
            return false;
        restartInterval = be16(s);
        return true;
    case 0xe0:
        if (size >= 14 && std::memcmp(s, "JFIF\0", 5) == 0) {
            jfif = true;
            if (s[5] == 1) {
                jfifMajor = s[5];
                jfifMinor = s[6];
            }
            densityUnit = s[7];
            xDensity = be16(s + 8);
            yDensity = be16(s + 10);
        }
        return true;
    case 0xee:
        if (size >= 12 && std::memcmp(s, "Adobe", 5) == 0)
            adobeTransform = s[11];
        return true;
    default:
        // Other application segments and comments are skipped; any other
        // marker (another frame type, arithmetic coding, a second image)
        // is not ours to read.
        return (marker >= 0xe0 && marker <= 0xef) || marker == 0xfe;
    }
}

bool Scan::Impl::parseStartOfScan(const std::uint8_t* s, std::size_t size)
{
    if (count == 0 || size < 1 || s[0] != count || size != 4 + 2 * std::size_t(count))
        return false;
    for (int i = 0; i < count; ++i) {
        Component& c = components[std::size_t(i)];
        if (s[1 + 2 * i] != c.id)
            return false; // another order, or a scan of some components only
        c.dc = s[2 + 2 * i] >> 4;
        c.ac = s[2 + 2 * i] & 15;
        if (c.dc > 3 || c.ac > 3 || !dcTables[std::size_t(c.dc)].defined || !acTables[std::size_t(c.ac)].defined
            || !quantTables[std::size_t(c.quant)].defined)
            return false;
    }
    const std::uint8_t* tail = s + 1 + 2 * count;
    if (tail[0] != 0 || tail[1] != 63 || tail[2] != 0)
        return false;
    // A three-component file that libjpeg takes for RGB rather than YCbCr.
    const bool rgbIds = count == 3 && components[0].id == 'R' && components[1].id == 'G' && components[2].id == 'B';
    if (count == 3 && (adobeTransform == 0 || (adobeTransform > 1) || (!jfif && adobeTransform < 0 && rgbIds)))
        return false;
    return true;
}

// Copies the entropy-coded data without its stuffed zero bytes and restart
// markers, noting where each interval begins; at is left after the marker
// that ends the scan, which must be the end of the image.
bool Scan::Impl::unstuff(const std::uint8_t* p, std::size_t n, std::size_t& at)
{
    data.reserve(n - at + kPadding);
    int nextRestart = 0;
    for (;;) {
        const void* found = std::memchr(p + at, 0xff, n - at);
        if (!found)
            return false; // no end of image
        const auto ff = std::size_t(static_cast<const std::uint8_t*>(found) - p);
        data.insert(data.end(), p + at, p + ff);
        at = ff + 1;
        while (at < n && p[at] == 0xff)
            ++at;
        if (at >= n)
            return false;
        const int marker = p[at++];
        if (marker == 0) {
            data.push_back(0xff);
        } else if (marker >= 0xd0 && marker <= 0xd7) {
            if (restartInterval == 0 || marker - 0xd0 != nextRestart)
                return false;
            nextRestart = (nextRestart + 1) & 7;
            restartStarts.push_back(data.size());
        } else {
            if (marker != 0xd9)
                return false;
            break;
        }
    }
    dataBits = std::uint64_t(data.size()) * 8;
    data.resize(data.size() + kPadding, 0);
    return true;
}

bool Scan::Impl::block(const Component& c, std::uint64_t& bit, int& pred, std::int64_t& spread, std::uint64_t& acStart) const
{
    const std::uint8_t* bytes = data.data();
    const HuffmanTable& dcTable = dcTables[std::size_t(c.dc)];
    const HuffmanTable& acTable = acTables[std::size_t(c.ac)];
    const std::uint16_t* q = quantTables[std::size_t(c.quant)].values.data();
    int length = 0, symbol = 0;
    if (!dcTable.decode(peek(bytes, bit), length, symbol) || symbol > 11)
        return false;
    bit += std::uint64_t(length);
    if (symbol != 0) {
        pred += extend(std::uint32_t(peek(bytes, bit) >> (64 - symbol)), symbol);
        bit += std::uint64_t(symbol);
        if (pred < -1024 || pred > 1023)
            return false; // two such DC values always differ by a codable amount
    }
    acStart = bit;
    std::int64_t sum = 0;
    int k = 1;
    while (k < 64) {
        const std::uint64_t bits = peek(bytes, bit);
        const std::int32_t fast = acTable.fastAc[bits >> (64 - kLookBits)];
        if (fast != 0) {
            k += (fast >> 8) & 0xff;
            if (k > 63)
                return false;
            sum += std::abs(fast >> 16) * q[k];
            bit += std::uint64_t(fast & 0xff);
            ++k;
            continue;
        }
        if (!acTable.decode(bits, length, symbol))
            return false;
        bit += std::uint64_t(length);
        const int run = symbol >> 4, size = symbol & 15;
        if (size == 0) {
            if (run != 15)
                break; // end of block
            k += 16;
            if (k > 64)
                return false;
            continue;
        }
        if (size > 10)
            return false; // more than baseline coding can hold
        k += run;
        if (k > 63)
            return false;
        sum += std::abs(extend(std::uint32_t(peek(bytes, bit) >> (64 - size)), size)) * q[k];
        bit += std::uint64_t(size);
        ++k;
    }
    spread = sum;
    return true;
}

bool Scan::Impl::decode()
{
    const bool grey = count == 1;
    const int mcuWidth = grey ? 8 : 8 * maxH, mcuHeight = grey ? 8 : 8 * maxV;
    mcusWide = ceilDiv(width, mcuWidth);
    mcusHigh = ceilDiv(height, mcuHeight);
    const std::int64_t mcus = mcusWide * mcusHigh;
    int blocksPerMcu = 0;
    for (int i = 0; i < count; ++i)
        blocksPerMcu += blocksIn(components[std::size_t(i)]);
    // Every block takes two bits at the least: a file claiming more blocks
    // than its data can hold is refused before anything is allocated.
    if (mcus * blocksPerMcu * 2 > std::int64_t(dataBits))
        return false;
    const std::int64_t intervals = restartInterval ? ceilDiv(mcus, restartInterval) : 1;
    if (std::int64_t(restartStarts.size()) != intervals - 1)
        return false;
    mcuStart.resize(std::size_t(mcus));
    dcAfter.resize(std::size_t(mcus * count));
    intervalEnd.resize(std::size_t(intervals));
    for (int i = 0; i < count; ++i) {
        const Component& c = components[std::size_t(i)];
        const int h = grey ? 1 : c.h, v = grey ? 1 : c.v;
        stride[std::size_t(i)] = mcusWide * h;
        lo[std::size_t(i)].resize(std::size_t(mcus * h * v));
        hi[std::size_t(i)].resize(std::size_t(mcus * h * v));
    }

    std::uint64_t bit = 0;
    std::array<int, 3> pred{};
    for (std::int64_t mcu = 0; mcu < mcus; ++mcu) {
        if (restartInterval && mcu > 0 && mcu % restartInterval == 0) {
            const std::size_t interval = std::size_t(mcu / restartInterval);
            const std::uint64_t start = std::uint64_t(restartStarts[interval - 1]) * 8;
            if ((bit + 7) / 8 * 8 != start)
                return false; // the interval's data does not end at its marker
            intervalEnd[interval - 1] = bit;
            bit = start;
            pred = {};
        }
        mcuStart[std::size_t(mcu)] = bit;
        const std::int64_t mx = mcu % mcusWide, my = mcu / mcusWide;
        for (int i = 0; i < count; ++i) {
            const Component& c = components[std::size_t(i)];
            const int h = grey ? 1 : c.h, v = grey ? 1 : c.v;
            const std::uint16_t q0 = quantTables[std::size_t(c.quant)].values[0];
            for (int y = 0; y < v; ++y) {
                for (int x = 0; x < h; ++x) {
                    std::int64_t spread = 0;
                    std::uint64_t acStart = 0;
                    if (!block(c, bit, pred[std::size_t(i)], spread, acStart))
                        return false;
                    const Range r = blockRange(std::int64_t(pred[std::size_t(i)]) * q0, spread);
                    const std::size_t at = std::size_t((my * v + y) * stride[std::size_t(i)] + mx * h + x);
                    lo[std::size_t(i)][at] = std::uint8_t(r.lo);
                    hi[std::size_t(i)][at] = std::uint8_t(r.hi);
                }
            }
            dcAfter[std::size_t(mcu * count + i)] = std::int16_t(pred[std::size_t(i)]);
        }
        if (bit > dataBits)
            return false; // ran out of data
    }
    intervalEnd.back() = bit;
    return (bit + 7) / 8 * 8 == dataBits; // nothing but padding after the last MCU
}

std::unique_ptr<Scan> Scan::read(const QByteArray& file)
{
    auto impl = std::make_unique<Impl>();
    if (!impl->parse(reinterpret_cast<const std::uint8_t*>(file.constData()), std::size_t(file.size())) || !impl->decode())
        return nullptr;
    return std::unique_ptr<Scan>(new Scan(std::move(impl)));
}

Scan::Scan(std::unique_ptr<Impl> impl)
    : d(std::move(impl))
{
}

Scan::~Scan() = default;

std::int64_t Scan::width() const { return d->width; }
std::int64_t Scan::height() const { return d->height; }
int Scan::components() const { return d->count; }
int Scan::lumaH() const { return d->maxH; }
int Scan::lumaV() const { return d->maxV; }

std::int64_t Scan::blocksWide(int component) const
{
    const int h = d->count == 1 ? 1 : d->components[std::size_t(component)].h;
    return ceilDiv(d->width * h, 8 * d->maxH);
}

std::int64_t Scan::blocksHigh(int component) const
{
    const int v = d->count == 1 ? 1 : d->components[std::size_t(component)].v;
    return ceilDiv(d->height * v, 8 * d->maxV);
}

Range Scan::range(int component, std::int64_t bx, std::int64_t by) const
{
    const std::size_t at = std::size_t(by * d->stride[std::size_t(component)] + bx);
    return {d->lo[std::size_t(component)][at], d->hi[std::size_t(component)][at]};
}

bool Scan::cut(const PixelRect& rect, bool withProfile, QByteArray& out) const
{
    const Impl& s = *d;
    const bool grey = s.count == 1;
    const int mcuWidth = grey ? 8 : 8 * s.maxH, mcuHeight = grey ? 8 : 8 * s.maxV;
    const std::int64_t mx0 = rect.x / mcuWidth, my0 = rect.y / mcuHeight;
    const std::int64_t wide = ceilDiv(rect.width, mcuWidth), high = ceilDiv(rect.height, mcuHeight);

    out.clear();
    out.reserve(qsizetype(s.dataBits / 8 * std::uint64_t(wide * high) / std::uint64_t(s.mcusWide * s.mcusHigh)) + 4096);
    out.append("\xff\xd8", 2);
    {
        QByteArray jfif("JFIF", 5);
        jfif.append(char(s.jfifMajor)).append(char(s.jfifMinor)).append(char(s.jfif ? s.densityUnit : 0));
        for (const int density : {s.jfif ? s.xDensity : 1, s.jfif ? s.yDensity : 1})
            jfif.append(char(density >> 8)).append(char(density & 0xff));
        jfif.append(2, '\0');
        appendMarker(out, 0xe0, jfif);
    }
    if (withProfile && !s.profile.isEmpty()) {
        // In chunks of at most 65519 bytes, numbered from 1, as libjpeg writes them.
        constexpr qsizetype kChunk = 65519;
        const auto chunks = int(ceilDiv(s.profile.size(), kChunk));
        for (int i = 0; i < chunks; ++i) {
            QByteArray chunk("ICC_PROFILE", 12);
            chunk.append(char(i + 1)).append(char(chunks)).append(s.profile.mid(i * kChunk, kChunk));
            appendMarker(out, 0xe2, chunk);
        }
    }
    // Tables in the order libjpeg writes them: each component's, unless written already.
    std::array<bool, 4> quantWritten{};
    for (int i = 0; i < s.count; ++i) {
        const auto t = std::size_t(s.components[std::size_t(i)].quant);
        if (std::exchange(quantWritten[t], true))
            continue;
        const QuantTable& table = s.quantTables[t];
        const bool wideValues = std::any_of(table.values.begin(), table.values.end(), [](std::uint16_t v) { return v > 255; });
        QByteArray segment(1, char((wideValues ? 0x10 : 0) | int(t)));
        for (const std::uint16_t v : table.values) {
            if (wideValues)
                segment.append(char(v >> 8));
            segment.append(char(v & 0xff));
        }
        appendMarker(out, 0xdb, segment);
    }
    {
        QByteArray frame(1, 8);
        for (const std::int64_t size : {rect.height, rect.width})
            frame.append(char(size >> 8)).append(char(size & 0xff));
        frame.append(char(s.count));
        for (int i = 0; i < s.count; ++i) {
            const Component& c = s.components[std::size_t(i)];
            frame.append(char(c.id)).append(char(grey ? 0x11 : c.h << 4 | c.v)).append(char(c.quant));
        }
        appendMarker(out, s.sofMarker, frame);
    }
    std::array<bool, 4> dcWritten{}, acWritten{};
    for (int i = 0; i < s.count; ++i) {
        for (const int kind : {0, 1}) {
            const auto t = std::size_t(kind ? s.components[std::size_t(i)].ac : s.components[std::size_t(i)].dc);
            if (std::exchange((kind ? acWritten : dcWritten)[t], true))
                continue;
            const HuffmanTable& table = (kind ? s.acTables : s.dcTables)[t];
            QByteArray segment(1, char(kind << 4 | int(t)));
            segment.append(reinterpret_cast<const char*>(table.counts.data()), 16);
            segment.append(reinterpret_cast<const char*>(table.symbols.data()), qsizetype(table.symbols.size()));
            appendMarker(out, 0xc4, segment);
        }
    }
    {
        QByteArray scan(1, char(s.count));
        for (int i = 0; i < s.count; ++i)
            scan.append(char(s.components[std::size_t(i)].id)).append(char(s.components[std::size_t(i)].dc << 4 | s.components[std::size_t(i)].ac));
        scan.append(char(0)).append(char(63)).append(char(0));
        appendMarker(out, 0xda, scan);
    }

    // Each row of MCUs is copied in runs that end where the row or a restart
    // interval of the source ends. The first MCU of a run is decoded again:
    // the first block of each component gets its DC difference coded
    // against the block now before it, and the rest of the run is copied.
    BitWriter writer(out);
    const std::uint8_t* bytes = s.data.data();
    std::array<int, 3> written{}; // the DC coefficient of each component's last block written
    for (std::int64_t my = my0; my < my0 + high; ++my) {
        for (std::int64_t mx = mx0; mx < mx0 + wide;) {
            const std::int64_t first = my * s.mcusWide + mx;
            std::int64_t runEnd = mx0 + wide;
            if (s.restartInterval)
                runEnd = std::min(runEnd, mx + s.restartInterval - first % s.restartInterval);
            const bool startsInterval = first == 0 || (s.restartInterval && first % s.restartInterval == 0);
            std::uint64_t bit = s.mcuStart[std::size_t(first)];
            for (int i = 0; i < s.count; ++i) {
                const Component& c = s.components[std::size_t(i)];
                int pred = startsInterval ? 0 : s.dcAfter[std::size_t((first - 1) * s.count + i)];
                for (int b = 0; b < s.blocksIn(c); ++b) {
                    const std::uint64_t start = bit;
                    std::uint64_t acStart = 0;
                    std::int64_t spread = 0;
                    if (!s.block(c, bit, pred, spread, acStart))
                        return false;
                    if (b == 0) {
                        const int difference = pred - written[std::size_t(i)];
                        const int magnitude = std::abs(difference);
                        const int size = magnitude == 0 ? 0 : 32 - __builtin_clz(unsigned(magnitude));
                        const HuffmanTable& table = s.dcTables[std::size_t(c.dc)];
                        if (table.codeLength[std::size_t(size)] == 0)
                            return false;
                        writer.put(table.code[std::size_t(size)], table.codeLength[std::size_t(size)]);
                        if (size)
                            writer.put(std::uint32_t(difference < 0 ? difference - 1 : difference) & ((1u << size) - 1), size);
                        writer.copy(bytes, acStart, bit);
                    } else {
                        writer.copy(bytes, start, bit);
                    }
                }
            }
            const std::int64_t last = first + (runEnd - mx) - 1;
            if (last > first)
                writer.copy(bytes, s.mcuStart[std::size_t(first + 1)], s.mcuEnd(last));
            for (int i = 0; i < s.count; ++i)
                written[std::size_t(i)] = s.dcAfter[std::size_t(last * s.count + i)];
            mx = runEnd;
        }
    }
    writer.finish();
    out.append("\xff\xd9", 2);
    return true;
}

} // namespace orvane::LosslessJpeg
