// What the preview and drawer tests share: image files made in code and a
// main() that prepares libvips and the image-file layer for the model.
#pragma once

#include <QApplication>
#include <QColor>
#include <QDir>
#include <QImage>
#include <QList>
#include <QPainter>
#include <QRect>
#include <QString>
#include <QTest>
#include <QUrl>

#include <vips/vips8>

#include "imagefile/imagefile.h"
#include "model/cropmodel.h"
#include "support/queuewaits.h"

namespace orvane::test {

/// Writes an opaque white PNG of width × height with a black block over
/// content (its content rectangle at the default tolerance) into dir.
inline QUrl writeBlockImage(const QDir& dir, const QString& name, int width, int height, const QRect& content)
{
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(Qt::white);
    if (!content.isEmpty()) {
        QPainter painter(&image);
        painter.fillRect(content, Qt::black);
    }
    const QString path = dir.filePath(name);
    if (!image.save(path, "PNG"))
        qFatal("cannot write %s", qPrintable(path));
    return QUrl::fromLocalFile(path);
}

/// Writes a fully transparent PNG: no content at any tolerance above 0.
inline QUrl writeTransparentImage(const QDir& dir, const QString& name, int width, int height)
{
    QImage image(width, height, QImage::Format_ARGB32);
    image.fill(Qt::transparent);
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

inline bool near(const QRectF& a, const QRectF& b, double tolerance)
{
    return qAbs(a.x() - b.x()) <= tolerance && qAbs(a.y() - b.y()) <= tolerance
        && qAbs(a.width() - b.width()) <= tolerance && qAbs(a.height() - b.height()) <= tolerance;
}

} // namespace orvane::test

#define ORVANE_VIEW_TEST_MAIN(TestClass)                                  \
    int main(int argc, char** argv)                                       \
    {                                                                     \
        QApplication app(argc, argv);                                     \
        if (VIPS_INIT(argv[0]) != 0)                                      \
            return 1;                                                     \
        orvane::ImageFile::initialise();                                  \
        TestClass tc;                                                     \
        return QTest::qExec(&tc, argc, argv);                             \
    }
