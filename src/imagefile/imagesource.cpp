#include "imagefile/imagesource.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>

#include <sys/stat.h>

#include <QFile>

#include "imagefile/imagefile.h"

namespace orvane::ImageFile {

namespace {

// A copy of an engine raster scaled so that its long side is at most longSide.
Raster scaledCopy(const std::uint8_t* pixels, std::int64_t width, std::int64_t height, int longSide)
{
    const double scale = std::min(1.0, double(longSide) / double(std::max(width, height)));
    vips::VImage image = vips::VImage::new_from_memory(const_cast<std::uint8_t*>(pixels),
                                                       std::size_t(width * height * 4), int(width), int(height), 4,
                                                       VIPS_FORMAT_UCHAR);
    if (scale < 1.0)
        image = image.resize(scale);
    std::size_t size = 0;
    void* memory = image.write_to_memory(&size);
    auto bytes = std::make_shared<std::vector<std::uint8_t>>(static_cast<std::uint8_t*>(memory),
                                                             static_cast<std::uint8_t*>(memory) + size);
    g_free(memory);
    return Raster{image.width(), image.height(), std::move(bytes)};
}

std::optional<Decoded> decodeUnchecked(const QString& path, bool keepImage, bool withPreview)
{
    const std::optional<FileIdentity> identity = identify(path);
    if (!identity)
        return std::nullopt;
    std::optional<LoadResult> loaded = load(path);
    if (!loaded)
        return std::nullopt;
    std::optional<CropEngine::Buffer> buffer = CropEngine::Buffer::make(loaded->image);
    if (!buffer)
        return std::nullopt;
    Decoded decoded;
    decoded.summary.type = loaded->type;
    decoded.summary.width = buffer->width();
    decoded.summary.height = buffer->height();
    decoded.summary.index = buffer->index();
    decoded.summary.thumbnail = scaledCopy(buffer->pixels(), buffer->width(), buffer->height(), thumbnailSide);
    decoded.summary.identity = *identity;
    if (withPreview)
        decoded.preview = scaledCopy(buffer->pixels(), buffer->width(), buffer->height(), previewSide);
    if (keepImage)
        decoded.image = buffer->image();
    return decoded;
}

} // namespace

std::optional<PixelRect> Summary::contentRect(double threshold) const
{
    return CropEngine::contentRect(index, width, height, threshold);
}

std::size_t Summary::byteCount() const
{
    return sizeof(Summary) + index.byteCount() + thumbnail.byteCount();
}

std::size_t Decoded::byteCount() const
{
    const std::size_t imageBytes = image.is_null() ? 0 : VIPS_IMAGE_SIZEOF_IMAGE(image.get_image());
    return imageBytes + preview.byteCount() + summary.byteCount();
}

std::optional<Indexed> index(const QString& path, bool withPreview)
{
    try {
        std::optional<Decoded> decoded = decodeUnchecked(path, false, withPreview);
        vips_error_clear();
        if (!decoded)
            return std::nullopt;
        return Indexed{std::move(decoded->summary), std::move(decoded->preview)};
    } catch (const std::exception&) {
        vips_error_clear();
        return std::nullopt;
    }
}

std::optional<Decoded> decode(const QString& path)
{
    try {
        std::optional<Decoded> decoded = decodeUnchecked(path, true, true);
        vips_error_clear();
        return decoded;
    } catch (const std::exception&) {
        vips_error_clear();
        return std::nullopt;
    }
}

std::optional<FileIdentity> identify(const QString& path)
{
    struct stat status {};
    if (::stat(QFile::encodeName(path).constData(), &status) != 0 || !S_ISREG(status.st_mode))
        return std::nullopt;
    return FileIdentity{std::uint64_t(status.st_dev), std::uint64_t(status.st_ino), std::int64_t(status.st_size),
                        std::int64_t(status.st_mtim.tv_sec) * 1'000'000'000 + status.st_mtim.tv_nsec};
}

bool saveCropped(const Decoded& decoded, const PixelRect& rect, const QString& path, const ImageType& type)
{
    try {
        std::optional<CropEngine::Buffer> buffer = CropEngine::Buffer::make(decoded.image);
        if (!buffer)
            return false;
        std::optional<vips::VImage> cropped = CropEngine::crop(*buffer, rect);
        const bool written = cropped && save(*cropped, path, type);
        vips_error_clear();
        return written;
    } catch (const std::exception&) {
        vips_error_clear();
        return false;
    }
}

} // namespace orvane::ImageFile
