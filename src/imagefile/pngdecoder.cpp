#include "imagefile/pngdecoder.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <libdeflate.h>

#include "imagefile/pngrows.h"

namespace orvane::PngDecoder {

namespace {

using PngRows::Buffer;
using PngRows::paeth;

constexpr char kSignature[] = "\x89PNG\r\n\x1a\n";

constexpr std::uint32_t kLibpngSideLimit = 1000000;
// libpng drops an ancillary chunk that needs more memory than this.
constexpr std::size_t kLibpngChunkLimit = 8000000;

// libvips' resolution when a file has no pHYs chunk: 2834 pixels per metre
// (72 per inch), kept in pixels per millimetre.
constexpr double kDefaultResolution = 2.834;

std::uint32_t bigEndian32(const std::uint8_t* p)
{
    return std::uint32_t(p[0]) << 24 | std::uint32_t(p[1]) << 16 | std::uint32_t(p[2]) << 8 | std::uint32_t(p[3]);
}

struct Chunk {
    std::uint32_t type = 0;
    const std::uint8_t* data = nullptr;
    std::size_t length = 0;
};

constexpr std::uint32_t tag(const char (&name)[5])
{
    return std::uint32_t(std::uint8_t(name[0])) << 24 | std::uint32_t(std::uint8_t(name[1])) << 16
        | std::uint32_t(std::uint8_t(name[2])) << 8 | std::uint32_t(std::uint8_t(name[3]));
}

// Walks the chunks after the signature, checking each one's length and CRC.
class ChunkReader {
public:
    explicit ChunkReader(const QByteArray& file)
        : m_at(reinterpret_cast<const std::uint8_t*>(file.constData()) + 8)
        , m_end(reinterpret_cast<const std::uint8_t*>(file.constData()) + file.size())
    {
    }

    // The next chunk; absent at the end of the file, at a chunk cut short
    // and at a wrong CRC.
    std::optional<Chunk> next()
    {
        if (m_end - m_at < 12)
            return std::nullopt;
        const std::uint32_t length = bigEndian32(m_at);
        if (length > 0x7fffffffu || std::size_t(m_end - m_at - 12) < length)
            return std::nullopt;
        Chunk chunk{bigEndian32(m_at + 4), m_at + 8, length};
        if (libdeflate_crc32(0, m_at + 4, length + 4) != bigEndian32(m_at + 8 + length)) {
            m_badAncillaryCrc = (chunk.type & 0x20000000u) != 0;
            return std::nullopt;
        }
        m_at += 12 + length;
        return chunk;
    }

    // Whether the walk stopped at a wrong CRC on an ancillary chunk, which
    // libpng only drops; any other stop before IEND (the file cut short, a
    // wrong CRC on a critical chunk) is damage libpng gives up at.
    bool stoppedAtAncillaryCrc() const { return m_badAncillaryCrc; }

private:
    const std::uint8_t* m_at;
    const std::uint8_t* m_end;
    bool m_badAncillaryCrc = false;
};

struct DecompressorDeleter {
    void operator()(libdeflate_decompressor* d) const { libdeflate_free_decompressor(d); }
};
using Decompressor = std::unique_ptr<libdeflate_decompressor, DecompressorDeleter>;

// A zlib stream whose inflated size is not known in advance (an ICC
// profile), grown until it fits; absent when damaged or larger than libpng
// would take.
std::optional<QByteArray> inflateUnknown(libdeflate_decompressor* d, const std::uint8_t* in, std::size_t length)
{
    for (std::size_t room = std::min(std::max<std::size_t>(length * 4, 4096), kLibpngChunkLimit);;
         room = std::min(room * 4, kLibpngChunkLimit)) {
        QByteArray out(qsizetype(room), Qt::Uninitialized);
        std::size_t produced = 0;
        const libdeflate_result result = libdeflate_zlib_decompress(d, in, length, out.data(), room, &produced);
        if (result == LIBDEFLATE_SUCCESS) {
            out.truncate(qsizetype(produced));
            return out;
        }
        if (result != LIBDEFLATE_INSUFFICIENT_SPACE || room == kLibpngChunkLimit)
            return std::nullopt;
    }
}

// ---------------------------------------------------------------- row filters
//
// Undoing a filter depends on the byte one pixel to the left, so the loops
// run byte by byte; with the pixel size a constant the compiler keeps a
// pixel's bytes in flight together.

// Reconstructs one row into out from its filtered bytes in and the row
// above, prev (all zeros for the first row). in and out may be the same.
template <std::size_t Bpp>
bool unfilterRow(std::uint8_t filter, const std::uint8_t* in, const std::uint8_t* prev, std::uint8_t* out, std::size_t n)
{
    switch (filter) {
    case 0:
        if (in != out)
            std::memcpy(out, in, n);
        return true;
    case 1:
        for (std::size_t i = 0; i < Bpp; ++i)
            out[i] = in[i];
        for (std::size_t i = Bpp; i < n; ++i)
            out[i] = std::uint8_t(in[i] + out[i - Bpp]);
        return true;
    case 2:
        for (std::size_t i = 0; i < n; ++i)
            out[i] = std::uint8_t(in[i] + prev[i]);
        return true;
    case 3:
        for (std::size_t i = 0; i < Bpp; ++i)
            out[i] = std::uint8_t(in[i] + (prev[i] >> 1));
        for (std::size_t i = Bpp; i < n; ++i)
            out[i] = std::uint8_t(in[i] + ((unsigned(out[i - Bpp]) + unsigned(prev[i])) >> 1));
        return true;
    case 4:
        for (std::size_t i = 0; i < Bpp; ++i)
            out[i] = std::uint8_t(in[i] + prev[i]);
        for (std::size_t i = Bpp; i < n; ++i)
            out[i] = std::uint8_t(in[i] + paeth(out[i - Bpp], prev[i], prev[i - Bpp]));
        return true;
    default:
        return false;
    }
}

using Unfilter = bool (*)(std::uint8_t, const std::uint8_t*, const std::uint8_t*, std::uint8_t*, std::size_t);

Unfilter unfilterFor(std::size_t bpp)
{
    switch (bpp) {
    case 1: return unfilterRow<1>;
    case 2: return unfilterRow<2>;
    case 3: return unfilterRow<3>;
    case 4: return unfilterRow<4>;
    case 6: return unfilterRow<6>;
    case 8: return unfilterRow<8>;
    default: return nullptr;
    }
}

// libpng's own rules for any chunk, which end the file there when broken:
// a type of four ASCII letters, and a size within its limit (8 MB, or for
// image data what the rows could take when barely compressed).
bool validChunk(const Chunk& chunk, const Header& head)
{
    for (int shift = 0; shift < 32; shift += 8) {
        const auto c = char(chunk.type >> shift);
        if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z')))
            return false;
    }
    std::size_t limit = kLibpngChunkLimit;
    if (chunk.type == tag("IDAT")) {
        const std::size_t rowFactor = std::size_t(head.width) * std::size_t(head.bands * head.depth / 8) + 1;
        std::size_t idatLimit = std::size_t(head.height) * rowFactor;
        idatLimit += 6 + 5 * (idatLimit / std::min<std::size_t>(rowFactor, 32566) + 1);
        limit = std::max(limit, std::min<std::size_t>(idatLimit, 0x7fffffff));
    }
    return chunk.length <= limit;
}

} // namespace

std::optional<Header> header(const QByteArray& file)
{
    if (file.size() < 8 + 25 || std::memcmp(file.constData(), kSignature, 8) != 0)
        return std::nullopt;
    const auto* p = reinterpret_cast<const std::uint8_t*>(file.constData()) + 8;
    if (bigEndian32(p) != 13 || bigEndian32(p + 4) != tag("IHDR"))
        return std::nullopt;
    const std::uint32_t width = bigEndian32(p + 8);
    const std::uint32_t height = bigEndian32(p + 12);
    const int depth = p[16];
    const int colourType = p[17];
    // libpng refuses sides of more than a million pixels unless told
    // otherwise, and libvips doesn't tell it: such files stay libpng's.
    if (width == 0 || height == 0 || width > kLibpngSideLimit || height > kLibpngSideLimit)
        return std::nullopt;
    if ((depth != 8 && depth != 16) || p[18] != 0 || p[19] != 0 || p[20] != 0)
        return std::nullopt; // compression and filter methods 0, not interlaced
    int bands = 0;
    switch (colourType) {
    case 0: bands = 1; break;
    case 4: bands = 2; break;
    case 2: bands = 3; break;
    case 6: bands = 4; break;
    default: return std::nullopt; // indexed colour
    }
    return Header{int(width), int(height), bands, depth};
}

Decoded decode(const QByteArray& file)
{
    const Decoded kDamaged{std::nullopt, true};
    const std::optional<Header> head = header(file);
    if (!head)
        return {};

    // First the chunks: the image data must be one run of IDAT chunks, and
    // nothing may come that changes the pixels.
    ChunkReader reader(file);
    std::optional<Chunk> chunk = reader.next(); // IHDR, checked above but for its CRC
    if (!chunk)
        return kDamaged;
    QByteArray stream;
    const std::uint8_t* profile = nullptr;
    std::size_t profileLength = 0;
    double xres = kDefaultResolution, yres = kDefaultResolution;
    bool idatSeen = false, idatEnded = false, ended = false, colourChunks = false, physicalSeen = false;
    while ((chunk = reader.next())) {
        const std::uint32_t type = chunk->type;
        if (!validChunk(*chunk, *head))
            return {};
        if (type == tag("IDAT")) {
            if (idatEnded)
                return {};
            idatSeen = true;
            stream.append(reinterpret_cast<const char*>(chunk->data), qsizetype(chunk->length));
            continue;
        }
        idatEnded = idatSeen;
        if (type == tag("IEND")) {
            ended = true;
            break;
        }
        // Transparency or a palette change the pixels; libvips takes the
        // resolution from EXIF when there is some.
        if (type == tag("tRNS") || type == tag("PLTE") || type == tag("IHDR") || type == tag("eXIf"))
            return {};
        if (type == tag("sRGB") || type == tag("gAMA") || type == tag("cHRM"))
            colourChunks = true;
        if (type == tag("iCCP") && !idatSeen) {
            if (profile)
                return {};
            // A name of 1–79 bytes, its terminator, compression method 0, the stream.
            const auto* terminator = static_cast<const std::uint8_t*>(std::memchr(chunk->data, 0, chunk->length));
            if (!terminator || terminator == chunk->data || terminator - chunk->data > 79
                || std::size_t(terminator - chunk->data) + 2 > chunk->length || terminator[1] != 0)
                return {};
            profile = terminator + 2;
            profileLength = chunk->length - std::size_t(profile - chunk->data);
        } else if (type == tag("pHYs") && !idatSeen && !physicalSeen) { // libpng skips a second one
            physicalSeen = true;
            if (chunk->length != 9 || chunk->data[8] > 1)
                return {};
            // As libvips reads it: per millimetre when the unit is the
            // metre, the bare numbers when the unit is unknown.
            const double scale = chunk->data[8] == 1 ? 1000.0 : 1.0;
            xres = bigEndian32(chunk->data) / scale;
            yres = bigEndian32(chunk->data + 4) / scale;
        } else if (!(type & 0x20000000u)) {
            return {}; // an unknown critical chunk (upper-case first letter)
        }
        // Other ancillary chunks (text, gamma, time, animation control …)
        // change nothing in the default image.
    }
    if (!ended)
        return Decoded{std::nullopt, !reader.stoppedAtAncillaryCrc()};
    if (!idatSeen)
        return {};
    // libpng weighs a profile against these chunks and may drop it.
    if (profile && colourChunks)
        return {};

    const Decompressor decompressor(libdeflate_alloc_decompressor());
    if (!decompressor)
        return {};

    const std::size_t bpp = std::size_t(head->bands * head->depth / 8);
    const std::size_t n = std::size_t(head->width) * bpp;
    const std::size_t filteredSize = std::size_t(head->height) * (n + 1);
    Buffer filtered(static_cast<std::uint8_t*>(std::malloc(filteredSize)));
    if (!filtered)
        return {};
    // The rows must fill the buffer exactly and the stream end with the
    // chunks. libdeflate forgives a few codes zlib calls invalid (lengths 286
    // and 287, for one), but what it makes of them must still pass the
    // stream's Adler-32 check: such a file, which libpng refuses, is read.
    std::size_t consumed = 0;
    const libdeflate_result inflated = libdeflate_zlib_decompress_ex(
        decompressor.get(), stream.constData(), std::size_t(stream.size()), filtered.get(), filteredSize, &consumed, nullptr);
    if (inflated == LIBDEFLATE_BAD_DATA)
        return kDamaged; // libpng stops at a broken stream or checksum
    // Rows too short or too many, or bytes after the stream: libpng reads
    // on with a warning, and libvips decides what that means.
    if (inflated != LIBDEFLATE_SUCCESS || consumed != std::size_t(stream.size()))
        return {};
    stream = QByteArray();

    QByteArray iccProfile;
    if (profile) {
        const std::optional<QByteArray> inflated = inflateUnknown(decompressor.get(), profile, profileLength);
        // libpng drops a profile whose header disagrees with the image (and
        // libvips then has none): such files are left to them.
        if (!inflated || inflated->size() < 132
            || bigEndian32(reinterpret_cast<const std::uint8_t*>(inflated->constData())) != std::uint32_t(inflated->size())
            || inflated->mid(36, 4) != "acsp" || inflated->mid(16, 4) != (head->bands <= 2 ? "GRAY" : "RGB "))
            return {};
        iccProfile = *inflated;
    }

    // The image's own memory, handed to libvips, which frees it when the
    // image goes.
    const std::size_t imageSize = std::size_t(head->height) * n;
    auto* pixels = static_cast<std::uint8_t*>(std::malloc(imageSize));
    if (!pixels)
        return {};
    Buffer owned(pixels);
    const Unfilter unfilter = unfilterFor(bpp);
    const Buffer zeros(static_cast<std::uint8_t*>(std::calloc(n, 1)));
    if (!unfilter || !zeros)
        return {};

    const std::uint8_t* prev = zeros.get();
    for (int y = 0; y < head->height; ++y) {
        std::uint8_t* in = filtered.get() + std::size_t(y) * (n + 1);
        if (head->depth == 8) {
            std::uint8_t* out = pixels + std::size_t(y) * n;
            if (!unfilter(in[0], in + 1, prev, out, n))
                return kDamaged; // an unknown filter type, which libpng stops at
            prev = out;
        } else {
            // Reconstructed in place, big-endian as filtered, then swapped
            // into the machine's order.
            if (!unfilter(in[0], in + 1, prev, in + 1, n))
                return kDamaged;
            prev = in + 1;
            std::uint8_t* out = pixels + std::size_t(y) * n;
            for (std::size_t i = 0; i < n; i += 2) {
                const auto sample = std::uint16_t(in[1 + i] << 8 | in[2 + i]);
                std::memcpy(out + i, &sample, 2);
            }
        }
    }
    filtered.reset();

    VipsImage* raw = vips_image_new_from_memory(pixels, imageSize, head->width, head->height, head->bands,
                                                head->depth == 8 ? VIPS_FORMAT_UCHAR : VIPS_FORMAT_USHORT);
    if (!raw) {
        vips_error_clear();
        return {};
    }
    g_signal_connect(raw, "postclose", G_CALLBACK(+[](VipsImage*, gpointer data) { std::free(data); }), owned.release());
    const bool grey = head->bands <= 2;
    raw->Type = head->depth == 8 ? (grey ? VIPS_INTERPRETATION_B_W : VIPS_INTERPRETATION_sRGB)
                                 : (grey ? VIPS_INTERPRETATION_GREY16 : VIPS_INTERPRETATION_RGB16);
    raw->Xres = xres;
    raw->Yres = yres;
    if (!iccProfile.isEmpty())
        vips_image_set_blob_copy(raw, VIPS_META_ICC_NAME, iccProfile.constData(), std::size_t(iccProfile.size()));
    return Decoded{vips::VImage(raw), false};
}

} // namespace orvane::PngDecoder
