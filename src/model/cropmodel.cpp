#include "model/cropmodel.h"

#include <algorithm>
#include <atomic>
#include <mutex>


#include "imagefile/imagefile.h"
#include "model/imagesource.h"

namespace orvane {

// Results of jobs come back through the mailbox: a job posts to the model
// only while the model lives, and Qt drops events posted to a model that is
// destroyed before they are delivered.
struct CropModel::Mailbox {
    std::mutex mutex;
    CropModel* model = nullptr;

    template <typename F>
    void post(F&& work)
    {
        std::lock_guard lock(mutex);
        if (model)
            QMetaObject::invokeMethod(
                model, [target = model, work = std::forward<F>(work)]() mutable { work(target); },
                Qt::QueuedConnection);
    }
};

// One call of open(): its expanded list and what became of each file so far.
struct CropModel::OpenRun {
    enum class State { Pending, Read, Failed };
    struct Slot {
        State state = State::Pending;
        std::optional<ImageFile::Indexed> indexed;
        QString failure;
    };

    std::uint64_t serial = 0;
    bool listed = false;
    QList<QUrl> expanded;
    std::vector<Slot> slots;
    int nextToStart = 0;
    int nextToJoin = 0;
    int done = 0;
    int skipped = 0; // counted as the files join, in order
    bool joinedAny = false;
    QList<FailedFile> failures;
    std::shared_ptr<std::atomic<bool>> cancelled = std::make_shared<std::atomic<bool>>(false);
};

namespace {

// Memory a job may need: listing and reading a header take little; a
// file's pass states its own cost; a decode holds the image.
constexpr std::uint64_t headerBytes = std::uint64_t(1) << 20;

std::uint64_t decodeBytes(const ImageFile::Summary& summary)
{
    const std::uint64_t pixels = std::uint64_t(summary.width) * std::uint64_t(summary.height);
    return pixels * 8 + (std::uint64_t(ImageFile::previewSide) * ImageFile::previewSide * 4);
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

QString reloadedMessage(const QString& fileName)
{
    return CropModel::tr("“%1” changed on disk and was reloaded.").arg(fileName);
}

QString goneMessage(const QString& fileName)
{
    return CropModel::tr("“%1” is no longer there.").arg(fileName);
}

QString unreadableMessage(const QString& fileName)
{
    return CropModel::tr("“%1” changed on disk and can’t be read any more.").arg(fileName);
}

} // namespace

std::uint64_t CropModel::Cached::bytes() const
{
    // A decode's own preview is counted in the decode.
    if (!decoded)
        return preview.byteCount();
    return decoded->byteCount() + (preview.pixels == decoded->preview.pixels ? 0 : preview.byteCount());
}

CropModel::CropModel(Panels* panels, QObject* parent, std::shared_ptr<ImageSource> source)
    : QObject(parent)
    , m_panels(panels)
    , m_source(source ? std::move(source) : std::make_shared<ImageSource>())
    , m_mailbox(std::make_shared<Mailbox>())
{
    m_mailbox->model = this;
}

CropModel::~CropModel()
{
    for (const auto& run : m_opens)
        run->cancelled->store(true);
    std::lock_guard lock(m_mailbox->mutex);
    m_mailbox->model = nullptr;
}

void CropModel::setPanels(Panels* panels)
{
    m_panels = panels;
}

bool CropModel::hasFullImage(const QUuid& id) const
{
    const auto found = m_cache.find(id);
    return found != m_cache.end() && found->second.decoded != nullptr;
}

std::uint64_t CropModel::cachedBytes() const
{
    std::uint64_t total = 0;
    for (const auto& [id, cached] : m_cache)
        total += cached.bytes();
    return total;
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
    return m_activeContentRect->width != item->width() || m_activeContentRect->height != item->height();
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
    key += QString::number(item ? item->width() : 0);
    key += QLatin1Char('x');
    key += QString::number(item ? item->height() : 0);
    return key;
}

// ---- Opening ---------------------------------------------------------------

void CropModel::open(const QList<QUrl>& urls)
{
    if (urls.isEmpty())
        return;
    auto run = std::make_unique<OpenRun>();
    run->serial = m_nextSerial++;
    const std::uint64_t serial = run->serial;
    const std::shared_ptr<std::atomic<bool>> cancelled = run->cancelled;
    m_opens.push_back(std::move(run));
    publishOpening();

    // Folders become their image files; a file (or nothing) stays the very URL
    // it was given, so that a queued item keeps the caller's URL.
    m_source->run(headerBytes, [source = m_source, mailbox = m_mailbox, urls, serial, cancelled] {
        if (cancelled->load())
            return;
        QList<QUrl> expanded;
        for (const QUrl& url : urls) {
            if (!url.isLocalFile()) {
                expanded.append(url);
                continue;
            }
            const QString path = url.toLocalFile();
            const QStringList paths = source->expandingFolders({path});
            if (paths.size() == 1 && paths.first() == path) {
                expanded.append(url);
                continue;
            }
            for (const QString& entry : paths)
                expanded.append(QUrl::fromLocalFile(entry));
        }
        mailbox->post([serial, expanded](CropModel* model) { model->listed(serial, expanded); });
    });
}

void CropModel::openPanel()
{
    if (!m_panels)
        return;
    const QList<QUrl> urls = m_panels->chooseImagesToOpen(ImageFile::acceptedTypes());
    if (urls.isEmpty())
        return;
    open(urls);
}

void CropModel::cancelOpen()
{
    if (m_opens.empty())
        return;
    for (const auto& run : m_opens)
        run->cancelled->store(true);
    // Only the first open can have joined items; the later ones vanish whole.
    finishOpen(*m_opens.front(), true);
    m_opens.clear();
    publishOpening();
}

CropModel::OpenRun* CropModel::findRun(std::uint64_t serial)
{
    for (const auto& run : m_opens)
        if (run->serial == serial)
            return run.get();
    return nullptr;
}

void CropModel::listed(std::uint64_t serial, const QList<QUrl>& expanded)
{
    OpenRun* run = findRun(serial);
    if (!run)
        return;
    run->listed = true;
    run->expanded = expanded;
    run->slots.resize(std::size_t(expanded.size()));
    publishOpening();
    resumeReading();
    joinReady();
}

bool CropModel::readingPaused() const
{
    // The pool takes jobs in order: until a decode or save that was asked
    // for has started, no more files are queued in front of it.
    return m_waitingToStart > 0;
}

void CropModel::queueUrgent(std::uint64_t bytes, std::function<void()> job)
{
    ++m_waitingToStart;
    m_source->run(bytes, [mailbox = m_mailbox, job = std::move(job)] {
        mailbox->post([](CropModel* model) {
            --model->m_waitingToStart;
            model->resumeReading();
        });
        job();
    });
}

void CropModel::startReading(OpenRun& run)
{
    if (readingPaused())
        return;
    // The first file of an open is read alone, with every core, so that
    // something is on screen as early as possible.
    const bool firstAlone = !run.slots.empty() && run.slots.front().state == OpenRun::State::Pending;
    while (run.listed && run.nextToStart < int(run.slots.size()) && m_reading < m_source->parallelReads()
           && !(firstAlone && run.nextToStart >= 1)) {
        const int slot = run.nextToStart++;
        const QUrl url = run.expanded[slot];
        // The first file of an open is likely to be shown at once: its
        // preview copy comes from the same pass.
        const bool withPreview = slot == 0;
        ++m_reading;
        // A small job reads the header; the pass itself is queued with what
        // it will really take, so the pool keeps to its memory budget.
        m_source->run(headerBytes, [source = m_source, mailbox = m_mailbox, cancelled = run.cancelled,
                                    serial = run.serial, slot, url, withPreview] {
            auto post = [mailbox, serial, slot](std::optional<ImageFile::Indexed> indexed,
                                                std::optional<ImageFile::Failure> failure) {
                mailbox->post([serial, slot, indexed = std::move(indexed), failure](CropModel* model) mutable {
                    model->fileRead(serial, slot, std::move(indexed), failure);
                });
            };
            if (cancelled->load()) {
                post(std::nullopt, std::nullopt);
                return;
            }
            const QString path = url.isLocalFile() ? url.toLocalFile() : QString();
            const std::optional<ImageFile::ReadCost> cost =
                !path.isEmpty() && source->isAccepted(path) ? source->readCost(path) : std::nullopt;
            if (!cost) {
                post(std::nullopt, source->whyNotOpened(path));
                return;
            }
            source->run(cost->index, [source, cancelled, path, withPreview, post] {
                if (cancelled->load()) {
                    post(std::nullopt, std::nullopt);
                    return;
                }
                std::optional<ImageFile::Indexed> indexed = source->index(path, withPreview);
                std::optional<ImageFile::Failure> failure;
                if (!indexed)
                    failure = source->whyNotOpened(path);
                post(std::move(indexed), failure);
            });
        });
    }
}

void CropModel::fileRead(std::uint64_t serial, int slot, std::optional<ImageFile::Indexed> indexed,
                         std::optional<ImageFile::Failure> failure)
{
    --m_reading;
    if (OpenRun* run = findRun(serial); run && slot >= 0) {
        OpenRun::Slot& entry = run->slots[std::size_t(slot)];
        if (indexed) {
            entry.state = OpenRun::State::Read;
            entry.indexed = std::move(indexed);
        } else {
            entry.state = OpenRun::State::Failed;
            entry.failure = failure ? failure->message : QString();
        }
        ++run->done;
        publishOpening();
        joinReady();
    }
    resumeReading();
}

void CropModel::joinReady()
{
    while (!m_opens.empty()) {
        OpenRun& run = *m_opens.front();
        if (!run.listed)
            return;
        std::vector<Item> newItems;
        std::vector<Raster> previews;
        const int total = int(run.slots.size());
        while (run.nextToJoin < total && run.slots[std::size_t(run.nextToJoin)].state != OpenRun::State::Pending) {
            OpenRun::Slot& entry = run.slots[std::size_t(run.nextToJoin)];
            const QUrl& url = run.expanded[run.nextToJoin];
            if (entry.state == OpenRun::State::Read) {
                auto summary = std::make_shared<const ImageFile::Summary>(std::move(entry.indexed->summary));
                previews.push_back(std::move(entry.indexed->preview));
                newItems.push_back(Item{QUuid::createUuid(), url, summary->type, summary, false});
            } else {
                ++run.skipped;
                run.failures.append(FailedFile{fileNameOf(url), entry.failure});
            }
            entry = OpenRun::Slot{entry.state, std::nullopt, QString()};
            ++run.nextToJoin;
        }
        if (!newItems.empty()) {
            // Preview copies that came with the pass wait in the cache until
            // eviction decides whether their item is in view.
            for (std::size_t i = 0; i < newItems.size(); ++i)
                if (!previews[i].isNull())
                    m_cache[newItems[i].id] = Cached{nullptr, std::move(previews[i])};
            join(run, std::move(newItems));
        }
        if (run.nextToJoin < total)
            return;
        finishOpen(run, false);
        m_opens.pop_front();
        publishOpening();
    }
}

void CropModel::join(OpenRun& run, std::vector<Item> newItems)
{
    const QUuid first = newItems.front().id;
    if (!run.joinedAny && (m_items.empty() || (m_items.size() == 1 && m_items.front().saved))) {
        Q_EMIT willChange(Property::Items);
        m_items = std::move(newItems);
        setActiveID(first);
    } else {
        // Decided on the queue before the addition: a finished last item hands
        // over to the new ones, any other active item stays. "No active item"
        // includes an activeID that names no queued item.
        const int activeIndex = m_activeID ? indexOf(*m_activeID) : -1;
        const bool activeIsSavedLast = activeIndex >= 0 && activeIndex == int(m_items.size()) - 1
                                       && m_items[std::size_t(activeIndex)].saved;
        Q_EMIT willChange(Property::Items);
        m_items.insert(m_items.end(), std::make_move_iterator(newItems.begin()),
                       std::make_move_iterator(newItems.end()));
        if (activeIndex < 0 || activeIsSavedLast)
            setActiveID(first);
        else if (run.joinedAny) {
            // Later joins leave the messages and the active item alone.
            imagesInViewChanged();
            return;
        }
    }
    if (!run.joinedAny) {
        run.joinedAny = true;
        setSaveConfirmation(std::nullopt);
        setErrorMessage(std::nullopt);
    }
    recomputeActive();
}

void CropModel::finishOpen(OpenRun& run, bool cancelled)
{
    if (run.skipped > 0)
        setErrorMessage(skipMessage(run.skipped), run.failures);
    else if (!run.joinedAny && !cancelled)
        setErrorMessage(tr("No supported images found."));
}

void CropModel::publishOpening()
{
    std::optional<Opening> now;
    if (!m_opens.empty()) {
        now = Opening{};
        for (const auto& run : m_opens) {
            now->done += run->done;
            now->total += int(run->slots.size());
        }
    }
    if (now == m_opening)
        return;
    Q_EMIT willChange(Property::Opening);
    m_opening = now;
}

// ---- Selection and removal -------------------------------------------------

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
    m_unreadable.remove(id);
    setSaveConfirmation(std::nullopt);
    setErrorMessage(std::nullopt);

    if (m_items.empty()) {
        setActiveID(std::nullopt);
        Q_EMIT willChange(Property::ActiveContentRect);
        m_activeContentRect.reset();
        imagesInViewChanged();
        return;
    }
    if (!wasActive) {
        imagesInViewChanged();
        return;
    }
    const int newActive = std::min(p, int(m_items.size()) - 1);
    setActiveID(m_items[std::size_t(newActive)].id);
    recomputeActive();
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

void CropModel::recomputeActive()
{
    // The summary's index answers any tolerance without touching pixels.
    const Item* item = active();
    std::optional<PixelRect> rect = item ? item->summary->contentRect(m_threshold) : std::nullopt;
    Q_EMIT willChange(Property::ActiveContentRect);
    m_activeContentRect = rect;
    imagesInViewChanged();
}

// ---- Images in view --------------------------------------------------------

std::optional<QUuid> CropModel::nextUnsavedAfter(const QUuid& id) const
{
    const int i = indexOf(id);
    const int n = int(m_items.size());
    for (int k = 1; i >= 0 && k < n; ++k) {
        const Item& candidate = m_items[std::size_t((i + k) % n)];
        if (!candidate.saved)
            return candidate.id;
    }
    return std::nullopt;
}

void CropModel::imagesInViewChanged()
{
    evict();
    publishActivePreview();
    // The active image first; the next unsaved one is read ahead once the
    // active one is in, so that the advance after a save shows it sharp.
    if (const Item* item = active()) {
        const QUuid id = item->id;
        decodeIfNeeded(id);
        const auto cached = m_cache.find(id);
        const std::optional<QUuid> next = nextUnsavedAfter(id);
        // Only when it fits beside the active one: a decode that eviction
        // threw away at once would only be made again.
        if (cached != m_cache.end() && cached->second.decoded && next) {
            const Item& following = m_items[std::size_t(indexOf(*next))];
            if (cached->second.bytes() + decodeBytes(*following.summary) <= m_cacheBudget)
                decodeIfNeeded(*next);
        }
    }
}

void CropModel::decodeIfNeeded(const QUuid& id)
{
    const auto cached = m_cache.find(id);
    if ((cached != m_cache.end() && cached->second.decoded) || m_decoding.contains(id) || m_unreadable.contains(id))
        return;
    const int i = indexOf(id);
    if (i < 0)
        return;
    const Item& item = m_items[std::size_t(i)];
    if (!item.url.isLocalFile())
        return;
    m_decoding.insert(id);
    // The summary the decode starts from: a result that lands after the item
    // was read anew (a save over it) is older than what the item shows.
    const ImageFile::Summary* basis = item.summary.get();
    queueUrgent(decodeBytes(*item.summary), [source = m_source, mailbox = m_mailbox, id, basis,
                                               path = item.url.toLocalFile()] {
        std::optional<ImageFile::Decoded> decoded = source->decode(path);
        const bool missing = !decoded && !source->identify(path);
        auto shared = decoded ? std::make_shared<const ImageFile::Decoded>(std::move(*decoded)) : nullptr;
        mailbox->post([id, basis, shared, missing](CropModel* model) {
            model->decodeLanded(id, basis, shared, missing);
        });
    });
}

void CropModel::decodeLanded(const QUuid& id, const ImageFile::Summary* basis,
                             std::shared_ptr<const ImageFile::Decoded> decoded, bool missing)
{
    m_decoding.remove(id);
    const int i = indexOf(id);
    if (i < 0)
        return;
    if (m_items[std::size_t(i)].summary.get() != basis || hasFullImage(id)) {
        imagesInViewChanged();
        return;
    }
    const bool isActive = m_activeID && *m_activeID == id;
    const QString name = fileNameOf(m_items[std::size_t(i)].url);
    if (!decoded) {
        // Not tried again on its own: the user sees why and may remove it.
        m_unreadable.insert(id);
        if (isActive)
            setErrorMessage(missing ? goneMessage(name) : unreadableMessage(name));
        return;
    }
    const bool changed = !(decoded->summary.identity == m_items[std::size_t(i)].summary->identity);
    // A preview copy of the same file from its first reading stays: views
    // keep their scaled copies of it.
    Raster preview = decoded->preview;
    if (const auto found = m_cache.find(id); found != m_cache.end() && !changed && !found->second.preview.isNull())
        preview = found->second.preview;
    m_cache[id] = Cached{decoded, preview};
    if (changed) {
        replaceSummary(id, decoded->summary);
        if (isActive) {
            setErrorMessage(reloadedMessage(name));
            recomputeActive();
            return;
        }
    }
    imagesInViewChanged();
}

void CropModel::replaceSummary(const QUuid& id, const ImageFile::Summary& summary)
{
    const int i = indexOf(id);
    if (i < 0)
        return;
    Q_EMIT willChange(Property::Items);
    m_items[std::size_t(i)].summary = std::make_shared<const ImageFile::Summary>(summary);
}

void CropModel::evict()
{
    // Kept in this order while the budget lasts: the active item (always),
    // the next unsaved one, the one shown before.
    std::vector<QUuid> wanted;
    if (const Item* item = active()) {
        if (m_shownNow != item->id) {
            if (m_shownNow)
                m_lastShown = m_shownNow;
            m_shownNow = item->id;
        }
        wanted.push_back(item->id);
        if (const std::optional<QUuid> next = nextUnsavedAfter(item->id))
            wanted.push_back(*next);
    }
    if (m_lastShown && indexOf(*m_lastShown) >= 0)
        wanted.push_back(*m_lastShown);

    std::map<QUuid, Cached> kept;
    std::uint64_t used = 0;
    for (const QUuid& id : wanted) {
        const auto found = m_cache.find(id);
        if (found == m_cache.end() || kept.count(id))
            continue;
        const std::uint64_t bytes = found->second.bytes();
        if (!kept.empty() && used + bytes > m_cacheBudget)
            continue;
        used += bytes;
        kept.insert(*found);
    }
    m_cache = std::move(kept);
}

void CropModel::publishActivePreview()
{
    Raster now;
    if (m_activeID)
        if (const auto found = m_cache.find(*m_activeID); found != m_cache.end())
            now = found->second.preview;
    if (now.pixels == m_activePreview.pixels && now.width == m_activePreview.width)
        return;
    Q_EMIT willChange(Property::ActivePreview);
    m_activePreview = now;
}

// ---- Saving ----------------------------------------------------------------

void CropModel::saveAsNewFile()
{
    const Item* item = active();
    if (!item || !m_activeContentRect) {
        setErrorMessage(nothingToSaveMessage());
        return;
    }
    if (!m_panels || isSaving(item->id))
        return;

    // The panel is modal and runs an event loop: keep copies, not a pointer
    // into items, and look the item up again afterwards.
    const QUuid id = item->id;
    const ImageType type = item->type;
    const QString proposed = ImageFile::proposedName(fileNameOf(item->url), type);
    const std::optional<QUrl> destination = m_panels->chooseSaveDestination(proposed, type);
    if (!destination || destination->isEmpty())
        return;
    if (!destination->isLocalFile()) {
        setErrorMessage(writeFailedMessage(fileNameOf(*destination)));
        return;
    }
    if (!m_activeID || *m_activeID != id || !m_activeContentRect) {
        setErrorMessage(nothingToSaveMessage());
        return;
    }
    startSave(destination->toLocalFile(), false);
}

void CropModel::saveOverOriginal()
{
    const Item* item = active();
    if (!item || !m_activeContentRect) {
        setErrorMessage(nothingToSaveMessage());
        return;
    }
    if (isSaving(item->id))
        return;
    if (!item->url.isLocalFile()) {
        setErrorMessage(writeFailedMessage(fileNameOf(item->url)));
        return;
    }
    startSave(item->url.toLocalFile(), true);
}

void CropModel::startSave(const QString& destination, bool overOriginal)
{
    const Item& item = *active();
    const QUuid id = item.id;
    const auto cached = m_cache.find(id);
    std::shared_ptr<const ImageFile::Decoded> decoded = cached != m_cache.end() ? cached->second.decoded : nullptr;
    setSaving(id, true);

    // The rectangle the user saw came from this summary: the pixels written
    // must be those of the very same version of the file, checked just
    // before writing. A file that changed is read again instead.
    queueUrgent(decodeBytes(*item.summary) * 2,
                  [source = m_source, mailbox = m_mailbox, id, decoded, source_path = item.url.toLocalFile(),
                   seen = item.summary->identity, rect = *m_activeContentRect, type = item.type, destination,
                   overOriginal] {
        std::shared_ptr<const ImageFile::Decoded> image = decoded;
        if (!image)
            if (std::optional<ImageFile::Decoded> fresh = source->decode(source_path))
                image = std::make_shared<const ImageFile::Decoded>(std::move(*fresh));
        const std::optional<FileIdentity> now = source->identify(source_path);
        const QString name = QUrl::fromLocalFile(destination).fileName();
        auto landed = [mailbox, id, name](SaveOutcome outcome, std::shared_ptr<const ImageFile::Decoded> current) {
            mailbox->post([id, name, outcome, current](CropModel* model) {
                model->saveLanded(id, name, outcome, current);
            });
        };
        if (!now) {
            landed(SaveOutcome::Gone, nullptr);
            return;
        }
        if (image && image->summary.identity == seen && *now == seen) {
            const bool written = source->saveCropped(*image, rect, destination, type);
            image.reset();
            std::shared_ptr<const ImageFile::Decoded> current;
            if (written && overOriginal) {
                // Read back what was written: the item now shows the trimmed
                // image. A failed reload keeps the old image, silently.
                if (std::optional<ImageFile::Decoded> fresh = source->decode(source_path))
                    current = std::make_shared<const ImageFile::Decoded>(std::move(*fresh));
            }
            landed(written ? SaveOutcome::Written : SaveOutcome::WriteFailed, current);
            return;
        }
        if (image && !(image->summary.identity == seen)) {
            // Decoded here from a file that changed since the user saw it.
            landed(SaveOutcome::Stale, image);
            return;
        }
        if (!image) {
            landed(SaveOutcome::Unreadable, nullptr);
            return;
        }
        // The file changed after its image was read: read it as it is now.
        std::shared_ptr<const ImageFile::Decoded> current;
        if (std::optional<ImageFile::Decoded> fresh = source->decode(source_path))
            current = std::make_shared<const ImageFile::Decoded>(std::move(*fresh));
        landed(current ? SaveOutcome::Stale : SaveOutcome::Unreadable, current);
    });
}

void CropModel::saveLanded(const QUuid& id, const QString& name, SaveOutcome outcome,
                           std::shared_ptr<const ImageFile::Decoded> current)
{
    setSaving(id, false);
    const int index = indexOf(id);
    const QString itemName = index >= 0 ? fileNameOf(m_items[std::size_t(index)].url) : name;
    switch (outcome) {
    case SaveOutcome::Gone:
        setErrorMessage(goneMessage(itemName));
        return;
    case SaveOutcome::Unreadable:
        setErrorMessage(unreadableMessage(itemName));
        return;
    case SaveOutcome::WriteFailed:
        setErrorMessage(writeFailedMessage(name));
        return;
    case SaveOutcome::Stale:
        // Nothing was written: the item shows the file as it is now, and
        // the user saves again if the new rectangle suits.
        if (index >= 0 && current) {
            m_cache[id] = Cached{current, current->preview};
            m_unreadable.remove(id);
            replaceSummary(id, current->summary);
        }
        setErrorMessage(reloadedMessage(itemName));
        recomputeActive();
        return;
    case SaveOutcome::Written:
        break;
    }
    if (index >= 0) {
        if (current) {
            m_cache[id] = Cached{current, current->preview};
            replaceSummary(id, current->summary);
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

void CropModel::setSaving(const QUuid& id, bool saving)
{
    Q_EMIT willChange(Property::Saving);
    if (saving)
        m_saving.insert(id);
    else
        m_saving.remove(id);
}

void CropModel::resumeReading()
{
    for (const auto& run : m_opens)
        startReading(*run);
}

// ---- Helpers ---------------------------------------------------------------

int CropModel::indexOf(const QUuid& id) const
{
    for (std::size_t i = 0; i < m_items.size(); ++i) {
        if (m_items[i].id == id)
            return int(i);
    }
    return -1;
}

void CropModel::setErrorMessage(std::optional<QString> message, QList<FailedFile> failures)
{
    Q_EMIT willChange(Property::ErrorMessage);
    m_errorMessage = std::move(message);
    m_openFailures = std::move(failures);
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
