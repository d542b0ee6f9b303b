// The progress dialog of a long open: hidden for short opens, shown with the
// count after 0.3 s, and Cancel stops the open so that nothing changes.

#include <QApplication>
#include <QProgressDialog>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include "model/cropmodel.h"
#include "ui/contentview.h"
#include "ui/openprogressdialog.h"
#include "windowtestsupport.h"

using namespace orvane;

namespace {

QProgressDialog* visibleProgressDialog()
{
    for (QWidget* widget : QApplication::topLevelWidgets()) {
        if (auto* dialog = qobject_cast<QProgressDialog*>(widget); dialog && dialog->isVisible())
            return dialog;
    }
    return nullptr;
}

} // namespace

class OpenProgressDialogTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void shortOpensShowNothing()
    {
        QWidget window;
        window.show();
        qint64 now = 0;
        OpenProgressDialog progress(&window, [&] { return now; });
        for (int done = 0; done <= 10; ++done) {
            now = done * 29; // ends at 290 ms
            QVERIFY(progress.report(done, 10));
            QVERIFY(!progress.dialog());
        }
        // A last report after the delay but with everything done shows nothing either.
        now = 5000;
        QVERIFY(progress.report(10, 10));
        QVERIFY(!progress.dialog());
        QVERIFY(!visibleProgressDialog());
    }

    void longOpensShowCountAndCancel()
    {
        QWidget window;
        window.show();
        qint64 now = 0;
        {
            OpenProgressDialog progress(&window, [&] { return now; });
            QVERIFY(progress.report(0, 40));
            now = OpenProgressDialog::delay - 1;
            QVERIFY(progress.report(2, 40));
            QVERIFY(!progress.dialog());

            now = OpenProgressDialog::delay;
            QVERIFY(progress.report(3, 40));
            QProgressDialog* dialog = progress.dialog();
            QVERIFY(dialog);
            QVERIFY(dialog->isVisible());
            QVERIFY(dialog->isModal());
            QCOMPARE(dialog->labelText(), QStringLiteral("3 of 40"));
            QCOMPARE(dialog->value(), 3);
            QCOMPARE(dialog->maximum(), 40);

            now = 900;
            QVERIFY(progress.report(17, 40));
            QCOMPARE(progress.dialog()->labelText(), QStringLiteral("17 of 40"));
            QCOMPARE(progress.dialog()->value(), 17);

            auto* cancel = dialog->findChild<QPushButton*>();
            QVERIFY(cancel);
            QTest::mouseClick(cancel, Qt::LeftButton);
            QVERIFY(!progress.report(18, 40));
            // Stays cancelled: the open winds down without going on.
            QVERIFY(!progress.report(19, 40));
        }
        // Gone with the open it watched.
        QVERIFY(!visibleProgressDialog());
    }

    void cancellingARealOpenChangesNothing()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        QList<QUrl> urls;
        for (int i = 0; i < 6; ++i)
            urls << test::writeImage(QDir(dir.path()).filePath(QStringLiteral("cancel-%1.png").arg(i)), {300, 200},
                                     QRect(20, 20, 200, 100), QColor(120, 40, 160));
        CropModel model;
        QWidget window;
        window.show();
        // A clock that says the open has already run long: the dialog comes
        // with the first report, and the user cancels as soon as it shows.
        OpenProgressDialog progress(&window, [] { return qint64(10'000); });
        bool dialogSeen = false;
        QTimer clicker;
        clicker.setInterval(0);
        connect(&clicker, &QTimer::timeout, this, [&] {
            if (QProgressDialog* dialog = visibleProgressDialog()) {
                dialogSeen = true;
                dialog->cancel();
            }
        });
        clicker.start();
        model.open(urls, &progress);
        clicker.stop();
        QVERIFY(dialogSeen);
        QVERIFY(model.items().empty());
        QVERIFY(!model.activeID());
        QVERIFY(!model.errorMessage());
    }
};

int main(int argc, char* argv[])
{
    test::initialiseImaging(argv[0]);
    QApplication app(argc, argv);
    OpenProgressDialogTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "openprogressdialogtest.moc"
