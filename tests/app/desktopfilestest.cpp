// The desktop integration files as a distribution would install them: the
// launcher entry and the AppStream metadata pass their validators, the
// launcher lists exactly the accepted types, and every icon size exists.
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QProcess>
#include <QSettings>
#include <QStandardPaths>
#include <QSvgRenderer>
#include <QTemporaryDir>
#include <QTest>
#include <QXmlStreamReader>

#include "app/buildconfig.h"
#include "imagefile/imagefile.h"

using namespace orvane;

namespace {

// Runs a validator; returns its exit code, or -1 (with a skip) when missing.
int validate(const QString& tool, const QStringList& arguments, QString* output)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(tool, arguments);
    if (!process.waitForFinished(60'000))
        return -2;
    *output = QString::fromUtf8(process.readAll());
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2;
}

QString desktopEntry(const QString& key)
{
    QFile file(QStringLiteral(ORVANE_DESKTOP_FILE));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return {};
    const QStringList lines = QString::fromUtf8(file.readAll()).split(u'\n');
    for (const QString& line : lines) {
        if (line.startsWith(key + u'='))
            return line.mid(key.size() + 1);
    }
    return {};
}

} // namespace

class DesktopFilesTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void desktopEntryValidates()
    {
        const QString tool = QStandardPaths::findExecutable(QStringLiteral("desktop-file-validate"));
        if (tool.isEmpty())
            QSKIP("desktop-file-validate is not installed (package desktop-file-utils)");
        QString output;
        const int code = validate(tool, {QStringLiteral(ORVANE_DESKTOP_FILE)}, &output);
        QVERIFY2(code == 0, qPrintable(output));
        // Hints are allowed; errors and warnings are not.
        QVERIFY2(!output.contains(QStringLiteral("error:")) && !output.contains(QStringLiteral("warning:")),
                 qPrintable(output));
    }

    void metainfoValidates()
    {
        const QString tool = QStandardPaths::findExecutable(QStringLiteral("appstreamcli"));
        if (tool.isEmpty())
            QSKIP("appstreamcli is not installed (package appstream)");
        QString output;
        const int code = validate(tool, {QStringLiteral("validate"), QStringLiteral("--no-net"),
                                         QStringLiteral(ORVANE_METAINFO_FILE)},
                                  &output);
        QVERIFY2(code == 0, qPrintable(output));
        QVERIFY2(!output.contains(QStringLiteral("\nW:")) && !output.contains(QStringLiteral("\nE:"))
                     && !output.startsWith(QStringLiteral("W:")) && !output.startsWith(QStringLiteral("E:")),
                 qPrintable(output));
    }

    void launcherListsExactlyTheAcceptedTypes()
    {
        QStringList accepted;
        for (const ImageType& type : ImageFile::acceptedTypes())
            accepted.append(type.mimeName());
        const QString mimeTypes = desktopEntry(QStringLiteral("MimeType"));
        QVERIFY(mimeTypes.endsWith(u';'));
        QCOMPARE(mimeTypes.chopped(1).split(u';'), accepted);
        QCOMPARE(desktopEntry(QStringLiteral("Icon")), QString::fromUtf8(BuildConfig::appId));
        QCOMPARE(desktopEntry(QStringLiteral("Name")), QStringLiteral("Orvane"));
    }

    void metainfoNamesTheApplication()
    {
        QFile file(QStringLiteral(ORVANE_METAINFO_FILE));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QXmlStreamReader xml(&file);
        QHash<QString, QString> values;
        int screenshots = 0;
        int releases = 0;
        while (!xml.atEnd()) {
            if (xml.readNext() != QXmlStreamReader::StartElement)
                continue;
            const QString name = xml.name().toString();
            if (name == QLatin1String("screenshot"))
                ++screenshots;
            else if (name == QLatin1String("release")) {
                ++releases;
                values.insert(name, xml.attributes().value(QLatin1String("version")).toString());
            } else if (name == QLatin1String("launchable") || name == QLatin1String("id")) {
                values.insert(name, xml.readElementText());
            }
        }
        QVERIFY2(!xml.hasError(), qPrintable(xml.errorString()));
        QCOMPARE(values.value(QStringLiteral("id")), QString::fromUtf8(BuildConfig::appId));
        QCOMPARE(values.value(QStringLiteral("launchable")), QString::fromUtf8(BuildConfig::appId) + QStringLiteral(".desktop"));
        QCOMPARE(values.value(QStringLiteral("release")), QString::fromUtf8(BuildConfig::version));
        QVERIFY(screenshots >= 1);
        QCOMPARE(releases, 1);
    }

    void installedWhereDesktopsLook()
    {
        const QString cmake = QStandardPaths::findExecutable(QStringLiteral("cmake"));
        if (cmake.isEmpty())
            QSKIP("cmake is not on the PATH");
        QTemporaryDir prefix;
        QVERIFY(prefix.isValid());
        QString output;
        const int code = validate(cmake, {QStringLiteral("--install"), QStringLiteral(ORVANE_BUILD_DIR),
                                          QStringLiteral("--prefix"), prefix.path(),
                                          QStringLiteral("--component"), QStringLiteral("desktop")},
                                  &output);
        QVERIFY2(code == 0, qPrintable(output));
        const QString id = QString::fromUtf8(BuildConfig::appId);
        QStringList expected{QStringLiteral("share/applications/%1.desktop").arg(id),
                             QStringLiteral("share/metainfo/%1.metainfo.xml").arg(id),
                             QStringLiteral("share/icons/hicolor/scalable/apps/%1.svg").arg(id)};
        for (const int size : {16, 24, 32, 48, 64, 128, 256, 512})
            expected.append(QStringLiteral("share/icons/hicolor/%1x%1/apps/%2.png").arg(size).arg(id));
        for (const QString& path : std::as_const(expected))
            QVERIFY2(QFileInfo(prefix.filePath(path)).isFile(), qPrintable(path));
    }

    void iconsAtEverySize()
    {
        QSvgRenderer svg(QStringLiteral(ORVANE_ICON_SVG));
        QVERIFY(svg.isValid());
        QCOMPARE(svg.defaultSize(), QSize(256, 256));
        for (const int size : {16, 24, 32, 48, 64, 128, 256, 512}) {
            const QString path = QStringLiteral(ORVANE_ICON_DIR "/%1x%1/" ORVANE_APP_ID ".png").arg(size);
            const QImage image(path);
            QVERIFY2(!image.isNull(), qPrintable(path));
            QCOMPARE(image.size(), QSize(size, size));
            QVERIFY(image.hasAlphaChannel());
            // Drawn, not blank: the centre is opaque, the corners of the rounded tile clear.
            QCOMPARE(qAlpha(image.pixel(size / 2, size / 2)), 255);
            QCOMPARE(qAlpha(image.pixel(0, 0)), 0);
        }
    }
};

QTEST_MAIN(DesktopFilesTest)
#include "desktopfilestest.moc"
