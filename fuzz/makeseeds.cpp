// Writes the generated part of the load fuzzer's seed corpus: small images of
// the eight accepted types in the variants their decoders branch on (bit
// depth, alpha, palette, interlacing, compression, tiling). Usage:
//   fuzz_seeds <folder>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <vips/vips8>

namespace {

using vips::VImage;

std::string g_folder;
int g_written = 0;

void writeBytes(const std::string& name, const void* data, size_t size)
{
    const std::string path = g_folder + "/" + name;
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f || std::fwrite(data, 1, size, f) != size) {
        std::fprintf(stderr, "fuzz_seeds: cannot write %s\n", path.c_str());
        std::exit(1);
    }
    std::fclose(f);
    ++g_written;
}

// Encoders that this libvips lacks are skipped: the seed set is a best effort.
void attempt(const std::string& name, const std::function<std::vector<unsigned char>()>& encode)
{
    try {
        const auto bytes = encode();
        writeBytes(name, bytes.data(), bytes.size());
    } catch (const vips::VError& e) {
        std::fprintf(stderr, "fuzz_seeds: skipped %s: %s", name.c_str(), e.what());
        vips_error_clear();
    }
}

std::vector<unsigned char> save(const VImage& image, const char* suffix, vips::VOption* options = nullptr)
{
    void* data = nullptr;
    size_t size = 0;
    image.write_to_buffer(suffix, &data, &size, options);
    std::vector<unsigned char> bytes(static_cast<unsigned char*>(data), static_cast<unsigned char*>(data) + size);
    g_free(data);
    return bytes;
}

// A coloured, slightly noisy block inside a white border: something to trim.
VImage content(int width, int height)
{
    VImage noise = VImage::gaussnoise(width / 2, height / 2, VImage::option()->set("sigma", 20.0)->set("mean", 90.0));
    VImage block = VImage::bandjoin({noise, noise * 0.5 + 40, noise.flip(VIPS_DIRECTION_HORIZONTAL)}).cast(VIPS_FORMAT_UCHAR);
    block = block.copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
    const std::vector<double> white{255, 255, 255};
    return block.embed(width / 4, height / 5, width, height,
                       VImage::option()->set("extend", VIPS_EXTEND_BACKGROUND)->set("background", white));
}

VImage withAlpha(const VImage& rgb)
{
    // Transparent outside the block, half transparent on its edge.
    VImage inside = VImage::black(rgb.width() / 2, rgb.height() / 2) + 255;
    VImage alpha = inside.embed(rgb.width() / 4, rgb.height() / 5, rgb.width(), rgb.height());
    alpha = alpha.gaussblur(0.8).cast(VIPS_FORMAT_UCHAR);
    return rgb.bandjoin(alpha);
}

void le16(std::vector<unsigned char>& b, unsigned v) { b.push_back(v & 0xff); b.push_back((v >> 8) & 0xff); }
void le32(std::vector<unsigned char>& b, uint32_t v) { for (int i = 0; i < 4; ++i) b.push_back((v >> (8 * i)) & 0xff); }

// BMP is written by hand: libvips has no BMP writer of its own.
std::vector<unsigned char> bmp(const VImage& image, int bits, bool topDown)
{
    const VImage rgba = image.bands() == 4 ? image : image.bandjoin_const({255});
    const int w = rgba.width(), h = rgba.height();
    size_t size = 0;
    auto* px = static_cast<unsigned char*>(rgba.write_to_memory(&size));
    const int paletteEntries = bits == 8 ? 256 : 0;
    const int stride = ((w * bits + 31) / 32) * 4;
    const uint32_t offset = 14 + 40 + paletteEntries * 4;
    std::vector<unsigned char> b{'B', 'M'};
    le32(b, offset + stride * h);
    le32(b, 0);
    le32(b, offset);
    le32(b, 40);
    le32(b, static_cast<uint32_t>(w));
    le32(b, static_cast<uint32_t>(topDown ? -h : h));
    le16(b, 1);
    le16(b, static_cast<unsigned>(bits));
    le32(b, 0);
    le32(b, static_cast<uint32_t>(stride * h));
    le32(b, 2835);
    le32(b, 2835);
    le32(b, static_cast<uint32_t>(paletteEntries));
    le32(b, 0);
    for (int i = 0; i < paletteEntries; ++i) {
        b.push_back(i); b.push_back(i); b.push_back(i); b.push_back(0);
    }
    for (int row = 0; row < h; ++row) {
        const int y = topDown ? row : h - 1 - row;
        std::vector<unsigned char> line(stride, 0);
        for (int x = 0; x < w; ++x) {
            const unsigned char* p = px + (static_cast<size_t>(y) * w + x) * 4;
            if (bits == 8) {
                line[x] = static_cast<unsigned char>((p[0] * 30 + p[1] * 59 + p[2] * 11) / 100);
            } else {
                const int n = bits / 8;
                line[x * n] = p[2];
                line[x * n + 1] = p[1];
                line[x * n + 2] = p[0];
                if (n == 4)
                    line[x * n + 3] = p[3];
            }
        }
        b.insert(b.end(), line.begin(), line.end());
    }
    g_free(px);
    return b;
}

// An HEIC file whose ftyp brand says HEIF: the same decoder, the other type.
std::vector<unsigned char> rebrand(std::vector<unsigned char> heic)
{
    if (heic.size() > 12 && std::string(heic.begin() + 4, heic.begin() + 8) == "ftyp") {
        const char brand[] = "mif1";
        std::copy(brand, brand + 4, heic.begin() + 8);
    }
    return heic;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <folder>\n", argv[0]);
        return 2;
    }
    if (VIPS_INIT(argv[0]) != 0)
        return 1;
    g_folder = argv[1];

    const VImage rgb = content(24, 18);
    const VImage rgba = withAlpha(rgb);
    const VImage grey = rgb.colourspace(VIPS_INTERPRETATION_B_W);
    const VImage greyAlpha = grey.bandjoin(rgba.extract_band(3));
    const VImage rgb16 = rgb.colourspace(VIPS_INTERPRETATION_RGB16);
    const VImage odd = content(7, 5);
    const VImage one = VImage::black(1, 1) + 255;
    // Without the converter's embedded profile, which alone is nearly a megabyte.
    VImage cmyk = rgb.colourspace(VIPS_INTERPRETATION_CMYK).copy();
    cmyk.remove(VIPS_META_ICC_NAME);

    attempt("rgb.png", [&] { return save(rgb, ".png"); });
    attempt("rgba.png", [&] { return save(rgba, ".png"); });
    attempt("grey.png", [&] { return save(grey, ".png"); });
    attempt("grey-alpha.png", [&] { return save(greyAlpha, ".png"); });
    attempt("rgb16.png", [&] { return save(rgb16, ".png"); });
    attempt("bilevel.png", [&] { return save(grey, ".png", VImage::option()->set("bitdepth", 1)); });
    attempt("palette.png", [&] { return save(rgba, ".png", VImage::option()->set("palette", true)); });
    attempt("interlaced.png", [&] { return save(rgba, ".png", VImage::option()->set("interlace", true)); });
    attempt("single.png", [&] { return save(one.cast(VIPS_FORMAT_UCHAR), ".png"); });

    attempt("rgb.jpeg", [&] { return save(rgb, ".jpg"); });
    attempt("grey.jpeg", [&] { return save(grey, ".jpg"); });
    attempt("progressive.jpeg", [&] { return save(rgb, ".jpg", VImage::option()->set("interlace", true)); });
    attempt("odd.jpeg", [&] { return save(odd, ".jpg", VImage::option()->set("subsample_mode", VIPS_FOREIGN_SUBSAMPLE_ON)); });
    attempt("cmyk.jpeg", [&] { return save(cmyk, ".jpg"); });
    attempt("restarts.jpeg", [&] { return save(rgb, ".jpg", VImage::option()->set("subsample_mode", VIPS_FOREIGN_SUBSAMPLE_ON)->set("restart_interval", 1)); });
    attempt("optimised.jpeg", [&] { return save(rgb, ".jpg", VImage::option()->set("optimize_coding", true)); });

    attempt("rgb.tiff", [&] { return save(rgb, ".tif"); });
    attempt("rgba-deflate.tiff", [&] { return save(rgba, ".tif", VImage::option()->set("compression", VIPS_FOREIGN_TIFF_COMPRESSION_DEFLATE)); });
    attempt("grey-lzw.tiff", [&] { return save(grey, ".tif", VImage::option()->set("compression", VIPS_FOREIGN_TIFF_COMPRESSION_LZW)->set("predictor", VIPS_FOREIGN_TIFF_PREDICTOR_HORIZONTAL)); });
    attempt("tiled-jpeg.tiff", [&] { return save(rgb, ".tif", VImage::option()->set("compression", VIPS_FOREIGN_TIFF_COMPRESSION_JPEG)->set("tile", true)->set("tile_width", 16)->set("tile_height", 16)); });
    attempt("rgb16-packbits.tiff", [&] { return save(rgb16, ".tif", VImage::option()->set("compression", VIPS_FOREIGN_TIFF_COMPRESSION_PACKBITS)); });
    attempt("float.tiff", [&] { return save(grey.cast(VIPS_FORMAT_FLOAT) / 255, ".tif"); });
    attempt("bilevel.tiff", [&] { return save(grey, ".tif", VImage::option()->set("bitdepth", 1)); });
    attempt("cmyk.tiff", [&] { return save(cmyk, ".tif"); });

    attempt("rgb24.bmp", [&] { return bmp(rgb, 24, false); });
    attempt("rgba32-topdown.bmp", [&] { return bmp(rgba, 32, true); });
    attempt("grey8.bmp", [&] { return bmp(rgb, 8, false); });

    attempt("rgb.gif", [&] { return save(rgb, ".gif"); });
    attempt("rgba.gif", [&] { return save(rgba, ".gif"); });

    attempt("lossy.webp", [&] { return save(rgb, ".webp"); });
    attempt("lossless-alpha.webp", [&] { return save(rgba, ".webp", VImage::option()->set("lossless", true)); });
    attempt("lossy-alpha.webp", [&] { return save(rgba, ".webp", VImage::option()->set("Q", 40)); });

    attempt("rgb.heic", [&] { return save(rgb, ".heic", VImage::option()->set("compression", VIPS_FOREIGN_HEIF_COMPRESSION_HEVC)->set("effort", 0)); });
    attempt("rgba.heic", [&] { return save(rgba, ".heic", VImage::option()->set("compression", VIPS_FOREIGN_HEIF_COMPRESSION_HEVC)->set("effort", 0)); });
    attempt("rgb.heif", [&] { return rebrand(save(rgb, ".heic", VImage::option()->set("compression", VIPS_FOREIGN_HEIF_COMPRESSION_HEVC)->set("effort", 0))); });
    attempt("rgb-av1.heif", [&] { return save(odd, ".avif", VImage::option()->set("effort", 0)); });

    std::printf("%d seeds in %s\n", g_written, g_folder.c_str());
    vips_shutdown();
    return 0;
}
