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

    // Every file the fuzzer found, and the shape of the first fault made here
    // for every writer that keeps alpha: an RGBA image whose first rows are
    // opaque shares its memory with the raster until a translucent row comes,
    // and those rows were left unpremultiplied.
    void filesPassEveryCheck_data()
    {
        QTest::addColumn<QString>("path");
        const QDir folder(QStringLiteral(ORVANE_TEST_DATA_DIR "/regressions"));
        const QStringList names = folder.entryList(QDir::Files, QDir::Name);
        QVERIFY(!names.isEmpty());
        for (const QString& name : names)
            QTest::newRow(qPrintable(name)) << folder.filePath(name);
        const vips::VImage y = vips::VImage::xyz(24, 20).extract_band(1);
        for (const char* suffix : {".png", ".tif", ".webp[lossless]"})
            for (const int rows : {1, 3, 17}) {
                // Alpha 255 above the row, then falling to 40 towards the bottom.
                const vips::VImage alpha = (y < rows).ifthenelse(255, 255 - (y - rows + 1) * 10).cast(VIPS_FORMAT_UCHAR);
                const QString path = m_dir.filePath(QStringLiteral("rows%1").arg(rows) + QString::fromLatin1(suffix).section('[', 0, 0));
                QVERIFY(test::writeFile(path, TestImages::encode(TestImages::framedNoise(24, 20, 3).bandjoin(alpha), suffix)));
                QTest::addRow("%s after %d rows", suffix, rows) << path;
            }
    }

    void filesPassEveryCheck()
    {
        QFETCH(QString, path);
        const QString fault = LoadCheck::check(path, m_dir.filePath(QStringLiteral("saved")));
        QVERIFY2(fault.isEmpty(), qPrintable(fault));
    }

private:
    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(RegressionsTest)
#include "regressionstest.moc"
