#include "base/text.h"

#include <string>

#include <gtest/gtest.h>

TEST(text, copies_what_fits_and_answers_the_whole_length)
{
    for (std::size_t size = 0; size < 7; ++size) {
        char copy[8] = "#######";
        EXPECT_EQ(memm::copy_bounded(copy, "abcd", size), 4U);
        const std::string kept = size == 0 ? "" : std::string("abcd").substr(0, size - 1) + '\0';
        EXPECT_EQ(std::string(copy, 7), kept + std::string(7 - kept.size(), '#')) << size;
    }
    char copy[2] = "#";
    EXPECT_EQ(memm::copy_bounded(copy, nullptr, sizeof copy), 0U);
    EXPECT_STREQ(copy, "");
}

TEST(text, an_empty_prefix_begins_everything)
{
    const struct {
        const char *text, *prefix;
        bool expected;
    } cases[] = {{"abc", "", true},     {"abc", nullptr, true}, {nullptr, "", true},    {nullptr, nullptr, true},
                 {nullptr, "a", false}, {"abc", "abc", true},   {"abc", "abcd", false}, {"abc", "Ab", false}};
    for (const auto &[text, prefix, expected] : cases)
        EXPECT_EQ(memm::begins_with(text, prefix), expected) << (text ? text : "-") << ' ' << (prefix ? prefix : "-");
}
