// Renders the real main window in named states and saves each as a PNG, so
// that a person can look at the window without running it by hand.
//
//   orvane-screenshots [folder [state…]]   (default: ./screenshots, every state)

#include <functional>

#include <QApplication>
#include <QDir>
#include <QDragEnterEvent>
#include <QMimeData>
#include <QPainter>
#include <QTemporaryDir>
#include <QTest>

#include "app/mainwindow.h"
#include "model/cropmodel.h"
#include "ui/window/contentview.h"
#include "windowtestsupport.h"

using namespace orvane;

namespace {

// Long enough for every slide, fade and spring of the window to settle.
constexpr int settleMs = 900;

struct Images {
    QUrl poster;  // 1200×800 with a 1000×640 artwork on transparency
    QUrl badge;   // 800×800 artwork on white
    QUrl sticker; // 900×600 artwork on transparency
    QUrl notes;   // not an image
};

Images makeImages(const QDir& dir)
{
    Images images;
    images.poster = test::writeImage(dir.filePath(QStringLiteral("sunset-poster.png")), {1200, 800},
                                     QRect(100, 80, 1000, 640), QColor(0xE8, 0x6A, 0x3C));
    images.badge = test::writeImage(dir.filePath(QStringLiteral("team-badge.png")), {800, 800},
                                    QRect(160, 120, 480, 560), QColor(0x3C, 0x7D, 0xE8), true);
    images.sticker = test::writeImage(dir.filePath(QStringLiteral("sticker.png")), {900, 600},
                                      QRect(250, 150, 400, 300), QColor(0x4C, 0xB0, 0x6A));
    images.notes = test::writeNonImage(dir.filePath(QStringLiteral("notes.png")));
    return images;
}

// The states asked for on the command line; empty: all of them.
QStringList wanted;

bool isWanted(const QString& name)
{
    return wanted.isEmpty() || wanted.contains(name);
}

void settle()
{
    QTest::qWait(settleMs);
}

bool shoot(const QString& folder, const QString& name, const std::function<void(MainWindow&, const QDir&)>& prepare,
           QSize size = {720, 540})
{
    if (!isWanted(name))
        return true;
    QTemporaryDir temporary;
    const QDir dir(temporary.path());
    MainWindow window;
    window.resize(size);
    window.show();
    if (!QTest::qWaitForWindowExposed(&window))
        qWarning("the window was not exposed: %s may come out blank", qPrintable(name));
    prepare(window, dir);
    settle();
    const QString path = QDir(folder).filePath(name + QStringLiteral(".png"));
    const bool saved = window.grab().save(path, "PNG");
    qInfo("%s %s", saved ? "wrote" : "FAILED", qPrintable(path));
    return saved;
}

} // namespace

int main(int argc, char* argv[])
{
    test::initialiseImaging(argv[0]);
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Orvane"));

    const QString folder = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("screenshots");
    for (int i = 2; i < argc; ++i)
        wanted << QString::fromLocal8Bit(argv[i]);
    if (!QDir().mkpath(folder)) {
        qCritical("cannot create %s", qPrintable(folder));
        return 1;
    }

    bool ok = true;
    ok &= shoot(folder, QStringLiteral("empty"), [](MainWindow&, const QDir&) {});

    ok &= shoot(folder, QStringLiteral("drag-hover"), [](MainWindow& window, const QDir& dir) {
        const Images images = makeImages(dir);
        QMimeData data;
        data.setUrls({images.poster});
        ContentView* content = window.contentView();
        QDragEnterEvent enter(QPoint(content->width() / 2, content->height() / 2), Qt::CopyAction, &data,
                              Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(content, &enter);
    });

    ok &= shoot(folder, QStringLiteral("one-image"), [](MainWindow& window, const QDir& dir) {
        const Images images = makeImages(dir);
        test::openAll(*window.contentView()->model(), {images.poster});
    });

    ok &= shoot(folder, QStringLiteral("three-images"), [](MainWindow& window, const QDir& dir) {
        const Images images = makeImages(dir);
        test::openAll(*window.contentView()->model(), {images.poster, images.badge, images.sticker});
    });

    ok &= shoot(folder, QStringLiteral("save-confirmation"), [](MainWindow& window, const QDir& dir) {
        const Images images = makeImages(dir);
        test::openAll(*window.contentView()->model(), {images.poster, images.badge, images.sticker});
        test::saveOver(*window.contentView()->model());
    });

    ok &= shoot(folder, QStringLiteral("all-saved"), [](MainWindow& window, const QDir& dir) {
        const Images images = makeImages(dir);
        test::openAll(*window.contentView()->model(), {images.poster, images.badge, images.sticker});
        for (int i = 0; i < 3; ++i)
            test::saveOver(*window.contentView()->model());
    });

    ok &= shoot(folder, QStringLiteral("error"), [](MainWindow& window, const QDir& dir) {
        const Images images = makeImages(dir);
        test::openAll(*window.contentView()->model(), {images.notes});
    });

    // The preview and the drawer.
    ok &= shoot(folder, QStringLiteral("nothing-to-trim"), [](MainWindow& window, const QDir& dir) {
        const QUrl url = test::writeImage(dir.filePath(QStringLiteral("full-bleed.png")), {900, 600},
                                          QRect(0, 0, 900, 600), QColor(0x2F, 0x8F, 0x9D));
        test::openAll(*window.contentView()->model(), {url});
    });

    ok &= shoot(folder, QStringLiteral("drag-over-image"), [](MainWindow& window, const QDir& dir) {
        const Images images = makeImages(dir);
        ContentView* content = window.contentView();
        test::openAll(*content->model(), {images.poster, images.badge});
        QMimeData data;
        data.setUrls({images.sticker});
        QDragEnterEvent enter(QPoint(content->width() / 2, content->height() / 2), Qt::CopyAction, &data,
                              Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(content, &enter);
    });

    ok &= shoot(folder, QStringLiteral("long-queue"), [](MainWindow& window, const QDir& dir) {
        QList<QUrl> urls;
        for (int i = 1; i <= 14; ++i) {
            const QString name = i == 14 ? QStringLiteral("14-museum-catalogue-cover-spread-final-approved.png")
                                         : QStringLiteral("%1-scan.png").arg(i, 2, 10, QLatin1Char('0'));
            urls << test::writeImage(dir.filePath(name), i % 3 == 0 ? QSize(1600, 400) : QSize(300, 900),
                                     i % 3 == 0 ? QRect(100, 50, 1400, 300) : QRect(30, 90, 240, 720),
                                     QColor::fromHsv((i * 47) % 360, 150, 220));
        }
        CropModel* model = window.contentView()->model();
        test::openAll(*window.contentView()->model(), urls);
        test::saveOver(*model);
        model->select(model->items().back().id);
    });

    const QPalette light = QApplication::palette();
    ok &= shoot(folder, QStringLiteral("dark-empty"),
                [](MainWindow&, const QDir&) { QApplication::setPalette(test::darkPalette()); });
    QApplication::setPalette(light);
    ok &= shoot(folder, QStringLiteral("dark-three-images"), [](MainWindow& window, const QDir& dir) {
        QApplication::setPalette(test::darkPalette());
        const Images images = makeImages(dir);
        test::openAll(*window.contentView()->model(), {images.poster, images.badge, images.sticker});
        test::saveOver(*window.contentView()->model());
    });
    QApplication::setPalette(light);

    // The smallest window: the empty panel and a long name in the narrow header.
    ok &= shoot(
        folder, QStringLiteral("smallest-empty"), [](MainWindow& window, const QDir&) { window.resize(1, 1); },
        {480, 360});
    ok &= shoot(
        folder, QStringLiteral("smallest-long-name"),
        [](MainWindow& window, const QDir& dir) {
            window.resize(1, 1);
            const QUrl url = test::writeImage(
                dir.filePath(QStringLiteral("holiday-2026-beach-sunset-panorama-final-edit-for-print-v3.png")),
                {1600, 900}, QRect(120, 60, 1360, 780), QColor(0x9B, 0x5D, 0xE5));
            test::openAll(*window.contentView()->model(), {url});
        },
        {480, 360});

    // The smallest window with the drawer: every label must still read.
    ok &= shoot(
        folder, QStringLiteral("smallest-queue"),
        [](MainWindow& window, const QDir& dir) {
            window.resize(1, 1);
            QList<QUrl> urls;
            for (int i = 1; i <= 5; ++i)
                urls << test::writeImage(dir.filePath(QStringLiteral("page-%1.png").arg(i)), {900, 1200},
                                         QRect(80, 100, 740, 1000), QColor::fromHsv(i * 61 % 360, 140, 210));
            window.contentView()->openUrls(urls);
            window.contentView()->model()->saveOverOriginal();
        },
        {480, 360});
    // A save whose confirmation holds a long file name, in the narrow window.
    ok &= shoot(
        folder, QStringLiteral("saved-long-name"),
        [](MainWindow& window, const QDir& dir) {
            window.resize(1, 1);
            const Images images = makeImages(dir);
            const QUrl url = test::writeImage(
                dir.filePath(QStringLiteral("museum-catalogue-cover-spread-final-approved-for-print.png")),
                {1600, 900}, QRect(120, 60, 1360, 780), QColor(0x9B, 0x5D, 0xE5));
            window.contentView()->openUrls({url, images.badge});
            window.contentView()->model()->saveOverOriginal();
        },
        {480, 360});

    // Keyboard focus on the slider, the buttons and the drawer's Add, each visible.
    for (const char* name : {"tolerance", "saveOverOriginal", "open", "queueAdd"}) {
        ok &= shoot(folder, QStringLiteral("focus-") + QLatin1String(name), [name](MainWindow& window, const QDir& dir) {
            const Images images = makeImages(dir);
            window.contentView()->openUrls({images.poster, images.badge});
            window.activateWindow();
            QTest::qWait(50); // the buttons are enabled on the next turn of the event loop
            if (auto* widget = window.findChild<QWidget*>(QLatin1String(name)))
                widget->setFocus(Qt::TabFocusReason);
        });
    }

    // The first image arriving, as a strip of frames 30 ms apart: the drop
    // zone and the image cross-fade over the same stripes while the header
    // slides in.
    if (isWanted(QStringLiteral("arrival-frames"))) {
        QTemporaryDir temporary;
        const QDir dir(temporary.path());
        MainWindow window;
        window.resize(720, 540);
        window.show();
        if (!QTest::qWaitForWindowExposed(&window)) {
            qCritical("the window was never shown");
            return 1;
        }
        settle();
        const Images images = makeImages(dir);
        window.contentView()->openUrls({images.poster});
        QList<QImage> frames;
        for (int i = 0; i < 12; ++i) {
            frames << window.grab().toImage();
            QTest::qWait(30);
        }
        const QSize cell = frames.front().size() / 2;
        QImage strip(QSize(cell.width() * 4, cell.height() * 3), QImage::Format_RGB32);
        strip.fill(Qt::white);
        QPainter painter(&strip);
        painter.setRenderHint(QPainter::SmoothPixmapTransform);
        for (int i = 0; i < int(frames.size()); ++i)
            painter.drawImage(QRect(QPoint(i % 4 * cell.width(), i / 4 * cell.height()), cell), frames[i]);
        painter.end();
        const QString path = QDir(folder).filePath(QStringLiteral("arrival-frames.png"));
        const bool saved = strip.save(path, "PNG");
        qInfo("%s %s", saved ? "wrote" : "FAILED", qPrintable(path));
        ok &= saved;
    }

    return ok ? 0 : 1;
}
