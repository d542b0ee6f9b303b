#include "model/imagesource.h"

#include <algorithm>

#include <QThread>

#include "imagefile/imagefile.h"
#include "imagefile/workerpool.h"

namespace orvane {

void ImageSource::run(std::uint64_t bytes, std::function<void()> job)
{
    WorkerPool::shared().run(bytes, std::move(job));
}

int ImageSource::parallelReads()
{
    return std::max(2, 2 * QThread::idealThreadCount());
}

QStringList ImageSource::expandingFolders(const QStringList& paths)
{
    return ImageFile::expandingFolders(paths);
}

bool ImageSource::isAccepted(const QString& path)
{
    return ImageFile::isAccepted(path);
}

std::optional<ImageFile::ReadCost> ImageSource::readCost(const QString& path)
{
    return ImageFile::readCost(path);
}

std::optional<ImageFile::Indexed> ImageSource::index(const QString& path, bool withPreview)
{
    return ImageFile::index(path, withPreview);
}

std::optional<ImageFile::Decoded> ImageSource::decode(const QString& path)
{
    return ImageFile::decode(path);
}

std::optional<FileIdentity> ImageSource::identify(const QString& path)
{
    return ImageFile::identify(path);
}

ImageFile::Failure ImageSource::whyNotOpened(const QString& path)
{
    return ImageFile::whyNotOpened(path);
}

bool ImageSource::saveCropped(const ImageFile::Decoded& decoded, const PixelRect& rect, const QString& path,
                              const ImageType& type)
{
    return ImageFile::saveCropped(decoded, rect, path, type);
}

} // namespace orvane
