#include "imagefile/headerprobes.h"

#include <algorithm>

namespace orvane::ImageFile::detail {

std::uint32_t littleEndian32(const QByteArray& bytes, qsizetype offset)
{
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.constData() + offset);
    return std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 | std::uint32_t(p[2]) << 16 | std::uint32_t(p[3]) << 24;
}

// Width and height from a BMP header, read by us so that the size test is
// made before ImageMagick sees the file at all.
std::optional<std::pair<std::int64_t, std::int64_t>> bmpSize(const QByteArray& head)
{
    if (head.size() < 26)
        return std::nullopt;
    const std::uint32_t headerSize = littleEndian32(head, 14);
    if (headerSize == 12) { // OS/2 1.x: 16-bit unsigned sizes
        const auto* p = reinterpret_cast<const unsigned char*>(head.constData());
        return std::pair<std::int64_t, std::int64_t>(p[18] | p[19] << 8, p[20] | p[21] << 8);
    }
    if (headerSize < 40)
        return std::nullopt;
    const auto width = std::int64_t(std::int32_t(littleEndian32(head, 18)));
    const auto height = std::int64_t(std::int32_t(littleEndian32(head, 22)));
    return std::pair<std::int64_t, std::int64_t>(width, height < 0 ? -height : height);
}

// Width and height from a TIFF's first directory (classic or BigTIFF, either
// byte order), read by us: libtiff sizes its strip tables by the height it is
// told, and a directory claiming a million rows costs it a third of a second
// and megabytes before the size test would see the header. Absent when the
// directory cannot be read; libtiff then has its say.
std::optional<std::pair<std::int64_t, std::int64_t>> tiffSize(QFile& file)
{
    if (!file.seek(0))
        return std::nullopt;
    const QByteArray header = file.read(16);
    if (header.size() < 8 || (!header.startsWith("II") && !header.startsWith("MM")))
        return std::nullopt;
    const bool little = header.startsWith("II");
    const auto number = [little](const QByteArray& bytes, qsizetype at, int size) {
        std::uint64_t value = 0;
        for (int i = 0; i < size; ++i) {
            const auto byte = std::uint64_t(std::uint8_t(bytes[at + (little ? size - 1 - i : i)]));
            value = value << 8 | byte;
        }
        return value;
    };
    const std::uint64_t magic = number(header, 2, 2);
    if (magic != 42 && !(magic == 43 && header.size() == 16 && number(header, 4, 2) == 8))
        return std::nullopt;
    const bool big = magic == 43;
    const std::uint64_t directory = big ? number(header, 8, 8) : number(header, 4, 4);
    const int countSize = big ? 8 : 2;
    const int entrySize = big ? 20 : 12;
    if (directory > std::uint64_t(file.size()) || !file.seek(qint64(directory)))
        return std::nullopt;
    const QByteArray countBytes = file.read(countSize);
    if (countBytes.size() != countSize)
        return std::nullopt;
    // Tags are sorted, and width and height are the first two of all.
    const std::uint64_t count = std::min<std::uint64_t>(number(countBytes, 0, countSize), 64);
    const QByteArray entries = file.read(qint64(count) * entrySize);
    std::int64_t width = -1, height = -1;
    for (qsizetype at = 0; at + entrySize <= entries.size(); at += entrySize) {
        const std::uint64_t tag = number(entries, at, 2);
        const std::uint64_t type = number(entries, at + 2, 2);
        const qsizetype value = at + (big ? 12 : 8);
        std::int64_t size = -1;
        if (type == 3) // SHORT
            size = std::int64_t(number(entries, value, 2));
        else if (type == 4) // LONG
            size = std::int64_t(number(entries, value, 4));
        else if (type == 16 && big) // LONG8
            size = std::int64_t(std::min<std::uint64_t>(number(entries, value, 8), std::uint64_t(INT64_MAX)));
        if (tag == 256)
            width = size;
        else if (tag == 257)
            height = size;
    }
    if (width < 0 || height < 0)
        return std::nullopt;
    return std::pair(width, height);
}

// Whether a WebP file's (first) image is stored losslessly: a VP8L bitstream
// rather than a VP8 one, at the top level or in the first animation frame.
bool webpIsLossless(QFile& file)
{
    const auto littleEndian = [](const QByteArray& b, qsizetype at) {
        return std::uint32_t(std::uint8_t(b[at])) | std::uint32_t(std::uint8_t(b[at + 1])) << 8
            | std::uint32_t(std::uint8_t(b[at + 2])) << 16 | std::uint32_t(std::uint8_t(b[at + 3])) << 24;
    };
    qint64 at = 12; // after "RIFF", the size and "WEBP"
    for (int chunks = 0; chunks < 64 && file.seek(at); ++chunks) {
        const QByteArray header = file.read(8);
        if (header.size() != 8)
            return false;
        const QByteArray fourcc = header.left(4);
        if (fourcc == "VP8L")
            return true;
        if (fourcc == "VP8 ")
            return false;
        // A frame: 16 bytes of position, size and timing, then its own chunks.
        const qint64 skip = fourcc == "ANMF" ? 16 : (qint64(littleEndian(header, 4)) + 1) & ~qint64(1);
        at += 8 + skip;
    }
    return false;
}

} // namespace orvane::ImageFile::detail
