// Images and files the reliability tests make for themselves.
#pragma once

#include <QByteArray>
#include <QString>

#include <vips/vips8>

namespace orvane::TestImages {

/// An sRGB image of width × height pixels: random noise (fixed seed, poorly
/// compressible) inside a white border of the given width on every side.
vips::VImage framedNoise(int width, int height, int border);

/// The image encoded by libvips for the file suffix (".png", ".tif" …).
QByteArray encode(const vips::VImage& image, const char* suffix, vips::VOption* options = nullptr);

/// The whole file; empty when it cannot be read.
QByteArray readFile(const QString& path);

/// Creates or truncates path and writes bytes; true when all were written.
bool writeFile(const QString& path, const QByteArray& bytes);

/// The names in folder, hidden ones included, sorted.
QStringList entries(const QString& folder);

} // namespace orvane::TestImages
