// What the model tests share: images made in code, a recorder of change
// notifications, panels that answer for the user, and a child process that
// runs one model operation as an unprivileged user.
#pragma once

#include <optional>

#include <QByteArray>
#include <QList>
#include <QRect>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <vips/vips8>

#include "model/cropmodel.h"
#include "support/queuewaits.h"

namespace orvane::test {

/// An opaque white RGB image of width × height with a black block at content
/// (the content rectangle at the default tolerance); an empty content makes it
/// all white.
vips::VImage whiteImageWithBlock(int width, int height, const QRect& content);
/// A fully transparent RGBA image.
vips::VImage transparentImage(int width, int height);
/// The image encoded as suffix (".png", ".jpg", ".tif", ".webp").
QByteArray encode(const vips::VImage& image, const char* suffix);
/// Writes bytes to path, replacing it; fails the calling test on error.
void writeBytes(const QString& path, const QByteArray& bytes);
/// Encodes by the path's own suffix (PNG when it has none we know) and writes.
void writeImage(const QString& path, const vips::VImage& image);
/// A small test image whose content rectangle tells it apart from the
/// images of other indexes: 40 × 30 with the block at
/// (index + 1, index + 2, 10 + index, 8 + index).
QRect blockFor(int index);
void writeLetterImage(const QString& path, int index);

/// A queue of letter images in folder ("ABC" → A.png, B.png, C.png), with the
/// letters in saved saved over their originals and active selected ("" none,
/// "?" an id that names no item).
void buildQueue(CropModel& model, const QString& folder, const QString& letters, const QString& saved,
                const QString& active);

/// Decodes the file at path directly with libvips.
vips::VImage readBack(const QString& path);

QList<QUrl> urls(const QStringList& paths);

/// The file names of the queued items, in queue order.
QStringList itemNames(const CropModel& model);
/// The file name of the active item, or "none".
QString activeName(const CropModel& model);
/// The id of the first item with this file name.
QUuid idOf(const CropModel& model, const QString& fileName);
QRect toQRect(const std::optional<PixelRect>& rect);

/// Records the property behind every willChange() in order: the six the
/// window's design names (the preview copy, saves in flight and the opens'
/// progress are left out).
class Notes {
public:
    explicit Notes(CropModel& model);
    /// The recorded properties by name, e.g. {"Items", "ActiveID"}.
    QStringList names() const;
    void clear() { m_seen.clear(); }

private:
    QList<CropModel::Property> m_seen;
};

/// Answers the model's panels as a test says, and records what it was asked.
class FakePanels : public Panels {
public:
    QList<QUrl> chooseImagesToOpen(const QList<ImageType>& types) override;
    std::optional<QUrl> chooseSaveDestination(const QString& proposedName, const ImageType& type) override;

    QList<QUrl> openAnswer;
    std::optional<QUrl> saveAnswer;
    int openCalls = 0;
    int saveCalls = 0;
    QList<ImageType> offeredTypes;
    QString proposedName;
    std::optional<ImageType> restrictedType;
};

/// Runs this test executable again with args and these environment variables
/// set; the child's main hands args to runChild(). The child's standard
/// output, or absent when it failed.
std::optional<QString> runSelf(const QStringList& args, const QStringList& environment);

/// Runs this test executable again as the user nobody (setpriv) with args;
/// the child's main hands them to runChild(). Absent when that cannot be done
/// here (not root, no setpriv); the child's standard output otherwise.
std::optional<QString> runAsNobody(const QStringList& args);

/// The child side: "--child-open <paths...>" opens the paths and prints the
/// queue's file names, then the error message; "--child-save-over <path>"
/// opens path, saves over it and prints the error message and "saved" or
/// "unsaved"; "--child-save-over-limited <path>" does the same with files
/// limited to 4 KiB (RLIMIT_FSIZE) once path is open. Returns the exit code, or -1 when args ask for no child.
int runChild(int argc, char** argv);

/// Sets up libvips and the image-file layer once per process, then does a
/// child's work when args ask for it. Returns the child's exit code, or -1
/// when the tests should run.
int prepare(int argc, char** argv);

} // namespace orvane::test

#define ORVANE_MODEL_TEST_MAIN(TestClass)                               \
    int main(int argc, char** argv)                                     \
    {                                                                   \
        QCoreApplication app(argc, argv);                               \
        if (const int child = orvane::test::prepare(argc, argv); child >= 0) \
            return child;                                               \
        TestClass tc;                                                   \
        return QTest::qExec(&tc, argc, argv);                           \
    }
