// The file dialogs' name filters: every accepted type findable by each of its
// extensions in either case, and HEIC and HEIF kept apart.

#include <QCoreApplication>
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
        QTest::addColumn<QString>("first");
        QTest::addColumn<QStringList>("contains");
        QTest::addColumn<QStringList>("excludes");
        QTest::newRow("png") << ImageType::png() << "*.png" << QStringList{"*.PNG"} << QStringList{"*.jpg"};
        QTest::newRow("jpeg") << ImageType::jpeg() << "*.jpeg" << QStringList{"*.JPEG", "*.jpg", "*.JPG", "*.jpe"}
                              << QStringList{"*.png"};
        QTest::newRow("tiff") << ImageType::tiff() << "*.tiff" << QStringList{"*.tif", "*.TIF"} << QStringList{};
        QTest::newRow("heic") << ImageType::heic() << "*.heic" << QStringList{"*.HEIC"} << QStringList{"*.heif"};
        QTest::newRow("heif") << ImageType::heif() << "*.heif" << QStringList{"*.HEIF"} << QStringList{"*.heic"};
        QTest::newRow("webp") << ImageType::webP() << "*.webp" << QStringList{"*.WEBP"} << QStringList{};
    }
    void patternsPerType()
    {
        QFETCH(ImageType, type);
        QFETCH(QString, first);
        QFETCH(QStringList, contains);
        QFETCH(QStringList, excludes);
        const QStringList patterns = FileDialogPanels::patterns(type);
        QVERIFY(!patterns.isEmpty());
        QCOMPARE(patterns.first(), first);
        for (const QString& pattern : contains)
            QVERIFY2(patterns.contains(pattern), qPrintable(pattern + QLatin1String(" in ") + patterns.join(' ')));
        for (const QString& pattern : excludes)
            QVERIFY2(!patterns.contains(pattern), qPrintable(pattern + QLatin1String(" in ") + patterns.join(' ')));
        QStringList unique = patterns;
        QCOMPARE(unique.removeDuplicates(), 0);
    }

    void openFiltersListAllTypesFirst()
    {
        const QList<ImageType>& types = ImageFile::acceptedTypes();
        const QStringList filters = FileDialogPanels::openFilters(types);
        QCOMPARE(filters.size(), types.size() + 1);
        QVERIFY(filters.first().startsWith(QLatin1String("Images (")));
        for (const ImageType& type : types) {
            for (const QString& pattern : FileDialogPanels::patterns(type))
                QVERIFY2(filters.first().contains(pattern), qPrintable(pattern));
        }
    }

    void saveFilterIsTheTypeAlone()
    {
        const QString filter = FileDialogPanels::saveFilter(ImageType::png());
        QVERIFY(filter.endsWith(QLatin1String("(*.png *.PNG)")));
        QVERIFY(!FileDialogPanels::saveFilter(ImageType::jpeg()).contains(QLatin1String("*.png")));
    }
};

int main(int argc, char* argv[])
{
    test::initialiseImaging(argv[0]);
    QCoreApplication app(argc, argv);
    FileDialogPanelsTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "filedialogpanelstest.moc"
