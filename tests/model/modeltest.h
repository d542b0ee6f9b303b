// What the model tests share: images made in code, a fresh folder per test, a
// recorder of change notifications, panels that answer for the user, and a
// child process that opens files in another locale or as another user.
#pragma once

#include <cstdio>

#include <unistd.h>

#include <QFileInfo>
#include <QMetaEnum>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <vips/vips8>

#include "imagefile/imagefile.h"
#include "support/queuewaits.h"
#include "support/testfiles.h"

namespace orvane::test {

inline vips::VImage asSrgb(const vips::VImage& image)
{
    return image.cast(VIPS_FORMAT_UCHAR).copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
}

/// An opaque white RGB image of width × height with a black block at content
/// (the content rectangle at the default tolerance).
inline vips::VImage whiteImageWithBlock(int width, int height, const QRect& content)
{
    return asSrgb(vips::VImage::black(content.width(), content.height(), vips::VImage::option()->set("bands", 3))
                      .embed(content.x(), content.y(), width, height,
                             vips::VImage::option()->set("extend", VIPS_EXTEND_WHITE)));
}

/// A fully transparent RGBA image.
inline vips::VImage transparentImage(int width, int height)
{
    return asSrgb(vips::VImage::black(width, height, vips::VImage::option()->set("bands", 4)));
}

/// The image encoded as suffix (".png", ".jpg", ".tif", ".webp").
inline QByteArray encode(const vips::VImage& image, const char* suffix)
{
    void* data = nullptr;
    std::size_t size = 0;
    image.write_to_buffer(suffix, &data, &size);
    const QByteArray bytes(static_cast<const char*>(data), qsizetype(size));
    g_free(data);
    return bytes;
}

/// Writes bytes to path, replacing it; fails the calling test on error.
inline void writeBytes(const QString& path, const QByteArray& bytes)
{
    QVERIFY2(writeFile(path, bytes), qPrintable("cannot write test file " + path));
}

/// Encodes by the path's own suffix and writes.
inline void writeImage(const QString& path, const vips::VImage& image)
{
    writeBytes(path, encode(image, qPrintable("." + QFileInfo(path).suffix().toLower())));
}

/// The content rectangle that tells the letter image of index apart from the
/// others: a 40 × 30 image with the block at (index + 1, index + 2, 10 + index,
/// 8 + index).
inline QRect blockFor(int index) { return QRect(index + 1, index + 2, 10 + index, 8 + index); }
inline void writeLetterImage(const QString& path, int index) { writeImage(path, whiteImageWithBlock(40, 30, blockFor(index))); }

/// Decodes the file at path directly with libvips.
inline vips::VImage readBack(const QString& path) { return vips::VImage::new_from_file(QFile::encodeName(path)).copy_memory(); }

/// The URLs of these paths, relative to folder when one is given.
inline QList<QUrl> urls(const QStringList& paths, const QString& folder = {})
{
    QList<QUrl> result;
    for (const QString& path : paths)
        result.append(QUrl::fromLocalFile(folder.isEmpty() ? path : folder + QLatin1Char('/') + path));
    return result;
}

/// "A.png", "B.png", ... for the letters.
inline QStringList pngNames(const QString& letters)
{
    QStringList names;
    for (QChar letter : letters)
        names.append(letter + QStringLiteral(".png"));
    return names;
}
/// The file names of the queued items, in queue order.
inline QStringList itemNames(const CropModel& model)
{
    QStringList names;
    for (const CropModel::Item& item : model.items())
        names.append(item.url.fileName());
    return names;
}
/// The first letters of the queued items' names: "ABC" for A.png, B.png, C.png.
inline QString letters(const CropModel& model)
{
    QString result;
    for (const QString& name : itemNames(model))
        result += name.front();
    return result;
}
/// The file name of the active item; empty when none.
inline QString activeName(const CropModel& model) { return model.active() ? model.active()->url.fileName() : QString(); }
/// The id of the first item with this file name.
inline QUuid idOf(const CropModel& model, const QString& fileName)
{
    for (const CropModel::Item& item : model.items())
        if (item.url.fileName() == fileName)
            return item.id;
    return {};
}
inline QRect toQRect(const std::optional<PixelRect>& rect)
{
    return rect ? QRect(int(rect->x), int(rect->y), int(rect->width), int(rect->height)) : QRect();
}

/// A queue of letter images in folder ("ABC" → A.png, B.png, C.png), with the
/// letters in saved saved over their originals and active selected ("" none,
/// "?" an id that names no item).
inline void buildQueue(CropModel& model, const QString& folder, const QString& letters, const QString& saved,
                       const QString& active)
{
    const QStringList files = pngNames(letters);
    for (int i = 0; i < files.size(); ++i)
        writeLetterImage(folder + QLatin1Char('/') + files[i], i);
    openAll(model, urls(files, folder));
    for (QChar letter : saved) {
        model.select(idOf(model, letter + QStringLiteral(".png")));
        saveOver(model);
    }
    if (active == QLatin1String("?"))
        model.select(QUuid::createUuid());
    else if (!active.isEmpty())
        model.select(idOf(model, active + QStringLiteral(".png")));
}

/// One row of a queue table: the queue that buildQueue() makes (its letters,
/// the saved ones, the active one; "?" an unknown id), the letter acted on,
/// and the queue, active letter and notifications expected afterwards.
struct QueueCase {
    QString queue, saved, active, target, queueAfter, activeAfter;
    QStringList notes;
};

/// A fresh temporary folder for every test function: init() calls fresh().
class TempFolder {
protected:
    void fresh()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(m_dir->isValid());
    }
    QString path(const QString& name) const { return m_dir->filePath(name); }
    /// Makes the folder (and its parents) in the temporary one.
    QString folder(const QString& name) const
    {
        QDir(m_dir->path()).mkpath(name);
        return path(name);
    }
    /// The URLs of these names in the temporary folder.
    QList<QUrl> files(const QStringList& names) const { return urls(names, m_dir->path()); }
    /// Writes the i-th name as the letter image of index i (plain text when
    /// it ends in ".txt"); their URLs.
    QList<QUrl> letterImages(const QStringList& names) const
    {
        for (int i = 0; i < names.size(); ++i) {
            if (names[i].endsWith(QLatin1String(".txt")))
                writeBytes(path(names[i]), "plain text\n");
            else
                writeLetterImage(path(names[i]), i);
        }
        return files(names);
    }
    std::unique_ptr<QTemporaryDir> m_dir;
};

/// Records, in seen, the property behind every willChange() in order: the six
/// published ones (the preview copy, saves in flight and the opens' progress
/// are left out), by name, e.g. {"Items", "ActiveID"}.
struct Notes {
    explicit Notes(CropModel& model)
    {
        QObject::connect(&model, &CropModel::willChange, &model, [this](CropModel::Property property) {
            if (property <= CropModel::Property::Threshold)
                seen.append(QString::fromLatin1(QMetaEnum::fromType<CropModel::Property>().valueToKey(int(property))));
        });
    }
    QStringList seen;
};

/// Answers the model's panels as a test says, and records what it was asked
/// (nothing while it was not asked).
struct FakePanels : Panels {
    QList<QUrl> chooseImagesToOpen(const QList<ImageType>& types) override
    {
        offeredTypes = types;
        return openAnswer;
    }
    std::optional<QUrl> chooseSaveDestination(const QString& name, const ImageType& type) override
    {
        proposedName = name;
        restrictedType = type;
        return saveAnswer;
    }
    QList<QUrl> openAnswer;
    std::optional<QUrl> saveAnswer;
    QList<ImageType> offeredTypes;
    QString proposedName;
    std::optional<ImageType> restrictedType;
};

/// Runs this test executable again with args (handed to runChild()) and these
/// "NAME=value" environment settings, as the user nobody when asked; the
/// child's standard output. Absent when the child failed, or when it cannot
/// run as nobody here (not root, no setpriv).
inline std::optional<QString> runSelf(const QStringList& args, const QStringList& environment = {},
                                      bool asNobody = false)
{
    QStringList command = QStringList{"env"} << environment << QCoreApplication::applicationFilePath() << args;
    if (asNobody && (geteuid() != 0 || QStandardPaths::findExecutable(QStringLiteral("setpriv")).isEmpty()))
        return std::nullopt;
    if (asNobody)
        command = QStringList{"setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"} + command;
    QProcess child;
    const QString program = command.takeFirst();
    child.start(program, command);
    if (!child.waitForFinished(60000) || child.exitStatus() != QProcess::NormalExit || child.exitCode() != 0) {
        qWarning("child process failed: %s", child.readAllStandardError().constData());
        return std::nullopt;
    }
    return QString::fromUtf8(child.readAllStandardOutput());
}

/// The child side of "--child-open <paths...>": opens the paths and prints
/// the queue's file names, then the error message. Returns the exit code, or
/// -1 when args ask for no child.
inline int runChild(int argc, char** argv)
{
    if (argc < 3 || QByteArray(argv[1]) != "--child-open")
        return -1;
    QStringList paths;
    for (int i = 2; i < argc; ++i)
        paths.append(QFile::decodeName(argv[i]));
    CropModel model;
    openAll(model, urls(paths));
    std::printf("%s\n%s\n", qPrintable(itemNames(model).join(QLatin1Char(','))),
                model.errorMessage().value_or(QString()).toUtf8().constData());
    return 0;
}

/// Sets up libvips and the image-file layer once per process, then does a
/// child's work when args ask for it. Returns the child's exit code, or -1
/// when the tests should run.
inline int prepare(int argc, char** argv)
{
    if (VIPS_INIT(argv[0]) != 0) {
        std::fprintf(stderr, "libvips would not start\n");
        return 1;
    }
    ImageFile::initialise();
    return runChild(argc, argv);
}

} // namespace orvane::test

Q_DECLARE_METATYPE(orvane::test::QueueCase)

// The model tests are written in these terms.
using namespace orvane;
using namespace orvane::test;

#define ORVANE_MODEL_TEST_MAIN(TestClass)                                    \
    int main(int argc, char** argv)                                          \
    {                                                                        \
        QCoreApplication app(argc, argv);                                    \
        if (const int child = orvane::test::prepare(argc, argv); child >= 0) \
            return child;                                                    \
        TestClass tc;                                                        \
        return QTest::qExec(&tc, argc, argv);                                \
    }
