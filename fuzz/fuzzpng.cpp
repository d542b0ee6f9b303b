// libFuzzer target: Orvane's own PNG writer against libpng.
//
// Any bytes, after a 4-byte header (width, bands, depth), are pixels for the
// writer: every file it makes must decode in libvips to exactly the pixels it
// was given.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <QByteArray>

#include <vips/vips8>

#include "imagefile/imagefile.h"
#include "imagefile/pngencoder.h"
#include "support/libvipspng.h"

namespace {

using orvane::test::loadedByLibvips;
using orvane::test::pixelBytes;

[[noreturn]] void fault(const char* what)
{
    std::fprintf(stderr, "fuzz_png: %s\n", what);
    std::abort();
}

void checkWriter(const uint8_t* data, size_t size)
{
    if (size < 5)
        return;
    const int width = 1 + data[0] % 64 + (data[1] & 1) * 64;
    const int bands = 1 + data[2] % 4;
    const int depth = data[3] & 1 ? 16 : 8;
    const std::size_t row = std::size_t(width) * std::size_t(bands) * std::size_t(depth / 8);
    const std::size_t height = (size - 4) / row;
    if (height == 0)
        return;
    orvane::PngEncoder::Pixels pixels;
    pixels.data = data + 4;
    pixels.stride = row;
    pixels.width = width;
    pixels.height = int(height);
    pixels.bands = bands;
    pixels.depth = depth;
    const QByteArray png = orvane::PngEncoder::encode(pixels);
    if (png.isEmpty())
        fault("the writer wrote nothing");
    const QByteArray given(reinterpret_cast<const char*>(data + 4), qsizetype(row * height));
    const std::optional<vips::VImage> theirs = loadedByLibvips(png.constData(), size_t(png.size()));
    if (!theirs)
        fault("libvips refuses what the writer wrote");
    if (theirs->bands() != bands || pixelBytes(*theirs) != given)
        fault("the writer's file holds other pixels");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    (void)argc;
    if (VIPS_INIT((*argv)[0]) != 0)
        fault("libvips does not start");
    vips_concurrency_set(1);
    orvane::ImageFile::initialise();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    checkWriter(data, size);
    return 0;
}
