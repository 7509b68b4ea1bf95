#include "drive.h"
#include "support/rounds.h"

#include <filesystem>
#include <fstream>
#include <set>

namespace {

TEST(model, agrees_with_the_library_through_random_streams)
{
    for (std::mt19937 random(2071); operations < static_cast<unsigned>(scaled(250000));)
        ASSERT_EQ(drive(random_stream(random)), "") << "after " << operations;
}

TEST(model, agrees_with_the_library_on_what_fuzzing_found)
{
    std::error_code none;  // a family that was never fuzzed has no folder
    const std::filesystem::directory_iterator corpus(MEMM_CORPUS, none);
    for (const auto &path : std::set<std::filesystem::path>(begin(corpus), end(corpus))) {
        std::ifstream file(path, std::ios::binary);
        const std::vector<unsigned char> bytes(std::istreambuf_iterator<char>(file), {});
        ASSERT_EQ(drive(bytes), "") << path;
    }
}

}  // namespace
