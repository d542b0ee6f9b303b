#include "ui/preview/scaledimagecache.h"

#include <algorithm>
#include <cmath>
#include <vector>
#include <tuple>
#include <utility>

#include <QThread>
#include <QThreadPool>

namespace orvane {

namespace {

const std::uint8_t* pixelsOf(const Raster& raster)
{
    return raster.pixels ? raster.pixels->data() : nullptr;
}

} // namespace

bool ScaledImageCache::Key::operator<(const Key& other) const
{
    return std::tuple(id, pixels, size.width(), size.height())
         < std::tuple(other.id, other.pixels, other.size.width(), other.size.height());
}

ScaledImageCache::ScaledImageCache(int capacity, QObject* parent)
    : QObject(parent)
    , m_capacity(std::max(1, capacity))
    , m_pool(std::make_unique<QThreadPool>())
{
    // Leave a core for the main thread and the model's own work.
    m_pool->setMaxThreadCount(std::max(1, QThread::idealThreadCount() - 1));
}

ScaledImageCache::~ScaledImageCache()
{
    // A running job calls back into this object; let it finish first.
    m_pool->clear();
    m_pool->waitForDone();
}

QImage ScaledImageCache::wrap(const Raster& raster)
{
    if (raster.isNull())
        return QImage();
    return QImage(raster.pixels->data(), int(raster.width), int(raster.height), int(raster.width * 4),
                  QImage::Format_RGBA8888_Premultiplied);
}

QImage ScaledImageCache::scaledCopy(const Raster& raster, QSize pixelSize)
{
    const QImage source = wrap(raster);
    if (pixelSize.isEmpty() || source.isNull())
        return QImage();
    if (enlarges(source.size(), pixelSize))
        return enlarged(source, pixelSize);
    QImage scaled = source.size() == pixelSize
                        ? source.copy()
                        : source.scaled(pixelSize, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    // The raster paint engine blends ARGB32 premultiplied without a conversion.
    scaled.convertTo(QImage::Format_ARGB32_Premultiplied);
    return scaled;
}

bool ScaledImageCache::enlarges(QSize imageSize, QSize pixelSize)
{
    return pixelSize.width() >= imageSize.width() && pixelSize.height() >= imageSize.height()
           && pixelSize != imageSize;
}

int ScaledImageCache::enlargedEdge(double at, std::int64_t from, int to)
{
    if (from < 1)
        return 0;
    // Result pixel x shows source pixel floor((x + 0.5) × from / to), the one
    // under its centre; the first x to show `at` or later is this one.
    const double edge = std::ceil(at * double(to) / double(from) - 0.5 - 1e-9);
    return int(std::clamp(edge, 0.0, double(to)));
}

QImage ScaledImageCache::enlarged(const QImage& source, QSize pixelSize)
{
    if (pixelSize.isEmpty() || source.isNull())
        return QImage();
    const QImage from = source.convertToFormat(QImage::Format_ARGB32_Premultiplied);
    QImage result(pixelSize, QImage::Format_ARGB32_Premultiplied);
    const std::int64_t sw = from.width();
    const std::int64_t sh = from.height();
    const std::int64_t dw = pixelSize.width();
    const std::int64_t dh = pixelSize.height();
    std::vector<int> columns(static_cast<std::size_t>(dw));
    for (std::int64_t x = 0; x < dw; ++x)
        columns[std::size_t(x)] = int(std::min(sw - 1, (2 * x + 1) * sw / (2 * dw)));
    for (std::int64_t y = 0; y < dh; ++y) {
        const auto* in = reinterpret_cast<const QRgb*>(from.constScanLine(int(std::min(sh - 1, (2 * y + 1) * sh / (2 * dh)))));
        auto* out = reinterpret_cast<QRgb*>(result.scanLine(int(y)));
        for (std::int64_t x = 0; x < dw; ++x)
            out[x] = in[columns[std::size_t(x)]];
    }
    return result;
}

QImage ScaledImageCache::quickCopy(const Raster& raster, QSize pixelSize)
{
    if (pixelSize.isEmpty())
        return QImage();
    const QSize small = pixelSize.width() > 320 || pixelSize.height() > 320
                            ? pixelSize.scaled(320, 320, Qt::KeepAspectRatio).expandedTo(QSize(1, 1))
                            : pixelSize;
    QImage quick = wrap(raster).scaled(small, Qt::IgnoreAspectRatio, Qt::FastTransformation);
    quick.convertTo(QImage::Format_ARGB32_Premultiplied);
    return quick;
}

bool ScaledImageCache::isReady(const QUuid& id, const Raster& raster, QSize pixelSize) const
{
    return m_ready.count(Key{id, pixelsOf(raster), pixelSize}) > 0;
}

QImage ScaledImageCache::image(const QUuid& id, const Raster& raster, QSize pixelSize)
{
    if (pixelSize.isEmpty() || raster.isNull())
        return QImage();
    const Key key{id, pixelsOf(raster), pixelSize};
    m_forgotten.remove(id);
    ++m_clock;
    if (auto found = m_ready.find(key); found != m_ready.end()) {
        found->second.lastUse = m_clock;
        return found->second.image;
    }

    const Job job{raster, key};
    if (m_running.contains(id))
        m_waiting.insert_or_assign(id, job);
    else
        start(job);

    // Best stand-in: the most recently used good copy of this image at another size.
    const Entry* best = nullptr;
    for (const auto& [other, entry] : m_ready)
        if (sameImage(other, key) && (!best || entry.lastUse > best->lastUse))
            best = &entry;
    if (best)
        return best->image;

    // One quick copy per image, made on the first request; the caller stretches it.
    const Key standInKey{id, pixelsOf(raster), QSize()};
    auto standIn = m_standIns.find(standInKey);
    if (standIn == m_standIns.end())
        standIn = m_standIns.emplace(standInKey, Entry{quickCopy(raster, pixelSize), m_clock}).first;
    return standIn->second.image;
}

void ScaledImageCache::start(const Job& job)
{
    m_running.insert(job.key.id);
    m_pool->start([this, job] {
        QImage scaled = scaledCopy(job.raster, job.key.size);
        QMetaObject::invokeMethod(this, [this, key = job.key, scaled] { finished(key, scaled); },
                                  Qt::QueuedConnection);
    });
}

void ScaledImageCache::finished(const Key& key, const QImage& image)
{
    m_running.remove(key.id);
    // A removed item's copy arrives too late to be of use.
    if (m_forgotten.remove(key.id))
        return;
    if (!image.isNull()) {
        m_ready.insert_or_assign(key, Entry{image, ++m_clock});
        ++m_copiesMade;
        // The stand-in of this image is no longer needed.
        m_standIns.erase(Key{key.id, key.pixels, QSize()});
        evict();
    }
    if (auto waiting = m_waiting.find(key.id); waiting != m_waiting.end()) {
        const Job next = waiting->second;
        m_waiting.erase(waiting);
        if (!m_ready.count(next.key))
            start(next);
    }
    Q_EMIT imageReady();
}

void ScaledImageCache::evict()
{
    while (int(m_ready.size()) > m_capacity) {
        auto oldest = std::min_element(m_ready.begin(), m_ready.end(), [](const auto& a, const auto& b) {
            return a.second.lastUse < b.second.lastUse;
        });
        m_ready.erase(oldest);
    }
}

void ScaledImageCache::retainOnly(const QSet<QUuid>& ids)
{
    std::erase_if(m_ready, [&](const auto& entry) { return !ids.contains(entry.first.id); });
    std::erase_if(m_standIns, [&](const auto& entry) { return !ids.contains(entry.first.id); });
    std::erase_if(m_waiting, [&](const auto& entry) { return !ids.contains(entry.first); });
    for (const QUuid& id : std::as_const(m_running))
        if (!ids.contains(id))
            m_forgotten.insert(id);
}

} // namespace orvane
