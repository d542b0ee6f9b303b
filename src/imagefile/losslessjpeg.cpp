#include "imagefile/losslessjpeg.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include <QList>

#include <turbojpeg.h>

namespace orvane::LosslessJpeg {

namespace {

struct HandleDeleter {
    void operator()(void* handle) const { tjDestroy(handle); }
};
using Handle = std::unique_ptr<void, HandleDeleter>;

struct BufferDeleter {
    void operator()(unsigned char* buffer) const { tjFree(buffer); }
};

int bigEndian16(const QByteArray& bytes, qsizetype at)
{
    return uchar(bytes.at(at)) << 8 | uchar(bytes.at(at + 1));
}

// The markers of the file that the cut needs to know of.
struct Markers {
    QList<QByteArray> profile; // the APP2 ICC_PROFILE segments, markers included, in order
    bool progressive = false;
};

// Reads the segments before the first scan.
Markers markersOf(const QByteArray& jpeg)
{
    Markers markers;
    qsizetype at = 2; // after SOI
    while (at + 4 <= jpeg.size() && uchar(jpeg.at(at)) == 0xff) {
        const int marker = uchar(jpeg.at(at + 1));
        if (marker == 0xff) { // fill byte
            ++at;
            continue;
        }
        if (marker == 0xda || marker == 0xd9) // start of scan, end of image
            break;
        const int length = bigEndian16(jpeg, at + 2);
        if (length < 2 || at + 2 + length > jpeg.size())
            break;
        if (marker == 0xe2 && length >= 16 && std::memcmp(jpeg.constData() + at + 4, "ICC_PROFILE", 12) == 0)
            markers.profile.append(jpeg.mid(at, 2 + length));
        if (marker == 0xc2 || marker == 0xc6 || marker == 0xca || marker == 0xce)
            markers.progressive = true;
        at += 2 + length;
    }
    return markers;
}

// The file with the profile's segments after SOI and the JFIF header.
QByteArray withProfile(const unsigned char* data, std::size_t size, const QList<QByteArray>& profile)
{
    QByteArray file(reinterpret_cast<const char*>(data), qsizetype(size));
    if (profile.isEmpty())
        return file;
    qsizetype at = 2;
    while (at + 4 <= file.size() && uchar(file.at(at)) == 0xff && uchar(file.at(at + 1)) == 0xe0)
        at += 2 + bigEndian16(file, at + 2);
    QByteArray segments;
    for (const QByteArray& segment : profile)
        segments += segment;
    file.insert(std::min(at, file.size()), segments);
    return file;
}

std::int64_t alignDown(std::int64_t value, int step)
{
    return value / step * step;
}

} // namespace

std::optional<Grid> grid(const QByteArray& jpeg)
{
    const Handle handle(tjInitTransform());
    if (!handle || jpeg.isEmpty())
        return std::nullopt;
    int width = 0, height = 0, subsampling = -1, colourSpace = -1;
    if (tjDecompressHeader3(handle.get(), reinterpret_cast<const unsigned char*>(jpeg.constData()),
                            static_cast<unsigned long>(jpeg.size()), &width, &height, &subsampling, &colourSpace)
        != 0)
        return std::nullopt;
    if (subsampling < 0 || subsampling >= TJ_NUMSAMP || width <= 0 || height <= 0)
        return std::nullopt;
    return Grid{width, height, tjMCUWidth[subsampling], tjMCUHeight[subsampling]};
}

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

std::optional<QByteArray> crop(const QByteArray& jpeg, const PixelRect& rect)
{
    const std::optional<Grid> g = grid(jpeg);
    if (!g || rect.width <= 0 || rect.height <= 0 || rect.x < 0 || rect.y < 0 || rect.x % g->blockWidth != 0
        || rect.y % g->blockHeight != 0 || rect.x + rect.width > g->width || rect.y + rect.height > g->height)
        return std::nullopt;
    const Handle handle(tjInitTransform());
    if (!handle)
        return std::nullopt;
    const Markers markers = markersOf(jpeg);
    tjtransform transform{};
    transform.r = {int(rect.x), int(rect.y), int(rect.width), int(rect.height)};
    transform.op = TJXOP_NONE;
    // Markers are left behind (EXIF, XMP, comments …) and the profile put
    // back by hand: libjpeg-turbo copies either all of them or none.
    transform.options = TJXOPT_CROP | TJXOPT_COPYNONE | (markers.progressive ? TJXOPT_PROGRESSIVE : 0);
    unsigned char* out = nullptr;
    unsigned long outSize = 0;
    const int status = tjTransform(handle.get(), reinterpret_cast<const unsigned char*>(jpeg.constData()),
                                   static_cast<unsigned long>(jpeg.size()), 1, &out, &outSize, &transform, 0);
    const std::unique_ptr<unsigned char, BufferDeleter> owned(out);
    if (status != 0 || !out || outSize == 0)
        return std::nullopt;
    return withProfile(out, outSize, markers.profile);
}

} // namespace orvane::LosslessJpeg
