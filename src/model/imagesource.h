// What the queue asks of image files, and where that work runs. The model
// calls nothing else to read, decode or write an image; tests give it a
// source of their own to hold files back or answer out of order.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include <QString>
#include <QStringList>

#include "imagefile/imagesource.h"

namespace orvane {

/// Reads, decodes and writes through ImageFile and runs jobs on the shared
/// WorkerPool. Every function but run() may block on the disk: the model
/// calls them only from jobs it hands to run(). Thread-safe.
class ImageSource {
public:
    virtual ~ImageSource() = default;

    /// Queues job on a worker thread; bytes is the most memory it may need.
    virtual void run(std::uint64_t bytes, std::function<void()> job);
    /// How many files an open reads at once: enough to keep every core busy,
    /// few enough that a save or a decode queued behind them starts soon.
    virtual int parallelReads();

    /// Folders become the accepted image files directly inside them, sorted
    /// by name; every other path stays as it is.
    virtual QStringList expandingFolders(const QStringList& paths);
    /// The accepted test on the name's extension.
    virtual bool isAccepted(const QString& path);
    /// What reading the file takes in memory, from its header; absent when
    /// index() would refuse it.
    virtual std::optional<ImageFile::ReadCost> readCost(const QString& path);
    virtual std::optional<ImageFile::Indexed> index(const QString& path, bool withPreview);
    virtual std::optional<ImageFile::Decoded> decode(const QString& path);
    virtual std::optional<FileIdentity> identify(const QString& path);
    virtual ImageFile::Failure whyNotOpened(const QString& path);
    virtual bool saveCropped(const ImageFile::Decoded& decoded, const PixelRect& rect, const QString& path,
                             const ImageType& type);
};

} // namespace orvane
