#include "drive.h"

#include <chrono>

// soak_FAMILY SECONDS [SEED]: random streams until the time is up.
int main(int argc, char **argv)
{
    testing::FLAGS_gtest_break_on_failure = true;  // what the platform finds
    const auto seed = argc > 2 ? static_cast<unsigned>(std::stoul(argv[2])) : std::random_device{}();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(argc > 1 ? std::stoi(argv[1]) : 1);
    std::printf("%s: seed %u\n", MEMM_FAMILY, seed);
    std::fflush(stdout);
    std::mt19937 random(seed);
    while (drive(random_stream(random)).empty() && std::chrono::steady_clock::now() < end)
        ;
    std::printf("%s: seed %u, %llu operations: %s\n", MEMM_FAMILY, seed, operations,
                difference.empty() ? "no difference" : difference.c_str());
    return difference.empty() ? 0 : 1;
}
