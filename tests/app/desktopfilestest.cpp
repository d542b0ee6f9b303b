// The desktop integration files as a distribution would install them: the
// launcher entry and the AppStream metadata pass their validators, the
// launcher lists exactly the accepted types, and every icon size exists.
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QSvgRenderer>
#include <QTemporaryDir>
#include <QTest>

#include "app/buildconfig.h"
#include "imagefile/imagefile.h"

using namespace orvane;

namespace {

const QString kAppId = QString::fromUtf8(BuildConfig::appId);

// Runs tool (skipping the test when it is missing) and returns its merged output; the exit code goes to code.
QString run(const QString& name, const QStringList& arguments, int* code)
{
    const QString tool = QStandardPaths::findExecutable(name);
    if (tool.isEmpty())
        return QStringLiteral("missing");
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(tool, arguments);
    *code = process.waitForFinished(60'000) && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2;
    return QString::fromUtf8(process.readAll());
}

QString desktopEntry(const QString& key)
{
    QFile file(QStringLiteral(ORVANE_DESKTOP_FILE));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return {};
    for (const QString& line : QString::fromUtf8(file.readAll()).split(u'\n')) {
        if (line.startsWith(key + u'='))
            return line.mid(key.size() + 1);
    }
    return {};
}

} // namespace

class DesktopFilesTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // Hints are allowed; errors and warnings are not.
    void validates_data()
    {
        QTest::addColumn<QString>("tool");
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("complaint"); // a pattern for an error or warning line
        QTest::newRow("launcher entry") << "desktop-file-validate" << QStringList{ORVANE_DESKTOP_FILE} << "(error|warning):";
        QTest::newRow("metainfo") << "appstreamcli" << QStringList{"validate", "--no-net", ORVANE_METAINFO_FILE}
                                  << "^[WE]:";
    }

    void validates()
    {
        QFETCH(QString, tool);
        QFETCH(QStringList, arguments);
        QFETCH(QString, complaint);
        int code = -1;
        const QString output = run(tool, arguments, &code);
        if (code == -1)
            QSKIP(qPrintable(tool + QStringLiteral(" is not installed")));
        QVERIFY2(code == 0, qPrintable(output));
        QVERIFY2(!output.contains(QRegularExpression(complaint, QRegularExpression::MultilineOption)), qPrintable(output));
    }

    void launcherListsExactlyTheAcceptedTypes()
    {
        QStringList accepted;
        for (const ImageType& type : ImageFile::acceptedTypes())
            accepted.append(type.mimeName());
        QCOMPARE(desktopEntry(QStringLiteral("MimeType")), accepted.join(u';') + u';');
        QCOMPARE(desktopEntry(QStringLiteral("Icon")), kAppId);
        QCOMPARE(desktopEntry(QStringLiteral("Name")), QStringLiteral("Orvane"));
    }

    // The validator does not know the build: the id, launcher and the one release must be this one's.
    void metainfoNamesTheApplication()
    {
        QFile file(QStringLiteral(ORVANE_METAINFO_FILE));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QString xml = QString::fromUtf8(file.readAll());
        QVERIFY(xml.contains(QStringLiteral("<id>%1</id>").arg(kAppId)));
        QVERIFY(xml.contains(QStringLiteral("<launchable type=\"desktop-id\">%1.desktop</launchable>").arg(kAppId)));
        QCOMPARE(xml.count(QStringLiteral("<release ")), 1);
        QVERIFY(xml.contains(QStringLiteral("<release version=\"%1\"").arg(QString::fromUtf8(BuildConfig::version))));
        QVERIFY(xml.contains(QStringLiteral("<screenshot ")));
    }

    // Installed where desktops look, with an icon drawn at every size: the
    // centre opaque, the corners of the rounded tile clear.
    void installedWhereDesktopsLook()
    {
        QTemporaryDir prefix;
        int code = -1;
        const QString output = run(QStringLiteral("cmake"), {QStringLiteral("--install"), QStringLiteral(ORVANE_BUILD_DIR),
                                   QStringLiteral("--prefix"), prefix.path(), QStringLiteral("--component"), QStringLiteral("desktop")}, &code);
        if (code == -1)
            QSKIP("cmake is not on the PATH");
        QVERIFY2(code == 0, qPrintable(output));
        QVERIFY(QFileInfo(prefix.filePath(QStringLiteral("share/applications/%1.desktop").arg(kAppId))).isFile());
        QVERIFY(QFileInfo(prefix.filePath(QStringLiteral("share/metainfo/%1.metainfo.xml").arg(kAppId))).isFile());
        QVERIFY(QSvgRenderer(prefix.filePath(QStringLiteral("share/icons/hicolor/scalable/apps/%1.svg").arg(kAppId))).isValid());
        for (const int size : {16, 24, 32, 48, 64, 128, 256, 512}) {
            const QImage icon(prefix.filePath(QStringLiteral("share/icons/hicolor/%1x%1/apps/%2.png").arg(size).arg(kAppId)));
            QCOMPARE(icon.size(), QSize(size, size));
            QCOMPARE(qAlpha(icon.pixel(size / 2, size / 2)), 255);
            QCOMPARE(qAlpha(icon.pixel(0, 0)), 0);
        }
    }
};

QTEST_MAIN(DesktopFilesTest)
#include "desktopfilestest.moc"
