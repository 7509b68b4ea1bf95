#pragma once

#include "models/family.h"
#include "platform/default_lock.h"
#include "support/recording_platform.h"

// One stream, and what has to hold after it whatever the family is. Empty, or the first difference.
inline const std::string &drive(std::span<const unsigned char> bytes)
{
    [[maybe_unused]] static const unsigned started = make_pool("", 1);
    static unsigned long long next_report = 1;
    open_error = EACCES;               // files for every depletion would take the most of the time
    memm::default_lock.stand_alone();  // the library's own lock, by its short ways, and not the recorder's
    for (Stream in(bytes); !in.is_empty() && difference.empty(); ++operations)
        step(in);
    recorder().forget();
    same(recorder().outside_blocks(), 0U, "outside blocks that were not given back");
    same(memm::default_lock.is_free(), true, "the manager lock is free");
    if (operations < next_report)
        return difference;
    next_report = operations + 500;
    same(complaint(), "", "a report complains");
    return difference;
}

// Any bytes; the same ones for a seed.
inline std::vector<unsigned char> random_stream(std::mt19937 &random)
{
    std::vector<unsigned char> bytes(4096);
    std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<unsigned char>(random()); });
    return bytes;
}
