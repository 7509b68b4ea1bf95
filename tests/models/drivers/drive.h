#pragma once

#include "models/family.h"
#include "support/recording_platform.h"

#include <memmanager/memmanager.h>

#include <algorithm>
#include <random>
#include <vector>

// One stream, and what has to hold after it whatever the family is. Empty, or the first difference.
inline std::string drive(std::span<const unsigned char> bytes)
{
    static unsigned long long next_report = 1;
    if (std::string difference = run_family(bytes); !difference.empty())
        return difference;
    recorder().forget();
    if (recorder().outside_blocks() != 0)
        return "outside blocks were not given back";
    if (recorder().manager_lock_depth() != 0)
        return "the manager lock was left taken";
    if (operations < next_report)
        return "";
    next_report = operations + 500;
    memm_print_stats(nullptr);
    memm_print_objects(nullptr);
    const std::string report = recorder().take_debug();
    recorder().forget();
    const bool complains = report.find("ERROR") != report.npos || report.find("failed") != report.npos;
    return complains ? "a report complains:\n" + report : "";
}

// Streams of any bytes, always the same ones for a seed.
class RandomStreams {
    std::mt19937 random_;
    std::vector<unsigned char> bytes_ = std::vector<unsigned char>(4096);

public:
    explicit RandomStreams(unsigned seed) : random_(seed) {}
    std::span<const unsigned char> next()
    {
        std::generate(bytes_.begin(), bytes_.end(), [this] { return static_cast<unsigned char>(random_()); });
        return bytes_;
    }
};
