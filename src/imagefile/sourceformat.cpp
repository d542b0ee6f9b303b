#include "imagefile/sourceformat.h"

#include <cstring>
#include <type_traits>

#include <QFile>

namespace orvane::ImageFile {

namespace {

// Metadata fields on a decoded image. libvips copies every field of an
// operation's input to its output, so a crop carries them along.
constexpr const char* kResolutionField = "orvane-source-resolution";
constexpr const char* kTiffField = "orvane-source-tiff";
constexpr const char* kChromaField = "orvane-source-full-chroma";

static_assert(std::is_trivially_copyable_v<TiffDirectory>, "kept on an image as raw bytes");

// Whether a PNG states its resolution: a pHYs chunk before the image data.
// Reads only the chunk headers up to the first IDAT.
bool pngHasResolution(QFile& file)
{
    qint64 at = 8; // the signature
    for (int chunks = 0; chunks < 1024 && file.seek(at); ++chunks) {
        const QByteArray header = file.read(8);
        if (header.size() != 8)
            return false;
        const auto* p = reinterpret_cast<const unsigned char*>(header.constData());
        const qint64 length = qint64(p[0]) << 24 | qint64(p[1]) << 16 | qint64(p[2]) << 8 | qint64(p[3]);
        const QByteArray type = header.mid(4);
        if (type == "pHYs")
            return true;
        if (type == "IDAT" || type == "IEND")
            return false;
        at += 12 + length; // length, type, data, checksum
    }
    return false;
}

// Whether the first HEVC configuration (an hvcC box) in a HEIF file's
// metadata says 4:4:4. Its chroma_format_idc is the low two bits of the
// record's 17th byte. The metadata sits at the start of the files phones
// and libheif write; absent when no hvcC is found there.
std::optional<bool> heifHasFullChroma(QFile& file)
{
    const QByteArray head = file.read(256 * 1024);
    const qsizetype box = head.indexOf("hvcC");
    if (box < 4 || box + 4 + 17 > head.size())
        return std::nullopt;
    return (std::uint8_t(head[box + 4 + 16]) & 3) == 3;
}

VipsForeignTiffCompression compressionFor(int code)
{
    switch (code) {
    case 1: return VIPS_FOREIGN_TIFF_COMPRESSION_NONE;
    case 2: // CCITT modified Huffman
    case 3: // CCITT Group 3
    case 4: return VIPS_FOREIGN_TIFF_COMPRESSION_CCITTFAX4;
    case 5: return VIPS_FOREIGN_TIFF_COMPRESSION_LZW;
    case 6: // the old JPEG scheme, which nothing writes any more
    case 7: return VIPS_FOREIGN_TIFF_COMPRESSION_JPEG;
    case 8:
    case 32946: return VIPS_FOREIGN_TIFF_COMPRESSION_DEFLATE; // Adobe's code and the older one
    case 32773: return VIPS_FOREIGN_TIFF_COMPRESSION_PACKBITS;
    case 50000: return VIPS_FOREIGN_TIFF_COMPRESSION_ZSTD;
    case 50001: return VIPS_FOREIGN_TIFF_COMPRESSION_WEBP;
    default: return VIPS_FOREIGN_TIFF_COMPRESSION_LZW; // lossless, and read everywhere
    }
}

} // namespace

SourceFormat SourceFormat::read(const QString& path, const ImageType& type)
{
    SourceFormat format;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return format;
    if (type == ImageType::png()) {
        format.hasResolution = pngHasResolution(file);
    } else if (type == ImageType::tiff()) {
        format.tiff = TiffDirectory::read(file);
        if (format.tiff)
            format.hasResolution = format.tiff->hasResolution;
    } else if (type == ImageType::heic() || type == ImageType::heif()) {
        format.fullChroma = heifHasFullChroma(file);
    }
    return format;
}

void SourceFormat::attachTo(vips::VImage& image) const
{
    if (hasResolution)
        image.set(kResolutionField, *hasResolution ? 1 : 0);
    if (tiff)
        vips_image_set_blob_copy(image.get_image(), kTiffField, &*tiff, sizeof(TiffDirectory));
    if (fullChroma)
        image.set(kChromaField, *fullChroma ? 1 : 0);
}

SourceFormat SourceFormat::of(const vips::VImage& image)
{
    SourceFormat format;
    if (image.get_typeof(kResolutionField) != 0)
        format.hasResolution = image.get_int(kResolutionField) != 0;
    if (image.get_typeof(kChromaField) != 0)
        format.fullChroma = image.get_int(kChromaField) != 0;
    const void* data = nullptr;
    size_t length = 0;
    if (image.get_typeof(kTiffField) != 0 && vips_image_get_blob(image.get_image(), kTiffField, &data, &length) == 0
        && length == sizeof(TiffDirectory)) {
        TiffDirectory directory;
        std::memcpy(&directory, data, sizeof directory);
        format.tiff = directory;
    }
    return format;
}

vips::VOption* tiffSaveOptions(const SourceFormat& source, const vips::VImage& image)
{
    vips::VOption* options = vips::VImage::option();
    if (!source.tiff)
        return options;
    const TiffDirectory& tiff = *source.tiff;
    const bool oneByteGrey = image.bands() == 1 && image.format() == VIPS_FORMAT_UCHAR;
    VipsForeignTiffCompression compression = compressionFor(tiff.compression);
    // libvips reads fewer than 8 bits per sample into bytes; the writer packs
    // them again. Only for one grey band: a 4-bit palette image is read as
    // colour, and written with 8 bits per sample.
    int packedBits = 0; // 0: every sample in whole bytes
    if (oneByteGrey && (tiff.bitsPerSample == 1 || tiff.bitsPerSample == 2 || tiff.bitsPerSample == 4)
        && tiff.photometric != 3)
        packedBits = tiff.bitsPerSample;
    if (compression == VIPS_FOREIGN_TIFF_COMPRESSION_CCITTFAX4) {
        if (oneByteGrey)
            packedBits = 1; // fax compression holds bilevel images only
        else
            compression = VIPS_FOREIGN_TIFF_COMPRESSION_LZW;
    }
    // JPEG and WebP take 8-bit samples only (WebP also only colour); a
    // 16-bit, float or Lab image in such a file is kept lossless instead.
    const bool eightBit = image.format() == VIPS_FORMAT_UCHAR && image.coding() == VIPS_CODING_NONE;
    if ((compression == VIPS_FOREIGN_TIFF_COMPRESSION_JPEG && !(eightBit && (image.bands() == 1 || image.bands() == 3)))
        || (compression == VIPS_FOREIGN_TIFF_COMPRESSION_WEBP && !(eightBit && image.bands() >= 3)))
        compression = VIPS_FOREIGN_TIFF_COMPRESSION_DEFLATE;
    options->set("compression", compression);
    if (packedBits > 0)
        options->set("bitdepth", packedBits);
    if (tiff.photometric == 0)
        options->set("miniswhite", true);

    // libtiff has no predictor for samples of fewer than 8 bits: libvips
    // would write strips that cannot be read back. JPEG, WebP and the
    // run-length codecs take none at all.
    const bool predicts = compression == VIPS_FOREIGN_TIFF_COMPRESSION_LZW
        || compression == VIPS_FOREIGN_TIFF_COMPRESSION_DEFLATE || compression == VIPS_FOREIGN_TIFF_COMPRESSION_ZSTD;
    VipsForeignTiffPredictor predictor = VIPS_FOREIGN_TIFF_PREDICTOR_NONE;
    if (predicts && packedBits == 0 && tiff.predictor == 2)
        predictor = VIPS_FOREIGN_TIFF_PREDICTOR_HORIZONTAL;
    else if (predicts && packedBits == 0 && tiff.predictor == 3)
        predictor = VIPS_FOREIGN_TIFF_PREDICTOR_FLOAT;
    options->set("predictor", predictor);

    if (compression == VIPS_FOREIGN_TIFF_COMPRESSION_JPEG)
        options->set("Q", 92);
    else if (compression == VIPS_FOREIGN_TIFF_COMPRESSION_WEBP)
        options->set("Q", lossyWebpQuality);

    // Tiles must be multiples of 16 pixels; a source's are.
    if (tiff.tileWidth >= 16 && tiff.tileHeight >= 16 && tiff.tileWidth % 16 == 0 && tiff.tileHeight % 16 == 0
        && tiff.tileWidth <= 32768 && tiff.tileHeight <= 32768) {
        options->set("tile", true)
            ->set("tile_width", int(tiff.tileWidth))
            ->set("tile_height", int(tiff.tileHeight));
    }
    return options;
}

} // namespace orvane::ImageFile
