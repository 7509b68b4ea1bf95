#include "drive.h"

// libFuzzer's streams.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char *bytes, std::size_t size)
{
    testing::FLAGS_gtest_break_on_failure = true;
    EXPECT_EQ(drive({bytes, size}), "");
    return 0;
}
