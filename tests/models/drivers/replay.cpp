#include "drive.h"

#include <filesystem>

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
        const std::string bytes = content_of(path);
        ASSERT_EQ(drive(std::vector<unsigned char>(bytes.begin(), bytes.end())), "") << path;
    }
}

}  // namespace
