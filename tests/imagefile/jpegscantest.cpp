// Our reader of sequential JPEGs against libjpeg: the range it takes for
// every block from its own Huffman decoding must be the one libjpeg's
// coefficients give, and any file it does not cover completely (or that is
// in the least damaged) must be left to libjpeg.

#include <gtest/gtest.h>

#include <csetjmp>
#include <cstdio>

#include <jpeglib.h>
#include <vips/vips8>

#include "imagefile/jpegscan.h"

using namespace orvane::LosslessJpeg;
using vips::VImage;

namespace {

QByteArray jpeg(const VImage& image, vips::VOption* options)
{
    void* data = nullptr;
    size_t size = 0;
    image.write_to_buffer(".jpg", &data, &size, options);
    QByteArray bytes(static_cast<const char*>(data), qsizetype(size));
    g_free(data);
    return bytes;
}

VImage grain(int width, int height, int bands)
{
    VImage image = VImage::gaussnoise(width, height, VImage::option()->set("mean", 128.0)->set("sigma", 60.0)->set("seed", 3));
    for (int b = 1; b < bands; ++b)
        image = image.bandjoin(VImage::gaussnoise(width, height, VImage::option()->set("mean", 100.0)->set("sigma", 30.0)->set("seed", b)));
    // A white band and a flat patch, where blocks hold their DC alone.
    image = image.cast(VIPS_FORMAT_UCHAR).copy_memory();
    image.draw_rect(std::vector<double>(std::size_t(bands), 255.0), 0, 0, width, height / 4, VImage::option()->set("fill", true));
    image.draw_rect(std::vector<double>(std::size_t(bands), 90.0), width / 2, height / 2, width / 3, height / 3, VImage::option()->set("fill", true));
    return image.copy(VImage::option()->set("interpretation", bands == 1 ? VIPS_INTERPRETATION_B_W : VIPS_INTERPRETATION_sRGB));
}

struct LibjpegError {
    jpeg_error_mgr pub{};
    std::jmp_buf jump;
};

// How many blocks of the file get another range from the reader than from
// libjpeg's coefficients; -1 when libjpeg cannot read them.
long differingBlocks(const QByteArray& file, const Scan& scan)
{
    LibjpegError error;
    jpeg_decompress_struct info{};
    info.err = jpeg_std_error(&error.pub);
    error.pub.error_exit = [](j_common_ptr c) { std::longjmp(reinterpret_cast<LibjpegError*>(c->err)->jump, 1); };
    if (setjmp(error.jump)) {
        jpeg_destroy_decompress(&info);
        return -1;
    }
    jpeg_create_decompress(&info);
    jpeg_mem_src(&info, reinterpret_cast<const unsigned char*>(file.constData()), static_cast<unsigned long>(file.size()));
    jpeg_read_header(&info, TRUE);
    jvirt_barray_ptr* arrays = jpeg_read_coefficients(&info);
    long differing = 0;
    for (int ci = 0; ci < info.num_components; ++ci) {
        const jpeg_component_info& c = info.comp_info[ci];
        EXPECT_EQ(scan.blocksWide(ci), c.width_in_blocks);
        EXPECT_EQ(scan.blocksHigh(ci), c.height_in_blocks);
        for (JDIMENSION by = 0; by < c.height_in_blocks; ++by) {
            const JBLOCKROW row = info.mem->access_virt_barray(reinterpret_cast<j_common_ptr>(&info), arrays[ci], by, 1, FALSE)[0];
            for (JDIMENSION bx = 0; bx < c.width_in_blocks; ++bx) {
                std::int64_t spread = 0;
                for (int k = 1; k < DCTSIZE2; ++k)
                    spread += std::abs(std::int64_t(row[bx][k]) * c.quant_table->quantval[k]);
                const Range expected = blockRange(std::int64_t(row[bx][0]) * c.quant_table->quantval[0], spread);
                const Range got = scan.range(ci, bx, by);
                differing += got.lo != expected.lo || got.hi != expected.hi;
            }
        }
    }
    jpeg_destroy_decompress(&info);
    return differing;
}

} // namespace

TEST(JpegScan, EveryBlocksRangeIsTheOneLibjpegsCoefficientsGive)
{
    const struct {
        const char* name;
        int width, height, bands;
        bool subsampled;
        int restarts;
        bool optimised;
    } cases[] = {
        {"4:2:0", 203, 157, 3, true, 0, false},
        {"4:2:0 with restart markers", 203, 157, 3, true, 5, false},
        {"4:4:4 with optimised tables", 130, 77, 3, false, 0, true},
        {"grey with restart markers and optimised tables", 121, 90, 1, false, 4, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const QByteArray file = jpeg(grain(c.width, c.height, c.bands),
                                     VImage::option()
                                         ->set("Q", 85)
                                         ->set("subsample_mode", c.subsampled ? VIPS_FOREIGN_SUBSAMPLE_ON : VIPS_FOREIGN_SUBSAMPLE_OFF)
                                         ->set("restart_interval", c.restarts)
                                         ->set("optimize_coding", c.optimised));
        const std::unique_ptr<Scan> scan = Scan::read(file);
        ASSERT_TRUE(scan);
        EXPECT_EQ(scan->width(), c.width);
        EXPECT_EQ(scan->height(), c.height);
        EXPECT_EQ(differingBlocks(file, *scan), 0);
    }
}

TEST(JpegScan, LeavesEveryOtherFileToLibjpeg)
{
    const VImage image = grain(64, 48, 3);
    const QByteArray plain = jpeg(image, VImage::option()->set("restart_interval", 2));
    ASSERT_TRUE(Scan::read(plain));

    const qsizetype scanStart = plain.indexOf("\xff\xda");
    const qsizetype firstRestart = plain.indexOf("\xff\xd0", scanStart);
    ASSERT_GT(firstRestart, scanStart);
    QByteArray wrongRestart = plain;
    wrongRestart[firstRestart + 1] = char(0xd1);
    QByteArray strayByte = plain;
    strayByte.insert(firstRestart, char(0x5a));
    QByteArray trailing = plain;
    trailing.insert(plain.size() - 2, QByteArray(4, char(0x33)));
    VImage cmyk = image.colourspace(VIPS_INTERPRETATION_CMYK).copy();
    cmyk.remove(VIPS_META_ICC_NAME);

    const struct {
        const char* name;
        QByteArray file;
    } others[] = {
        {"progressive", jpeg(image, VImage::option()->set("interlace", true))},
        {"CMYK", jpeg(cmyk, VImage::option())},
        {"cut short", plain.left(plain.size() * 2 / 3)},
        {"a restart marker out of turn", wrongRestart},
        {"a stray byte before a restart marker", strayByte},
        {"data after the last block", trailing},
        {"no image", QByteArray("\xff\xd8\xff\xd9", 4)},
    };
    for (const auto& other : others)
        EXPECT_FALSE(Scan::read(other.file)) << other.name;
}

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    if (VIPS_INIT(argv[0]) != 0)
        return 1;
    return RUN_ALL_TESTS();
}
