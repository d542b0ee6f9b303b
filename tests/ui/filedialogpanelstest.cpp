// The file dialogs' name filters: every accepted type findable by each of its
// extensions in either case, and HEIC and HEIF kept apart.

#include <QTest>

#include "imagefile/imagefile.h"
#include "ui/window/filedialogpanels.h"
#include "windowtestsupport.h"

using namespace orvane;

class FileDialogPanelsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void patternsPerType_data()
    {
        QTest::addColumn<ImageType>("type");
        QTest::addColumn<QStringList>("contains"); // the first one first
        QTest::addColumn<QStringList>("excludes");
        QTest::newRow("png") << ImageType::png() << QStringList{"*.png", "*.PNG"} << QStringList{"*.jpg"};
        QTest::newRow("jpeg") << ImageType::jpeg() << QStringList{"*.jpeg", "*.JPEG", "*.jpg", "*.JPG", "*.jpe"}
                              << QStringList{"*.png"};
        QTest::newRow("tiff") << ImageType::tiff() << QStringList{"*.tiff", "*.tif", "*.TIF"} << QStringList{};
        QTest::newRow("heic") << ImageType::heic() << QStringList{"*.heic", "*.HEIC"} << QStringList{"*.heif"};
        QTest::newRow("heif") << ImageType::heif() << QStringList{"*.heif", "*.HEIF"} << QStringList{"*.heic"};
        QTest::newRow("webp") << ImageType::webP() << QStringList{"*.webp", "*.WEBP"} << QStringList{};
    }
    void patternsPerType()
    {
        QFETCH(ImageType, type);
        QFETCH(QStringList, contains);
        QFETCH(QStringList, excludes);
        QStringList patterns = FileDialogPanels::patterns(type);
        const QString all = patterns.join(' ');
        QVERIFY2(patterns.value(0) == contains.first(), qPrintable(all));
        for (const QString& pattern : contains)
            QVERIFY2(patterns.contains(pattern), qPrintable(pattern + " in " + all));
        for (const QString& pattern : excludes)
            QVERIFY2(!patterns.contains(pattern), qPrintable(pattern + " in " + all));
        QCOMPARE(patterns.removeDuplicates(), 0);
    }

    void openAndSaveFilters()
    {
        // "Images (…)" with every pattern of every type first, then one filter per type.
        const QList<ImageType>& types = ImageFile::acceptedTypes();
        const QStringList filters = FileDialogPanels::openFilters(types);
        QCOMPARE(filters.size(), types.size() + 1);
        QVERIFY(filters.first().startsWith(QLatin1String("Images (")));
        for (const ImageType& type : types)
            for (const QString& pattern : FileDialogPanels::patterns(type))
                QVERIFY2(filters.first().contains(pattern), qPrintable(pattern));
        // Saving offers the type alone.
        QVERIFY(FileDialogPanels::saveFilter(ImageType::png()).endsWith(QLatin1String("(*.png *.PNG)")));
        QVERIFY(!FileDialogPanels::saveFilter(ImageType::jpeg()).contains(QLatin1String("*.png")));
    }
};

ORVANE_UI_TEST_MAIN(FileDialogPanelsTest)
#include "filedialogpanelstest.moc"
