// Scaled copies of queued images for drawing: the preview and the drawer's
// thumbnails draw from these instead of from the full raster every frame.
#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include <QImage>
#include <QObject>
#include <QSet>
#include <QSize>
#include <QUuid>

#include "imagefile/imagesource.h"

QT_BEGIN_NAMESPACE
class QThreadPool;
QT_END_NAMESPACE

namespace orvane {

/// Keeps scaled copies of rasters, made once per image and size with a good
/// filter on a background thread. Until a copy is ready, image() answers at
/// once with a stand-in: the same image at another size, else a small quick
/// copy. Used on the main thread only; the copies are made on the cache's own
/// thread pool from a copy of the raster (which shares the pixels), so an item
/// removed meanwhile stays valid for the job.
class ScaledImageCache : public QObject {
    Q_OBJECT

public:
    /// Holds at most capacity good copies (at least 1), dropping the least
    /// recently used first.
    explicit ScaledImageCache(int capacity, QObject* parent = nullptr);
    ~ScaledImageCache() override;

    /// The raster of the item id scaled to pixelSize (device pixels; the
    /// caller chooses the aspect). The good copy when made; otherwise a stand-in
    /// that the caller draws stretched into its rectangle, and the good copy is
    /// started (once per id, raster and size) and announced by imageReady().
    /// Null for an empty size.
    QImage image(const QUuid& id, const Raster& raster, QSize pixelSize);

    /// Whether image() would answer with the good copy now.
    bool isReady(const QUuid& id, const Raster& raster, QSize pixelSize) const;

    /// Forgets the copies of every image whose id is not in ids.
    void retainOnly(const QSet<QUuid>& ids);

    /// Good copies made since construction: one per id, raster and size while
    /// they stay cached.
    int copiesMade() const { return m_copiesMade; }

    /// The raster as a QImage over its own memory (no copy): valid while
    /// the raster or a copy of it lives.
    static QImage wrap(const Raster& raster);
    /// The good copy, converted for fast drawing: reduced with Qt's smooth
    /// (area averaging) filter, enlarged by repeating pixels (see enlarged()).
    /// Any thread.
    static QImage scaledCopy(const Raster& raster, QSize pixelSize);
    /// Whether scaledCopy() enlarges an image of imageSize to pixelSize: no
    /// side gets smaller and one gets larger.
    static bool enlarges(QSize imageSize, QSize pixelSize);
    /// source enlarged to pixelSize with the nearest pixel: every pixel of the
    /// result is one of the source's, so a small image shows whole, sharp
    /// pixels instead of a blur. Source column k fills the result's columns
    /// from enlargedEdge(k, …) up to enlargedEdge(k + 1, …), rows likewise.
    static QImage enlarged(const QImage& source, QSize pixelSize);
    /// Where source position at (in source pixels, fractions allowed) falls
    /// in an enlargement of a side of from pixels to to pixels: the first
    /// result pixel that shows source pixel at or a later one. Drawing an edge
    /// there puts it on the boundary between two enlarged pixels.
    static int enlargedEdge(double at, std::int64_t from, int to);
    /// A cheap nearest-pixel copy no larger than 320 pixels a side with the
    /// aspect of pixelSize. Any thread; well under a millisecond.
    static QImage quickCopy(const Raster& raster, QSize pixelSize);

Q_SIGNALS:
    /// A good copy has been made; callers repaint and ask again.
    void imageReady();

private:
    struct Key {
        QUuid id;
        const std::uint8_t* pixels = nullptr; // tells another raster of the same item apart
        QSize size;
        bool operator<(const Key& other) const;
    };
    struct Entry {
        QImage image;
        quint64 lastUse = 0;
    };
    struct Job {
        Raster raster;
        Key key;
    };

    void start(const Job& job);
    void finished(const Key& key, const QImage& image);
    void evict();
    static bool sameImage(const Key& a, const Key& b) { return a.id == b.id && a.pixels == b.pixels; }

    int m_capacity;
    int m_copiesMade = 0;
    quint64 m_clock = 0;
    std::map<Key, Entry> m_ready;
    std::map<Key, Entry> m_standIns; // one quick copy per image
    QSet<QUuid> m_running;           // ids with a job on the pool
    std::map<QUuid, Job> m_waiting;  // the newest request per id behind a running job
    QSet<QUuid> m_forgotten;         // ids let go while their job was running
    std::unique_ptr<QThreadPool> m_pool;
};

} // namespace orvane
