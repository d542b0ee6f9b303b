// Images the reliability tests make for themselves.
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

} // namespace orvane::TestImages
