#include "drive.h"
#include "support/rounds.h"

#include <filesystem>
#include <fstream>

namespace {

TEST(model, agrees_with_the_library_through_random_streams)
{
    for (RandomStreams streams(2071); operations < static_cast<unsigned>(scaled(250000));)
        ASSERT_EQ(drive(streams.next()), "") << "after " << operations;
}

TEST(model, agrees_with_the_library_on_what_fuzzing_found)
{
    std::vector<std::filesystem::path> paths;
    std::error_code none;  // a family that was never fuzzed has no folder
    for (const auto &file : std::filesystem::directory_iterator(MEMM_CORPUS, none))
        paths.push_back(file.path());
    std::sort(paths.begin(), paths.end());
    for (const auto &path : paths) {
        std::ifstream file(path, std::ios::binary);
        const std::vector<unsigned char> bytes(std::istreambuf_iterator<char>(file), {});
        ASSERT_EQ(drive(bytes), "") << path;
    }
}

}  // namespace
