#include "drive.h"

#include <cstdlib>

// libFuzzer's streams.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char *bytes, std::size_t size)
{
    testing::FLAGS_gtest_break_on_failure = true;  // what the platform finds
    if (const std::string difference = drive({bytes, size}); !difference.empty()) {
        std::fprintf(stderr, "%s\n", difference.c_str());
        std::abort();
    }
    return 0;
}
