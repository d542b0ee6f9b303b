// The observable state behind one window: the queue of opened images, the
// active image, its content rectangle, the tolerance and the message lines.
#pragma once

#include <optional>
#include <vector>

#include <QList>
#include <QObject>
#include <QString>
#include <QUrl>
#include <QUuid>

#include "engine/cropengine.h"
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

/// Told how far an open() has come; called on the model's thread (the thread
/// that called open()), while the files are decoded on other threads.
class OpenProgress {
public:
    virtual ~OpenProgress() = default;
    /// done of total files decoded (or found unusable) so far; total counts
    /// the files after folders were expanded. Called once with done 0 after
    /// the folders were listed and before any decoding, then as files finish
    /// and at least every 50 ms while one takes longer, and last with done ==
    /// total. Return false to cancel the open, which then changes nothing:
    /// files being decoded are finished and discarded, the others are not
    /// started.
    virtual bool report(int done, int total) = 0;
};

/// The window's model. Main thread only. Every assignment of a published
/// property is announced by willChange() just before the value is stored,
/// also when the value is equal; an in-place change of items is one assignment.
/// Views connect willChange() to a coalesced refresh and read the model afresh.
class CropModel : public QObject {
    Q_OBJECT

public:
    /// One queued image.
    struct Item {
        QUuid id;                  ///< fresh for every queued item, never changed
        QUrl url;                  ///< the file the image was read from
        ImageType type;            ///< from loading; decides the written format
        CropEngine::Buffer buffer; ///< the decoded image and its raster
        bool saved = false;        ///< written by either save command
    };

    /// The published properties, named in willChange().
    enum class Property { Items, ActiveID, ActiveContentRect, ErrorMessage, SaveConfirmation, Threshold };
    Q_ENUM(Property)

    /// panels may be null until the window sets them; the model does not own them.
    explicit CropModel(Panels* panels = nullptr, QObject* parent = nullptr);
    ~CropModel() override;

    void setPanels(Panels* panels);

    /// How many threads decode the files of one open(); 0, the default, means
    /// one per core. 1 decodes one file after the other (still off the
    /// caller's thread), which the benchmarks compare against.
    void setDecodeThreads(int count);
    int decodeThreads() const { return m_decodeThreads; }

    // Published properties.
    const std::vector<Item>& items() const { return m_items; }
    std::optional<QUuid> activeID() const { return m_activeID; }
    /// The active item's content rectangle for threshold(); absent with no
    /// active item or when nothing in it counts as content.
    std::optional<PixelRect> activeContentRect() const { return m_activeContentRect; }
    std::optional<QString> errorMessage() const { return m_errorMessage; }
    std::optional<QString> saveConfirmation() const { return m_saveConfirmation; }
    /// The trim tolerance, 0 to 100 by the slider; stored as given.
    double threshold() const { return m_threshold; }
    /// Stores the tolerance (no clamping, no comparison) and recomputes the
    /// active content rectangle.
    void setThreshold(double threshold);

    // Derived values, computed on every read.
    /// The first item whose id is activeID(); null when none. Points into
    /// items(): valid until items next change.
    const Item* active() const;
    /// 1-based position of the active item in items; absent when none.
    std::optional<int> activePosition() const;
    /// True when the active item's content rectangle differs in width or
    /// height from its buffer (there is a border to cut away).
    bool willTrim() const;
    /// False for an empty queue; else whether every item is saved.
    bool allSaved() const;
    /// Changes when another item becomes active or its buffer changes size:
    /// "<UPPER-CASE UUID>#<width>x<height>", "#0x0" with no active item.
    QString revealKey() const;

    // Operations.
    /// Opens files and folders (one level deep). Decodes on all cores while
    /// the calling thread waits; the model changes once, at the end. With
    /// progress (not owned; may be null), reports and may be cancelled, in
    /// which case nothing changes. An empty list changes nothing.
    void open(const QList<QUrl>& urls, OpenProgress* progress = nullptr);
    /// Asks the panels for image files and opens them; nothing when the user
    /// cancels or no panels are set. progress as for open().
    void openPanel(OpenProgress* progress = nullptr);
    /// Makes the item with this id active (an unknown id leaves none active).
    void select(const QUuid& id);
    /// Takes the item with this id out of the queue, freeing its buffer
    /// unless a copy is held elsewhere; its neighbour becomes active when it was.
    void remove(const QUuid& id);
    /// Writes the trimmed active image to a file the user names, marks the
    /// item saved and moves on to the next unsaved item.
    void saveAsNewFile();
    /// Writes the trimmed active image over its own file, reloads it, marks
    /// the item saved and moves on to the next unsaved item.
    void saveOverOriginal();

Q_SIGNALS:
    /// Sent immediately before a published property is assigned.
    void willChange(orvane::CropModel::Property property);

private:
    void recomputeActive();
    void advanceToNextUnsaved(const QUuid& after);
    std::optional<vips::VImage> croppedActiveImage() const;
    int indexOf(const QUuid& id) const;
    void setErrorMessage(std::optional<QString> message);
    void setSaveConfirmation(std::optional<QString> message);
    void setActiveID(std::optional<QUuid> id);
    void finishSave(const QUuid& id, const QString& writtenName);

    Panels* m_panels = nullptr;
    int m_decodeThreads = 0;
    std::vector<Item> m_items;
    std::optional<QUuid> m_activeID;
    std::optional<PixelRect> m_activeContentRect;
    std::optional<QString> m_errorMessage;
    std::optional<QString> m_saveConfirmation;
    double m_threshold = 25.0;
};

} // namespace orvane
