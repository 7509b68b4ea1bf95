#pragma once

#include <cstdlib>

// Rounds of a long random test: a part of them where MEMM_TEST_SCALE says so, in percent.
inline int scaled(int rounds)
{
    const char *percent = std::getenv("MEMM_TEST_SCALE");
    return percent == nullptr ? rounds : static_cast<int>(static_cast<long long>(rounds) * std::atoi(percent) / 100);
}

// Whether the counts are to be those of a soak, however long they take: MEMM_TEST_FULL is set.
inline bool is_full_run()
{
    static const bool is_set = std::getenv("MEMM_TEST_FULL") != nullptr;
    return is_set;
}
inline int scaled(int rounds, int full) { return is_full_run() ? full : scaled(rounds); }
