#include <gtest/gtest.h>
#include <vips/vips8>

// One libvips for all engine tests, with the operation cache off as in the
// application, so that no test sees another's results.
int main(int argc, char** argv)
{
    if (VIPS_INIT(argv[0]) != 0)
        return 1;
    vips_cache_set_max(0);
    ::testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    vips_shutdown();
    return result;
}
