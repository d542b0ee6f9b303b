#include "modeltest.h"

#include <cstring>
#include <cstdio>

#include <csignal>

#include <sys/resource.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QMetaEnum>
#include <QProcess>
#include <QStandardPaths>
#include <QTest>

#include "imagefile/imagefile.h"

namespace orvane::test {

vips::VImage whiteImageWithBlock(int width, int height, const QRect& content)
{
    vips::VImage white = (vips::VImage::black(width, height, vips::VImage::option()->set("bands", 3)) + 255)
                             .cast(VIPS_FORMAT_UCHAR);
    if (content.isEmpty())
        return white.copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
    vips::VImage block = vips::VImage::black(content.width(), content.height(), vips::VImage::option()->set("bands", 3));
    return block
        .embed(content.x(), content.y(), width, height, vips::VImage::option()->set("extend", VIPS_EXTEND_WHITE))
        .cast(VIPS_FORMAT_UCHAR)
        .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
}

vips::VImage transparentImage(int width, int height)
{
    return vips::VImage::black(width, height, vips::VImage::option()->set("bands", 4))
        .cast(VIPS_FORMAT_UCHAR)
        .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
}

QByteArray encode(const vips::VImage& image, const char* suffix)
{
    void* data = nullptr;
    std::size_t size = 0;
    image.write_to_buffer(suffix, &data, &size);
    QByteArray bytes(static_cast<const char*>(data), qsizetype(size));
    g_free(data);
    return bytes;
}

void writeBytes(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(bytes) != bytes.size())
        QFAIL(qPrintable(QStringLiteral("cannot write test file %1").arg(path)));
}

void writeImage(const QString& path, const vips::VImage& image)
{
    const QString suffix = QFileInfo(path).suffix().toLower();
    const char* format = ".png";
    if (suffix == QLatin1String("jpg") || suffix == QLatin1String("jpeg"))
        format = ".jpg";
    else if (suffix == QLatin1String("tif") || suffix == QLatin1String("tiff"))
        format = ".tif";
    else if (suffix == QLatin1String("webp"))
        format = ".webp";
    writeBytes(path, encode(image, format));
}

QRect blockFor(int index)
{
    return QRect(index + 1, index + 2, 10 + index, 8 + index);
}

void writeLetterImage(const QString& path, int index)
{
    writeImage(path, whiteImageWithBlock(40, 30, blockFor(index)));
}

void buildQueue(CropModel& model, const QString& folder, const QString& letters, const QString& saved,
                const QString& active)
{
    QStringList files;
    for (int i = 0; i < letters.size(); ++i) {
        files.append(folder + QLatin1Char('/') + letters[i] + QStringLiteral(".png"));
        writeLetterImage(files.last(), i);
    }
    openAll(model, urls(files));
    for (QChar letter : saved) {
        model.select(idOf(model, letter + QStringLiteral(".png")));
        saveOver(model);
    }
    if (active == QLatin1String("?"))
        model.select(QUuid::createUuid());
    else if (!active.isEmpty())
        model.select(idOf(model, active + QStringLiteral(".png")));
}

vips::VImage readBack(const QString& path)
{
    return vips::VImage::new_from_file(QFile::encodeName(path).constData()).copy_memory();
}

QList<QUrl> urls(const QStringList& paths)
{
    QList<QUrl> result;
    for (const QString& path : paths)
        result.append(QUrl::fromLocalFile(path));
    return result;
}

QStringList itemNames(const CropModel& model)
{
    QStringList names;
    for (const CropModel::Item& item : model.items())
        names.append(item.url.fileName());
    return names;
}

QString activeName(const CropModel& model)
{
    const CropModel::Item* item = model.active();
    return item ? item->url.fileName() : QStringLiteral("none");
}

QUuid idOf(const CropModel& model, const QString& fileName)
{
    for (const CropModel::Item& item : model.items()) {
        if (item.url.fileName() == fileName)
            return item.id;
    }
    return {};
}

QRect toQRect(const std::optional<PixelRect>& rect)
{
    if (!rect)
        return {};
    return QRect(int(rect->x), int(rect->y), int(rect->width), int(rect->height));
}

Notes::Notes(CropModel& model)
{
    QObject::connect(&model, &CropModel::willChange, &model, [this](CropModel::Property property) {
        if (property != CropModel::Property::ActivePreview && property != CropModel::Property::Saving
            && property != CropModel::Property::Opening)
            m_seen.append(property);
    });
}

QStringList Notes::names() const
{
    const QMetaEnum meta = QMetaEnum::fromType<CropModel::Property>();
    QStringList result;
    for (CropModel::Property property : m_seen)
        result.append(QString::fromLatin1(meta.valueToKey(int(property))));
    return result;
}

QList<QUrl> FakePanels::chooseImagesToOpen(const QList<ImageType>& types)
{
    ++openCalls;
    offeredTypes = types;
    return openAnswer;
}

std::optional<QUrl> FakePanels::chooseSaveDestination(const QString& name, const ImageType& type)
{
    ++saveCalls;
    proposedName = name;
    restrictedType = type;
    return saveAnswer;
}

namespace {

std::optional<QString> runProcess(const QString& program, const QStringList& args, const QStringList& environment)
{
    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const QString& setting : environment)
        env.insert(setting.section(QLatin1Char('='), 0, 0), setting.section(QLatin1Char('='), 1));
    child.setProcessEnvironment(env);
    child.start(program, args);
    if (!child.waitForFinished(60000) || child.exitStatus() != QProcess::NormalExit || child.exitCode() != 0) {
        qWarning("child process failed: %s", child.readAllStandardError().constData());
        return std::nullopt;
    }
    return QString::fromUtf8(child.readAllStandardOutput());
}

} // namespace

std::optional<QString> runSelf(const QStringList& args, const QStringList& environment)
{
    return runProcess(QCoreApplication::applicationFilePath(), args, environment);
}

std::optional<QString> runAsNobody(const QStringList& args)
{
    const QString setpriv = QStandardPaths::findExecutable(QStringLiteral("setpriv"));
    if (geteuid() != 0 || setpriv.isEmpty())
        return std::nullopt;
    QStringList all{QStringLiteral("--reuid=nobody"), QStringLiteral("--regid=nogroup"),
                    QStringLiteral("--clear-groups"), QCoreApplication::applicationFilePath()};
    all += args;
    return runProcess(setpriv, all, {});
}

int runChild(int argc, char** argv)
{
    if (argc < 3)
        return -1;
    const QByteArray mode = argv[1];
    QStringList paths;
    for (int i = 2; i < argc; ++i)
        paths.append(QFile::decodeName(argv[i]));

    CropModel model;
    if (mode == "--child-open") {
        openAll(model, urls(paths));
        std::printf("%s\n%s\n", qPrintable(itemNames(model).join(QLatin1Char(','))),
                    model.errorMessage().value_or(QString()).toUtf8().constData());
        return 0;
    }
    if (mode == "--child-save-over" || mode == "--child-save-over-limited") {
        openAll(model, urls(paths));
        if (mode == "--child-save-over-limited") {
            // No file may grow beyond 4 KiB from here on: the write fails with
            // EFBIG instead of killing the process with SIGXFSZ.
            std::signal(SIGXFSZ, SIG_IGN);
            const struct rlimit limit{4096, 4096};
            if (::setrlimit(RLIMIT_FSIZE, &limit) != 0)
                return 2;
        }
        saveOver(model);
        const bool saved = !model.items().empty() && model.items().front().saved;
        std::printf("%s\n%s\n", model.errorMessage().value_or(QString()).toUtf8().constData(),
                    saved ? "saved" : "unsaved");
        return 0;
    }
    return -1;
}

int prepare(int argc, char** argv)
{
    if (VIPS_INIT(argv[0]) != 0) {
        std::fprintf(stderr, "libvips would not start\n");
        return 1;
    }
    ImageFile::initialise();
    return runChild(argc, argv);
}

} // namespace orvane::test
