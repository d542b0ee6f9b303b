#include "model/cropmodel.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>

#include <QFileInfo>
#include <QThread>

#include "imagefile/imagefile.h"

namespace orvane {

namespace {

// What one file of an open() turned into; absent when it counts as skipped.
struct DecodedFile {
    ImageType type;
    CropEngine::Buffer buffer;
};

std::optional<DecodedFile> decodeFile(const QUrl& url)
{
    // A worker thread must never let an exception escape; any failure of a
    // single file only counts it as skipped.
    try {
        if (!url.isLocalFile())
            return std::nullopt;
        const QString path = url.toLocalFile();
        if (!ImageFile::isAccepted(path))
            return std::nullopt;
        std::optional<ImageFile::LoadResult> loaded = ImageFile::load(path);
        if (!loaded)
            return std::nullopt;
        std::optional<CropEngine::Buffer> buffer = CropEngine::Buffer::make(std::move(loaded->image));
        if (!buffer)
            return std::nullopt;
        return DecodedFile{loaded->type, std::move(*buffer)};
    } catch (const std::exception&) {
        vips_error_clear();
        return std::nullopt;
    }
}

// Decodes every URL on `threads` worker threads while the calling thread waits
// and reports. Results keep the order of urls. Returns absent when progress
// cancelled. The workers take the next file from a shared counter, so a slow
// file never holds up the others.
std::optional<std::vector<std::optional<DecodedFile>>> decodeAll(const QList<QUrl>& urls, int threads,
                                                                 OpenProgress* progress)
{
    const int total = int(urls.size());
    std::vector<std::optional<DecodedFile>> results(static_cast<std::size_t>(total));

    if (progress && !progress->report(0, total))
        return std::nullopt;

    std::mutex mutex;
    std::condition_variable changed;
    std::atomic<int> next{0};
    std::atomic<bool> cancelled{false};
    int done = 0; // guarded by mutex

    auto work = [&] {
        for (;;) {
            if (cancelled.load())
                return;
            const int i = next.fetch_add(1);
            if (i >= total)
                return;
            results[std::size_t(i)] = decodeFile(urls[i]);
            {
                std::lock_guard lock(mutex);
                ++done;
            }
            changed.notify_all();
        }
    };
    auto workThenLetGo = [&] {
        work();
        // libvips keeps per-thread buffers; give them back as the thread ends.
        vips_thread_shutdown();
    };

    const int workerCount = std::clamp(threads, 1, std::max(total, 1));
    // With one file per core in flight, libvips' own helper threads inside
    // each decode only compete with the other workers for the same cores
    // (measured: a batch opens about a quarter faster without them). A lone
    // file keeps them. The setting is read as a decode starts, so it is put
    // back once the workers have finished.
    struct VipsConcurrency {
        int saved = vips_concurrency_get();
        explicit VipsConcurrency(bool single) { if (single) vips_concurrency_set(1); }
        ~VipsConcurrency() { vips_concurrency_set(saved); }
    } concurrency(workerCount > 1);
    std::vector<std::thread> workers;
    workers.reserve(std::size_t(workerCount));
    try {
        for (int w = 0; w < workerCount; ++w)
            workers.emplace_back(workThenLetGo);
    } catch (const std::system_error&) {
        // Out of threads: go on with the ones that started, or decode here.
        if (workers.empty())
            work();
    }

    // The calling thread only waits and reports; the workers are joined before
    // anything they wrote into results is read. Reports are spaced out a
    // little so that thousands of tiny files do not flood the observer.
    using Clock = std::chrono::steady_clock;
    constexpr auto interval = std::chrono::milliseconds(50);
    constexpr auto spacing = std::chrono::milliseconds(15);
    auto lastReport = Clock::now();
    int reported = 0;
    std::unique_lock lock(mutex);
    while (done < total && !cancelled.load()) {
        changed.wait_for(lock, interval);
        if (!progress)
            continue;
        const int now = done;
        const auto since = Clock::now() - lastReport;
        if (since < interval && (now == reported || (now < total && since < spacing)))
            continue;
        lock.unlock();
        const bool goOn = progress->report(now, total);
        reported = now;
        lastReport = Clock::now();
        if (!goOn)
            cancelled.store(true);
        lock.lock();
    }
    lock.unlock();
    for (std::thread& worker : workers)
        worker.join();

    if (cancelled.load())
        return std::nullopt;
    if (progress && reported != total && !progress->report(total, total))
        return std::nullopt;
    return results;
}

// The file name that messages show: the last path component.
QString fileNameOf(const QUrl& url)
{
    return url.fileName();
}

QString skipMessage(int count)
{
    // Two keys, so that the untranslated text reads right for one and for
    // several files; translators still get %n for their plural forms.
    return count == 1 ? CropModel::tr("%n file couldn’t be opened.", "skip message, one file", count)
                      : CropModel::tr("%n files couldn’t be opened.", "skip message, several files", count);
}

QString nothingToSaveMessage()
{
    return CropModel::tr("Nothing to save.");
}

QString writeFailedMessage(const QString& fileName)
{
    return CropModel::tr("Couldn’t write to “%1”.").arg(fileName);
}

} // namespace

CropModel::CropModel(Panels* panels, QObject* parent)
    : QObject(parent)
    , m_panels(panels)
{
}

CropModel::~CropModel() = default;

void CropModel::setPanels(Panels* panels)
{
    m_panels = panels;
}

void CropModel::setDecodeThreads(int count)
{
    m_decodeThreads = std::max(count, 0);
}

void CropModel::setThreshold(double threshold)
{
    Q_EMIT willChange(Property::Threshold);
    m_threshold = threshold;
    recomputeActive();
}

const CropModel::Item* CropModel::active() const
{
    const int i = m_activeID ? indexOf(*m_activeID) : -1;
    return i < 0 ? nullptr : &m_items[std::size_t(i)];
}

std::optional<int> CropModel::activePosition() const
{
    const int i = m_activeID ? indexOf(*m_activeID) : -1;
    if (i < 0)
        return std::nullopt;
    return i + 1;
}

bool CropModel::willTrim() const
{
    const Item* item = active();
    if (!item || !m_activeContentRect)
        return false;
    return m_activeContentRect->width != item->buffer.width() || m_activeContentRect->height != item->buffer.height();
}

bool CropModel::allSaved() const
{
    if (m_items.empty())
        return false;
    return std::all_of(m_items.begin(), m_items.end(), [](const Item& item) { return item.saved; });
}

QString CropModel::revealKey() const
{
    const Item* item = active();
    QString key = m_activeID ? m_activeID->toString(QUuid::WithoutBraces).toUpper() : QString();
    key += QLatin1Char('#');
    key += QString::number(item ? item->buffer.width() : 0);
    key += QLatin1Char('x');
    key += QString::number(item ? item->buffer.height() : 0);
    return key;
}

void CropModel::open(const QList<QUrl>& urls, OpenProgress* progress)
{
    if (urls.isEmpty())
        return;

    // Folders become their image files; a file (or nothing) stays the very URL
    // it was given, so that a queued item keeps the caller's URL.
    QList<QUrl> expanded;
    for (const QUrl& url : urls) {
        if (!url.isLocalFile()) {
            expanded.append(url);
            continue;
        }
        const QString path = url.toLocalFile();
        const QStringList paths = ImageFile::expandingFolders({path});
        if (paths.size() == 1 && paths.first() == path) {
            expanded.append(url);
            continue;
        }
        for (const QString& entry : paths)
            expanded.append(QUrl::fromLocalFile(entry));
    }

    const int threads = m_decodeThreads > 0 ? m_decodeThreads : std::max(QThread::idealThreadCount(), 1);
    std::optional<std::vector<std::optional<DecodedFile>>> decoded = decodeAll(expanded, threads, progress);
    if (!decoded)
        return;

    std::vector<Item> newItems;
    int skipped = 0;
    for (std::size_t i = 0; i < decoded->size(); ++i) {
        std::optional<DecodedFile>& file = (*decoded)[i];
        if (!file) {
            ++skipped;
            continue;
        }
        newItems.push_back(Item{QUuid::createUuid(), expanded[qsizetype(i)], file->type, std::move(file->buffer), false});
    }
    decoded.reset();

    if (newItems.empty()) {
        if (skipped > 0)
            setErrorMessage(skipMessage(skipped));
        else
            setErrorMessage(tr("No supported images found."));
        return;
    }

    const QUuid first = newItems.front().id;
    if (m_items.empty() || (m_items.size() == 1 && m_items.front().saved)) {
        Q_EMIT willChange(Property::Items);
        m_items = std::move(newItems);
        setActiveID(first);
    } else {
        // Decided on the queue before the addition: a finished last item hands
        // over to the new ones, any other active item stays.
        const int activeIndex = m_activeID ? indexOf(*m_activeID) : -1;
        const bool activeIsSavedLast = activeIndex >= 0 && activeIndex == int(m_items.size()) - 1
                                       && m_items[std::size_t(activeIndex)].saved;
        Q_EMIT willChange(Property::Items);
        m_items.insert(m_items.end(), std::make_move_iterator(newItems.begin()),
                       std::make_move_iterator(newItems.end()));
        // "No active item" includes an activeID that names no queued item,
        // the one way a non-empty queue can be without one.
        if (activeIndex < 0 || activeIsSavedLast)
            setActiveID(first);
    }
    setSaveConfirmation(std::nullopt);
    setErrorMessage(skipped > 0 ? std::optional<QString>(skipMessage(skipped)) : std::nullopt);
    recomputeActive();
}

void CropModel::openPanel(OpenProgress* progress)
{
    if (!m_panels)
        return;
    const QList<QUrl> urls = m_panels->chooseImagesToOpen(ImageFile::acceptedTypes());
    if (urls.isEmpty())
        return;
    open(urls, progress);
}

void CropModel::select(const QUuid& id)
{
    if (m_activeID && *m_activeID == id)
        return;
    setActiveID(id);
    setSaveConfirmation(std::nullopt);
    setErrorMessage(std::nullopt);
    recomputeActive();
}

void CropModel::remove(const QUuid& id)
{
    const int p = indexOf(id);
    if (p < 0)
        return;
    const bool wasActive = m_activeID && *m_activeID == id;

    Q_EMIT willChange(Property::Items);
    m_items.erase(m_items.begin() + p);
    setSaveConfirmation(std::nullopt);
    setErrorMessage(std::nullopt);

    if (m_items.empty()) {
        setActiveID(std::nullopt);
        Q_EMIT willChange(Property::ActiveContentRect);
        m_activeContentRect.reset();
        return;
    }
    if (!wasActive)
        return;
    const int newActive = std::min(p, int(m_items.size()) - 1);
    setActiveID(m_items[std::size_t(newActive)].id);
    recomputeActive();
}

void CropModel::saveAsNewFile()
{
    const Item* item = active();
    std::optional<vips::VImage> image = item ? croppedActiveImage() : std::nullopt;
    if (!item || !image) {
        setErrorMessage(nothingToSaveMessage());
        return;
    }
    if (!m_panels)
        return;

    // The panel is modal and runs an event loop: keep copies, not a pointer
    // into items.
    const QUuid id = item->id;
    const ImageType type = item->type;
    const QString proposed = ImageFile::proposedName(fileNameOf(item->url), type);

    const std::optional<QUrl> destination = m_panels->chooseSaveDestination(proposed, type);
    if (!destination || destination->isEmpty())
        return;

    const QString name = fileNameOf(*destination);
    if (!destination->isLocalFile() || !ImageFile::save(*image, destination->toLocalFile(), type)) {
        setErrorMessage(writeFailedMessage(name));
        return;
    }

    const int index = indexOf(id);
    if (index >= 0) {
        Q_EMIT willChange(Property::Items);
        m_items[std::size_t(index)].saved = true;
    }
    finishSave(id, name);
}

void CropModel::saveOverOriginal()
{
    const Item* item = active();
    std::optional<vips::VImage> image = item ? croppedActiveImage() : std::nullopt;
    if (!item || !image) {
        setErrorMessage(nothingToSaveMessage());
        return;
    }

    const QUuid id = item->id;
    const QUrl url = item->url;
    const QString name = fileNameOf(url);
    if (!url.isLocalFile() || !ImageFile::save(*image, url.toLocalFile(), item->type)) {
        setErrorMessage(writeFailedMessage(name));
        return;
    }
    // The crop may share pixels with the old buffer; let go of it before the
    // reload so that the old and new images are not both held longer than needed.
    image.reset();

    const int index = indexOf(id);
    if (index >= 0) {
        // The reloaded type is not used: the item keeps the type it was opened
        // with, and its url. A failed reload keeps the old buffer silently.
        std::optional<CropEngine::Buffer> buffer;
        try {
            if (std::optional<ImageFile::LoadResult> loaded = ImageFile::load(url.toLocalFile()))
                buffer = CropEngine::Buffer::make(std::move(loaded->image));
        } catch (const std::exception&) {
            vips_error_clear();
        }
        if (buffer) {
            Q_EMIT willChange(Property::Items);
            m_items[std::size_t(index)].buffer = std::move(*buffer);
        }
        Q_EMIT willChange(Property::Items);
        m_items[std::size_t(index)].saved = true;
    }
    finishSave(id, name);
}

void CropModel::finishSave(const QUuid& id, const QString& writtenName)
{
    setSaveConfirmation(writtenName);
    setErrorMessage(std::nullopt);
    advanceToNextUnsaved(id);
}

void CropModel::recomputeActive()
{
    const Item* item = active();
    std::optional<PixelRect> rect = item ? CropEngine::contentRect(item->buffer, m_threshold) : std::nullopt;
    Q_EMIT willChange(Property::ActiveContentRect);
    m_activeContentRect = rect;
}

void CropModel::advanceToNextUnsaved(const QUuid& after)
{
    const int i = indexOf(after);
    if (i < 0) {
        recomputeActive();
        return;
    }
    const int n = int(m_items.size());
    for (int k = 1; k <= n; ++k) {
        const Item& candidate = m_items[std::size_t((i + k) % n)];
        if (!candidate.saved) {
            setActiveID(candidate.id);
            break;
        }
    }
    recomputeActive();
}

std::optional<vips::VImage> CropModel::croppedActiveImage() const
{
    const Item* item = active();
    if (!item || !m_activeContentRect)
        return std::nullopt;
    try {
        return CropEngine::crop(item->buffer, *m_activeContentRect);
    } catch (const std::exception&) {
        vips_error_clear();
        return std::nullopt;
    }
}

int CropModel::indexOf(const QUuid& id) const
{
    for (std::size_t i = 0; i < m_items.size(); ++i) {
        if (m_items[i].id == id)
            return int(i);
    }
    return -1;
}

void CropModel::setErrorMessage(std::optional<QString> message)
{
    Q_EMIT willChange(Property::ErrorMessage);
    m_errorMessage = std::move(message);
}

void CropModel::setSaveConfirmation(std::optional<QString> message)
{
    Q_EMIT willChange(Property::SaveConfirmation);
    m_saveConfirmation = std::move(message);
}

void CropModel::setActiveID(std::optional<QUuid> id)
{
    Q_EMIT willChange(Property::ActiveID);
    m_activeID = id;
}

} // namespace orvane
