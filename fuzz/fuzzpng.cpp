// libFuzzer target: Orvane's own PNG reader and writer against libpng.
//
// Any bytes are, at once, a file for the reader (as they are, and with every
// chunk's CRC put right) and, after a 4-byte header (width, bands, depth),
// pixels for the writer:
// - a file the reader takes must be one libvips decodes too, to the same image;
// - every file the writer makes must decode in libvips, and in the reader
//   when it is of the reader's kinds, to exactly the pixels it was given.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <QByteArray>

#include <vips/vips8>
#include <zlib.h>

#include "imagefile/imagefile.h"
#include "imagefile/pngdecoder.h"
#include "imagefile/pngencoder.h"
#include "support/libvipspng.h"

namespace {

using orvane::test::loadedByLibvips;
using orvane::test::pixelBytes;
using orvane::test::sameImage;
using orvane::test::widened;

[[noreturn]] void fault(const char* what)
{
    std::fprintf(stderr, "fuzz_png: %s\n", what);
    std::abort();
}

// The bytes with every complete chunk's CRC recomputed: random changes
// would otherwise almost always end at the first checksum.
QByteArray withFixedChecksums(QByteArray file)
{
    for (qsizetype at = 8; at + 12 <= file.size();) {
        const auto* p = reinterpret_cast<const uint8_t*>(file.constData() + at);
        const std::uint64_t length = std::uint64_t(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3];
        if (length > std::uint64_t(file.size() - at - 12))
            break;
        const std::uint32_t crc = std::uint32_t(crc32(0, p + 4, uInt(length + 4)));
        const qsizetype end = at + 8 + qsizetype(length);
        for (int i = 0; i < 4; ++i)
            file[end + i] = char(crc >> (24 - 8 * i));
        at = end + 4;
    }
    return file;
}

// The IDAT chunks' data, joined.
QByteArray idatStream(const QByteArray& file)
{
    QByteArray stream;
    for (qsizetype at = 8; at + 12 <= file.size();) {
        const auto* p = reinterpret_cast<const uint8_t*>(file.constData() + at);
        const std::uint64_t length = std::uint64_t(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3];
        if (length > std::uint64_t(file.size() - at - 12))
            break;
        if (std::memcmp(p + 4, "IDAT", 4) == 0)
            stream.append(file.constData() + at + 8, qsizetype(length));
        at += 12 + qsizetype(length);
    }
    return stream;
}

// Whether zlib inflates the stream to its end without an error. libdeflate
// accepts a few streams that zlib calls invalid (length codes 286 and 287,
// for one); what it makes of them must still pass the Adler-32 check.
bool zlibInflates(const QByteArray& stream)
{
    z_stream z{};
    if (inflateInit(&z) != Z_OK)
        return false;
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(stream.constData()));
    z.avail_in = uInt(stream.size());
    std::vector<Bytef> out(1 << 16);
    int result = Z_OK;
    while (result == Z_OK) {
        z.next_out = out.data();
        z.avail_out = uInt(out.size());
        result = inflate(&z, Z_NO_FLUSH);
    }
    inflateEnd(&z);
    return result == Z_STREAM_END;
}

void checkReader(const QByteArray& file)
{
    const std::optional<orvane::PngDecoder::Header> header = orvane::PngDecoder::header(file);
    // Keep the fuzzer to images it can decode in a moment.
    if (!header || std::int64_t(header->width) * header->height > (std::int64_t(1) << 20))
        return;
    const std::optional<vips::VImage> ours = orvane::PngDecoder::decode(file).image;
    if (!ours)
        return;
    const std::optional<vips::VImage> theirs = loadedByLibvips(file.constData(), size_t(file.size()));
    if (!theirs && zlibInflates(idatStream(file)))
        fault("the reader took a file libvips refuses");
    if (!theirs)
        return; // one of the streams libdeflate forgives and zlib doesn't
    if (!sameImage(*ours, *theirs))
        fault("the reader and libvips disagree");
}

void checkWriter(const uint8_t* data, size_t size)
{
    if (size < 5)
        return;
    const int width = 1 + data[0] % 64 + (data[1] & 1) * 64;
    const int bands = 1 + data[2] % 4;
    const int depth = data[3] & 1 ? 16 : 8;
    const std::size_t row = std::size_t(width) * std::size_t(bands) * std::size_t(depth / 8);
    const std::size_t height = (size - 4) / row;
    if (height == 0)
        return;
    orvane::PngEncoder::Pixels pixels;
    pixels.data = data + 4;
    pixels.stride = row;
    pixels.width = width;
    pixels.height = int(height);
    pixels.bands = bands;
    pixels.depth = depth;
    const QByteArray png = orvane::PngEncoder::encode(pixels);
    if (png.isEmpty())
        fault("the writer wrote nothing");
    // The writer leaves out bands and bits the pixels don't need: compare
    // the pixels widened back to what was given.
    const VipsBandFormat format = depth == 16 ? VIPS_FORMAT_USHORT : VIPS_FORMAT_UCHAR;
    const QByteArray given = pixelBytes(widened(
        vips::VImage::new_from_memory(const_cast<uint8_t*>(data + 4), row * height, width, int(height), bands, format), format));
    const std::optional<vips::VImage> theirs = loadedByLibvips(png.constData(), size_t(png.size()));
    if (!theirs)
        fault("libvips refuses what the writer wrote");
    if (pixelBytes(widened(*theirs, format)) != given)
        fault("the writer's file holds other pixels");
    const std::optional<vips::VImage> ours = orvane::PngDecoder::decode(png).image;
    const bool ownReaderTakes = png.at(25) != 3 && png.at(24) >= 8; // neither indexed nor packed grey
    if (ownReaderTakes && (!ours || pixelBytes(widened(*ours, format)) != given))
        fault("the reader does not read back what the writer wrote");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    (void)argc;
    if (VIPS_INIT((*argv)[0]) != 0)
        fault("libvips does not start");
    vips_concurrency_set(1);
    orvane::ImageFile::initialise();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray file(reinterpret_cast<const char*>(data), qsizetype(size));
    checkReader(file);
    const QByteArray fixed = withFixedChecksums(file);
    if (fixed != file)
        checkReader(fixed);
    checkWriter(data, size);
    return 0;
}
