#include "imagefile/tiffdirectory.h"

#include <algorithm>
#include <limits>

#include <QByteArray>
#include <QIODevice>

namespace orvane {

namespace {

// More entries than any writer uses; a directory claiming more is read no
// further than this.
constexpr std::uint64_t kMostEntries = 256;

class Reader {
public:
    explicit Reader(bool littleEndian)
        : m_little(littleEndian)
    {
    }

    std::uint64_t number(const QByteArray& bytes, qsizetype at, int size) const
    {
        if (at < 0 || at + size > bytes.size())
            return 0;
        std::uint64_t value = 0;
        for (int i = 0; i < size; ++i) {
            const auto byte = std::uint64_t(std::uint8_t(bytes[at + (m_little ? size - 1 - i : i)]));
            value = value << 8 | byte;
        }
        return value;
    }

private:
    bool m_little;
};

// Bytes of one value of a TIFF field type; 0 for types that hold no integer.
int typeSize(std::uint64_t type)
{
    switch (type) {
    case 1: case 6: return 1;  // BYTE, SBYTE
    case 3: case 8: return 2;  // SHORT, SSHORT
    case 4: case 9: return 4;  // LONG, SLONG
    case 16: case 17: return 8; // LONG8, SLONG8 (BigTIFF)
    default: return 0;
    }
}

} // namespace

std::optional<TiffDirectory> TiffDirectory::read(QIODevice& device)
{
    if (!device.seek(0))
        return std::nullopt;
    const QByteArray header = device.read(16);
    if (header.size() < 8 || (!header.startsWith("II") && !header.startsWith("MM")))
        return std::nullopt;
    const Reader reader(header.startsWith("II"));
    const std::uint64_t magic = reader.number(header, 2, 2);
    if (magic != 42 && !(magic == 43 && header.size() == 16 && reader.number(header, 4, 2) == 8))
        return std::nullopt;
    const bool big = magic == 43;
    const std::uint64_t offset = big ? reader.number(header, 8, 8) : reader.number(header, 4, 4);
    const int countSize = big ? 8 : 2;
    const int entrySize = big ? 20 : 12;
    const int inlineSize = big ? 8 : 4;
    if (offset > std::uint64_t(std::numeric_limits<qint64>::max()) || !device.seek(qint64(offset)))
        return std::nullopt;
    const QByteArray countBytes = device.read(countSize);
    if (countBytes.size() != countSize)
        return std::nullopt;
    const std::uint64_t count = std::min(reader.number(countBytes, 0, countSize), kMostEntries);
    const QByteArray entries = device.read(qint64(count) * entrySize);

    TiffDirectory directory;
    bool xResolution = false, yResolution = false;
    for (qsizetype at = 0; at + entrySize <= entries.size(); at += entrySize) {
        const std::uint64_t tag = reader.number(entries, at, 2);
        const std::uint64_t type = reader.number(entries, at + 2, 2);
        const std::uint64_t values = reader.number(entries, at + 4, big ? 8 : 4);
        const qsizetype valueAt = at + (big ? 12 : 8);
        if (tag == 282 || tag == 283) {
            (tag == 282 ? xResolution : yResolution) = values > 0;
            continue;
        }
        const int size = typeSize(type);
        if (size == 0 || values == 0)
            continue;
        std::uint64_t value = 0;
        if (std::uint64_t(size) * std::min<std::uint64_t>(values, 16) <= std::uint64_t(inlineSize)) {
            value = reader.number(entries, valueAt, size);
        } else if (tag == 258) {
            // Bits per sample of an RGB image: three values elsewhere in the
            // file, the first of which is read.
            const qint64 position = device.pos();
            const std::uint64_t elsewhere = reader.number(entries, valueAt, inlineSize);
            if (elsewhere <= std::uint64_t(std::numeric_limits<qint64>::max()) && device.seek(qint64(elsewhere)))
                value = reader.number(device.read(size), 0, size);
            device.seek(position);
        } else {
            continue;
        }
        const auto small = int(std::min<std::uint64_t>(value, std::uint64_t(std::numeric_limits<int>::max())));
        const auto large = std::int64_t(std::min<std::uint64_t>(value, std::uint64_t(INT64_MAX)));
        switch (tag) {
        case 256: directory.width = large; break;
        case 257: directory.height = large; break;
        case 258: directory.bitsPerSample = small; break;
        case 259: directory.compression = small; break;
        case 262: directory.photometric = small; break;
        case 277: directory.samplesPerPixel = small; break;
        case 317: directory.predictor = small; break;
        case 322: directory.tileWidth = large; break;
        case 323: directory.tileHeight = large; break;
        case 339: directory.sampleFormat = small; break;
        default: break;
        }
    }
    directory.hasResolution = xResolution && yResolution;
    return directory;
}

} // namespace orvane
