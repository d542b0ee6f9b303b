// Every file the load fuzzer found a fault with, opened again with the same
// checks (tests/data/regressions, named after the fault), plus the same
// shapes of image made here.
#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

#include <vips/vips8>

#include "fuzz/loadcheck.h"
#include "support/testfiles.h"
#include "testimages.h"

using namespace orvane;

class RegressionsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(VIPS_INIT("reliability_regressions") == 0);
        LoadCheck::prepare();
        QVERIFY(m_dir.isValid());
    }

    void foundFilesPassEveryCheck_data()
    {
        QTest::addColumn<QString>("path");
        const QDir folder(QStringLiteral(ORVANE_TEST_DATA_DIR "/regressions"));
        const QStringList names = folder.entryList(QDir::Files, QDir::Name);
        QVERIFY(!names.isEmpty());
        for (const QString& name : names)
            QTest::newRow(qPrintable(name)) << folder.filePath(name);
    }

    void foundFilesPassEveryCheck()
    {
        QFETCH(QString, path);
        const QString fault = LoadCheck::check(path, m_dir.filePath(QStringLiteral("saved")));
        QVERIFY2(fault.isEmpty(), qPrintable(fault));
    }

    void translucentRowsAfterOpaqueRowsArePremultiplied_data()
    {
        QTest::addColumn<QString>("suffix");
        QTest::addColumn<int>("opaqueRows");
        for (const char* suffix : {".png", ".tif", ".webp"}) {
            for (const int rows : {1, 3, 17}) {
                QTest::addRow("%s after %d rows", suffix, rows) << QString::fromLatin1(suffix) << rows;
            }
        }
    }

    void translucentRowsAfterOpaqueRowsArePremultiplied()
    {
        QFETCH(QString, suffix);
        QFETCH(int, opaqueRows);
        const vips::VImage rgb = TestImages::framedNoise(24, 20, 3);
        // Alpha 255 above the row, then falling to 40 towards the bottom.
        const vips::VImage y = vips::VImage::xyz(24, 20).extract_band(1);
        const vips::VImage alpha = (y < opaqueRows).ifthenelse(255, 255 - (y - opaqueRows + 1) * 10).cast(VIPS_FORMAT_UCHAR);
        const vips::VImage rgba = rgb.bandjoin(alpha);
        const QByteArray bytes = TestImages::encode(rgba, suffix.toLatin1().constData(),
            suffix == QLatin1String(".webp") ? vips::VImage::option()->set("lossless", true) : nullptr);
        const QString path = m_dir.filePath(QStringLiteral("rows") + suffix);
        QVERIFY(test::writeFile(path, bytes));
        const QString fault = LoadCheck::check(path, m_dir.filePath(QStringLiteral("saved") + suffix));
        QVERIFY2(fault.isEmpty(), qPrintable(fault));
    }

private:
    QTemporaryDir m_dir;
};

// The first fault: an RGBA image whose first rows are opaque shares its
// memory with the raster until a translucent row comes, and those rows were
// left unpremultiplied. Here for every writer that keeps alpha.
QTEST_GUILESS_MAIN(RegressionsTest)
#include "regressionstest.moc"
