// Helpers shared by the window's tests and the screenshot program: libvips
// set-up, images drawn in code, and panels that answer for the user.
#pragma once

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QPainter>
#include <QPalette>
#include <QTest>
#include <QUrl>
#include <QWidget>

#include <vips/vips8>

#include "imagefile/imagefile.h"
#include "model/cropmodel.h"
#include "support/queuewaits.h"

namespace orvane::test {

/// VIPS_INIT and Orvane's loader set-up; call once at the start of main.
inline void initialiseImaging(const char* argv0)
{
    if (VIPS_INIT(argv0) != 0)
        vips_error_exit("could not start libvips");
    ImageFile::initialise();
}

/// Writes a PNG of size: a transparent (or white) canvas with a filled
/// rounded shape exactly covering content, so the content rectangle at the
/// default tolerance is content. Returns the file's URL.
inline QUrl writeImage(const QString& path, QSize size, QRect content, QColor colour, bool whiteCanvas = false)
{
    QImage image(size, QImage::Format_ARGB32);
    image.fill(whiteCanvas ? Qt::white : Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing, false);
    painter.setPen(Qt::NoPen);
    painter.setBrush(colour);
    painter.drawRect(content);
    // A lighter disc inside, so that the pictures look like artwork.
    painter.setRenderHint(QPainter::Antialiasing, true);
    painter.setBrush(colour.lighter(140));
    const int d = qMin(content.width(), content.height()) / 2;
    painter.drawEllipse(QRect(content.center() - QPoint(d / 2, d / 2), QSize(d, d)));
    painter.end();
    image.save(path, "PNG");
    return QUrl::fromLocalFile(path);
}

/// A dark desktop palette, as when the user switches themes, to see that
/// every colour of the window follows it.
inline QPalette darkPalette()
{
    QPalette p;
    const QColor text(0xE6, 0xE6, 0xE6);
    p.setColor(QPalette::Window, QColor(0x2B, 0x2B, 0x2B));
    p.setColor(QPalette::WindowText, text);
    p.setColor(QPalette::Base, QColor(0x1F, 0x1F, 0x1F));
    p.setColor(QPalette::AlternateBase, QColor(0x26, 0x26, 0x26));
    p.setColor(QPalette::Text, text);
    p.setColor(QPalette::Button, QColor(0x3A, 0x3A, 0x3A));
    p.setColor(QPalette::ButtonText, text);
    p.setColor(QPalette::Highlight, QColor(0x3D, 0x8F, 0xD6));
    p.setColor(QPalette::HighlightedText, Qt::white);
    p.setColor(QPalette::Mid, QColor(0x50, 0x50, 0x50));
    p.setColor(QPalette::Light, QColor(0x48, 0x48, 0x48));
    p.setColor(QPalette::Dark, QColor(0x18, 0x18, 0x18));
    p.setColor(QPalette::Disabled, QPalette::WindowText, QColor(0x80, 0x80, 0x80));
    p.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(0x80, 0x80, 0x80));
    p.setColor(QPalette::Disabled, QPalette::Text, QColor(0x80, 0x80, 0x80));
    return p;
}

/// Shows widget at size and answers whether it became exposed.
inline bool showAt(QWidget& widget, QSize size)
{
    widget.resize(size);
    widget.show();
    return QTest::qWaitForWindowExposed(&widget);
}

/// Writes an opaque white PNG of width × height with a black block over
/// content (its content rectangle at the default tolerance) into dir.
inline QUrl writeBlockImage(const QDir& dir, const QString& name, int width, int height, const QRect& content)
{
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(Qt::white);
    QPainter(&image).fillRect(content, Qt::black);
    const QString path = dir.filePath(name);
    if (!image.save(path, "PNG"))
        qFatal("cannot write %s", qPrintable(path));
    return QUrl::fromLocalFile(path);
}

/// The id of the queued item whose file has this name; null when none.
inline QUuid idOf(const CropModel& model, const QString& fileName)
{
    for (const CropModel::Item& item : model.items())
        if (item.url.fileName() == fileName)
            return item.id;
    return QUuid();
}

/// Writes bytes that are no image under a name that looks like one.
inline QUrl writeNonImage(const QString& path)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly))
        file.write("these are notes, not pixels\n");
    return QUrl::fromLocalFile(path);
}

/// Panels that answer for the user and count how often they were asked.
class FakePanels : public Panels {
public:
    QList<QUrl> toOpen;
    std::optional<QUrl> saveDestination;
    int openRequests = 0;
    int saveRequests = 0;

    QList<QUrl> chooseImagesToOpen(const QList<ImageType>&) override
    {
        ++openRequests;
        return toOpen;
    }
    std::optional<QUrl> chooseSaveDestination(const QString&, const ImageType&) override
    {
        ++saveRequests;
        return saveDestination;
    }
};

} // namespace orvane::test

#define ORVANE_UI_TEST_MAIN(TestClass)                                    \
    int main(int argc, char** argv)                                       \
    {                                                                     \
        orvane::test::initialiseImaging(argv[0]);                         \
        QApplication app(argc, argv);                                     \
        TestClass tc;                                                     \
        return QTest::qExec(&tc, argc, argv);                             \
    }
