// The observable state behind one window: the queue of opened images, the
// active image, its content rectangle, the tolerance and the message lines.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include <QList>
#include <QObject>
#include <QSet>
#include <QString>
#include <QUrl>
#include <QUuid>

#include "imagefile/imagesource.h"
#include "imagefile/imagetype.h"

namespace orvane {

/// The modal panels the model asks the user through. The window gives the
/// QFileDialog implementation; tests answer for the user.
class Panels {
public:
    virtual ~Panels() = default;
    /// Lets the user pick image files of the given types (several, no folders).
    /// Empty when cancelled.
    virtual QList<QUrl> chooseImagesToOpen(const QList<ImageType>& types) = 0;
    /// Lets the user name a destination, proposing proposedName and
    /// restricting the choice to type. Absent when cancelled.
    virtual std::optional<QUrl> chooseSaveDestination(const QString& proposedName,
                                                      const ImageType& type) = 0;
};

class ImageSource;

/// The window's model. Main thread only. Every assignment of a published
/// property is announced by willChange() just before the value is stored,
/// also when the value is equal; an in-place change of items is one assignment.
/// Views connect willChange() to a coalesced refresh and read the model afresh.
///
/// The model never waits on a file: listing, indexing, decoding and writing
/// run as jobs of its ImageSource, and their results are taken in on the
/// main thread. A queued item keeps only its file's summary (size, type,
/// tolerance index, thumbnail); full images and preview copies are held for
/// the active item, the next unsaved one and the one shown last, within a
/// byte budget.
class CropModel : public QObject {
    Q_OBJECT

public:
    /// One queued image.
    struct Item {
        QUuid id;       ///< fresh for every queued item, never changed
        QUrl url;       ///< the file the image was read from
        ImageType type; ///< from loading; decides the written format
        /// What reading the file left behind; never null. Replaced when the
        /// file is read again (after a save over it, or when it changed).
        std::shared_ptr<const ImageFile::Summary> summary;
        bool saved = false; ///< written by either save command

        /// The image's size in pixels.
        std::int64_t width() const { return summary->width; }
        std::int64_t height() const { return summary->height; }
    };

    /// How far the running opens have come: done of total files read (or
    /// found unusable); total is 0 while folders are still being listed.
    struct Opening {
        int done = 0;
        int total = 0;
        friend bool operator==(const Opening&, const Opening&) = default;
    };

    /// A file an open could not take: its name and why, in one sentence.
    struct FailedFile {
        QString name;
        QString reason;
    };

    /// The published properties, named in willChange(). The last three are
    /// the window's own: the active preview copy, the saves being written
    /// and the opens' progress.
    enum class Property {
        Items, ActiveID, ActiveContentRect, ErrorMessage, SaveConfirmation, Threshold,
        ActivePreview, Saving, Opening
    };
    Q_ENUM(Property)

    /// panels may be null until the window sets them; the model does not own
    /// them. source null means the files themselves, on the shared pool.
    explicit CropModel(Panels* panels = nullptr, QObject* parent = nullptr,
                       std::shared_ptr<ImageSource> source = nullptr);
    ~CropModel() override;

    void setPanels(Panels* panels);

    /// The most bytes of full images and preview copies kept for the items
    /// in view (the active item is kept whatever its size).
    void setCacheBudget(std::uint64_t bytes) { m_cacheBudget = bytes; }
    /// Bytes of full images and preview copies held now.
    std::uint64_t cachedBytes() const;

    // Published properties.
    const std::vector<Item>& items() const { return m_items; }
    std::optional<QUuid> activeID() const { return m_activeID; }
    /// The active item's content rectangle for threshold(); absent with no
    /// active item or when nothing in it counts as content.
    std::optional<PixelRect> activeContentRect() const { return m_activeContentRect; }
    std::optional<QString> errorMessage() const { return m_errorMessage; }
    /// The files behind the skip message in errorMessage(), in queue order;
    /// empty whenever errorMessage() holds any other message.
    const QList<FailedFile>& openFailures() const { return m_openFailures; }
    std::optional<QString> saveConfirmation() const { return m_saveConfirmation; }
    /// The trim tolerance, 0 to 100 by the slider; stored as given.
    double threshold() const { return m_threshold; }
    /// Stores the tolerance (no clamping, no comparison) and recomputes the
    /// active content rectangle.
    void setThreshold(double threshold);
    /// The active item's preview copy (long side at most
    /// ImageFile::previewSide); null until it has been read, when views draw
    /// the item's thumbnail instead.
    Raster activePreview() const { return m_activePreview; }
    /// Whether the item's image is being written; its saves wait meanwhile.
    bool isSaving(const QUuid& id) const { return m_saving.contains(id); }
    /// Whether the item's full image is in memory, so that a save of it
    /// starts writing at once and shows the pixels the user saw.
    bool hasFullImage(const QUuid& id) const;
    /// Absent unless an open runs.
    std::optional<Opening> opening() const { return m_opening; }

    // Derived values, computed on every read.
    /// The first item whose id is activeID(); null when none. Points into
    /// items(): valid until items next change.
    const Item* active() const;
    /// 1-based position of the active item in items; absent when none.
    std::optional<int> activePosition() const;
    /// True when the active item's content rectangle differs in width or
    /// height from its image (there is a border to cut away).
    bool willTrim() const;
    /// False for an empty queue; else whether every item is saved.
    bool allSaved() const;
    /// Changes when another item becomes active or its image changes size:
    /// "<UPPER-CASE UUID>#<width>x<height>", "#0x0" with no active item.
    QString revealKey() const;

    // Operations.
    /// Opens files and folders (one level deep) and returns at once. The
    /// new items join the queue in the order of the expanded list, each as
    /// soon as it and every file before it have been read; the first joins
    /// by the rules of one whole open, the skip message is set when the last
    /// file is done. An open started while another runs joins after it. An
    /// empty list changes nothing.
    void open(const QList<QUrl>& urls);
    /// Asks the panels for image files and opens them; nothing when the user
    /// cancels or no panels are set.
    void openPanel();
    /// Stops every running open: files not started are dropped, items that
    /// joined stay, and the files found unusable so far are reported.
    void cancelOpen();
    /// Makes the item with this id active (an unknown id leaves none active).
    void select(const QUuid& id);
    /// Takes the item with this id out of the queue and lets go of its
    /// images; its neighbour becomes active when it was.
    void remove(const QUuid& id);
    /// Writes the trimmed active image to a file the user names, then marks
    /// the item saved and moves on to the next unsaved item. The write runs
    /// on a worker; isSaving() holds meanwhile. A file that changed on disk
    /// since it was read is read again instead, and nothing is written.
    void saveAsNewFile();
    /// As saveAsNewFile(), over the item's own file, which is then read again.
    void saveOverOriginal();

Q_SIGNALS:
    /// Sent immediately before a published property is assigned.
    void willChange(orvane::CropModel::Property property);

private:
    struct OpenRun;
    struct Mailbox;
    struct Cached {
        std::shared_ptr<const ImageFile::Decoded> decoded; ///< null while only the preview is known
        Raster preview;
        std::uint64_t bytes() const;
    };

    void recomputeActive();
    void advanceToNextUnsaved(const QUuid& after);
    int indexOf(const QUuid& id) const;
    void setErrorMessage(std::optional<QString> message, QList<FailedFile> failures = {});
    void setSaveConfirmation(std::optional<QString> message);
    void setActiveID(std::optional<QUuid> id);
    void finishSave(const QUuid& id, const QString& writtenName);

    // Opening.
    void listed(std::uint64_t serial, const QList<QUrl>& expanded);
    void fileRead(std::uint64_t serial, int slot, std::optional<ImageFile::Indexed> indexed,
                  std::optional<ImageFile::Failure> failure);
    bool readingPaused() const;
    void queueUrgent(std::uint64_t bytes, std::function<void()> job);
    void startReading(OpenRun& run);
    void resumeReading();
    void joinReady();
    void join(OpenRun& run, std::vector<Item> newItems);
    void finishOpen(OpenRun& run, bool cancelled);
    void publishOpening();
    OpenRun* findRun(std::uint64_t serial);

    // Images in view.
    void imagesInViewChanged();
    void decodeIfNeeded(const QUuid& id);
    void decodeLanded(const QUuid& id, const ImageFile::Summary* basis,
                      std::shared_ptr<const ImageFile::Decoded> decoded, bool missing);
    void replaceSummary(const QUuid& id, const ImageFile::Summary& summary);
    void evict();
    void publishActivePreview();
    std::optional<QUuid> nextUnsavedAfter(const QUuid& id) const;

    // Saving.
    void startSave(const QString& destination, bool overOriginal);
    enum class SaveOutcome { Written, WriteFailed, Stale, Gone, Unreadable };
    void saveLanded(const QUuid& id, const QString& name, SaveOutcome outcome,
                    std::shared_ptr<const ImageFile::Decoded> current);
    void setSaving(const QUuid& id, bool saving);

    Panels* m_panels = nullptr;
    std::shared_ptr<ImageSource> m_source;
    std::shared_ptr<Mailbox> m_mailbox;
    std::vector<Item> m_items;
    std::optional<QUuid> m_activeID;
    std::optional<PixelRect> m_activeContentRect;
    std::optional<QString> m_errorMessage;
    QList<FailedFile> m_openFailures;
    std::optional<QString> m_saveConfirmation;
    double m_threshold = 25.0;
    Raster m_activePreview;
    QSet<QUuid> m_saving;
    std::optional<Opening> m_opening;

    std::deque<std::unique_ptr<OpenRun>> m_opens; // in the order they were asked for
    std::uint64_t m_nextSerial = 1;
    int m_reading = 0;        // index jobs handed to the source and not yet back
    int m_waitingToStart = 0; // decodes and saves queued and not yet started

    std::map<QUuid, Cached> m_cache;
    QSet<QUuid> m_decoding;
    QSet<QUuid> m_unreadable; // decodes that failed, not tried again until the file is read anew
    std::optional<QUuid> m_shownNow;  // the active item as the cache last saw it
    std::optional<QUuid> m_lastShown; // the one active before it
    std::uint64_t m_cacheBudget = std::uint64_t(768) << 20;
};

} // namespace orvane
