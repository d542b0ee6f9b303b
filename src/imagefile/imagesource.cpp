#include "imagefile/imagesource.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>

#include <sys/stat.h>

#include <QFile>

#include "engine/rasterpass.h"
#include "imagefile/imagefile.h"
#include "imagefile/opening.h"

namespace orvane::ImageFile {

namespace {

// Room for a pass's strips, its reduced copy and the preview it hands back.
constexpr std::uint64_t kPassBytes = std::uint64_t(48) << 20;

Raster rasterOf(RasterPass::Scaled&& scaled)
{
    if (scaled.pixels.empty())
        return {};
    return Raster{scaled.width, scaled.height,
                  std::make_shared<const std::vector<std::uint8_t>>(std::move(scaled.pixels))};
}

// The summary (and preview) of an opened image by one pass over its pixels.
std::optional<Indexed> indexOpened(const detail::Opened& opened, const FileIdentity& identity, bool withPreview)
{
    std::optional<RasterPass::Result> pass = RasterPass::run(opened.image, thumbnailSide, withPreview ? previewSide : 0);
    if (!pass)
        return std::nullopt;
    Indexed indexed;
    indexed.summary.type = opened.type;
    indexed.summary.width = pass->width;
    indexed.summary.height = pass->height;
    indexed.summary.index = std::move(pass->index);
    indexed.summary.thumbnail = rasterOf(std::move(pass->thumbnail));
    indexed.summary.identity = identity;
    indexed.preview = rasterOf(std::move(pass->preview));
    return indexed;
}

std::optional<Indexed> indexUnchecked(const QString& path, bool withPreview)
{
    const std::optional<FileIdentity> identity = identify(path);
    if (!identity)
        return std::nullopt;
    const std::optional<detail::Opened> opened = detail::open(path, detail::Access::Sequential);
    if (!opened)
        return std::nullopt;
    return indexOpened(*opened, *identity, withPreview);
}

std::optional<Decoded> decodeUnchecked(const QString& path, bool withPreview)
{
    const std::optional<FileIdentity> identity = identify(path);
    if (!identity)
        return std::nullopt;
    const std::optional<detail::Opened> header = detail::open(path, detail::Access::Header);
    const bool hold = header && header->wholeBytes <= holdLimit();
    const std::optional<detail::Opened> opened
        = detail::open(path, hold ? detail::Access::Whole : detail::Access::Sequential);
    if (!opened)
        return std::nullopt;
    std::optional<Indexed> indexed = indexOpened(*opened, *identity, withPreview);
    if (!indexed)
        return std::nullopt;
    Decoded decoded;
    if (hold)
        decoded.image = opened->image;
    decoded.summary = std::move(indexed->summary);
    decoded.preview = std::move(indexed->preview);
    decoded.source = path;
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
        std::optional<Indexed> indexed = indexUnchecked(path, withPreview);
        vips_error_clear();
        return indexed;
    } catch (const std::exception&) {
        vips_error_clear();
        return std::nullopt;
    }
}

std::optional<Decoded> decode(const QString& path)
{
    return decode(path, true);
}

std::optional<Decoded> decode(const QString& path, bool withPreview)
{
    try {
        std::optional<Decoded> decoded = decodeUnchecked(path, withPreview);
        vips_error_clear();
        return decoded;
    } catch (const std::exception&) {
        vips_error_clear();
        return std::nullopt;
    }
}

std::uint64_t holdLimit()
{
    return std::min<std::uint64_t>(std::uint64_t(1) << 30, availableMemory() / 4);
}

std::optional<ReadCost> readCost(const QString& path)
{
    const std::optional<detail::Opened> header = detail::open(path, detail::Access::Header);
    if (!header)
        return std::nullopt;
    const std::uint64_t index = header->sequentialBytes + kPassBytes;
    return ReadCost{index, header->wholeBytes <= holdLimit() ? header->wholeBytes + kPassBytes : index};
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
    if (!decoded.holdsImage())
        return saveCropped(decoded.source, decoded.summary, rect, path, type);
    try {
        std::optional<vips::VImage> cropped = CropEngine::crop(decoded.image, rect);
        const bool written = cropped && save(*cropped, path, type);
        vips_error_clear();
        return written;
    } catch (const std::exception&) {
        vips_error_clear();
        return false;
    }
}

bool saveCropped(const QString& source, const Summary& summary, const PixelRect& rect, const QString& path,
                 const ImageType& type)
{
    try {
        if (identify(source) != summary.identity)
            return false;
        const std::optional<detail::Opened> opened = detail::open(source, detail::Access::Sequential);
        if (!opened || opened->image.width() != summary.width || opened->image.height() != summary.height)
            return false;
        std::optional<vips::VImage> cropped = CropEngine::crop(opened->image, rect);
        const bool written = cropped && detail::saveSequential(*cropped, path, type);
        vips_error_clear();
        return written;
    } catch (const std::exception&) {
        vips_error_clear();
        return false;
    }
}

} // namespace orvane::ImageFile
