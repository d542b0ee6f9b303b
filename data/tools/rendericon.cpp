// Renders an SVG icon to square PNG files, for the hicolor theme's fixed sizes.
// Usage: rendericon <input.svg> <output.png> <size> [<output.png> <size>]...
#include <cstdio>

#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QSvgRenderer>

int main(int argc, char** argv)
{
    if (argc < 4 || argc % 2 != 0) {
        std::fprintf(stderr, "usage: %s input.svg output.png size [output.png size]...\n", argv[0]);
        return 2;
    }
    // Painting needs a GUI application for fonts and pixmaps; no display is used.
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);

    QSvgRenderer renderer(QString::fromLocal8Bit(argv[1]));
    if (!renderer.isValid()) {
        std::fprintf(stderr, "%s: not a valid SVG file\n", argv[1]);
        return 1;
    }
    for (int i = 2; i + 1 < argc; i += 2) {
        const int size = QByteArray(argv[i + 1]).toInt();
        if (size <= 0 || size > 4096) {
            std::fprintf(stderr, "%s: bad size\n", argv[i + 1]);
            return 2;
        }
        QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        QPainter painter(&image);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setRenderHint(QPainter::SmoothPixmapTransform);
        renderer.render(&painter, QRectF(0, 0, size, size));
        painter.end();
        if (!image.save(QString::fromLocal8Bit(argv[i]), "PNG")) {
            std::fprintf(stderr, "%s: could not write\n", argv[i]);
            return 1;
        }
    }
    return 0;
}
