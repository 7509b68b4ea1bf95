#pragma once

#include <cstdlib>

// Rounds of a long random test: a part of them where MEMM_TEST_SCALE says so, in percent.
inline int scaled(int rounds)
{
    const char *percent = std::getenv("MEMM_TEST_SCALE");
    return percent == nullptr ? rounds : static_cast<int>(static_cast<long long>(rounds) * std::atoi(percent) / 100);
}

// Passes a little time without the kernel.
inline void spin(unsigned turns)
{
    for (volatile unsigned left = turns; left > 0;) {
        left = left - 1;
    }
}
