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

/// Told how far an open() has come; called on the model's thread.
class OpenProgress {
public:
    virtual ~OpenProgress() = default;
    /// done of total files decoded so far. Return false to cancel the open,
    /// which then changes nothing.
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
    const Item* active() const;
    /// 1-based position of the active item in items.
    std::optional<int> activePosition() const;
    bool willTrim() const;
    bool allSaved() const;
    /// Changes when another item becomes active or its buffer changes size:
    /// "<UPPER-CASE UUID>#<width>x<height>", "#0x0" with no active item.
    QString revealKey() const;

    // Operations.
    /// Opens files and folders (one level deep). Decodes on all cores; the
    /// model changes once, at the end. With progress, reports and may be
    /// cancelled, in which case nothing changes.
    void open(const QList<QUrl>& urls, OpenProgress* progress = nullptr);
    /// Asks the panels for image files and opens them.
    void openPanel();
    void select(const QUuid& id);
    void remove(const QUuid& id);
    void saveAsNewFile();
    void saveOverOriginal();

Q_SIGNALS:
    /// Sent immediately before a published property is assigned.
    void willChange(orvane::CropModel::Property property);

private:
    void recomputeActive();
    void advanceToNextUnsaved(const QUuid& after);
    std::optional<vips::VImage> croppedActiveImage() const;

    Panels* m_panels = nullptr;
    std::vector<Item> m_items;
    std::optional<QUuid> m_activeID;
    std::optional<PixelRect> m_activeContentRect;
    std::optional<QString> m_errorMessage;
    std::optional<QString> m_saveConfirmation;
    double m_threshold = 25.0;
};

} // namespace orvane
