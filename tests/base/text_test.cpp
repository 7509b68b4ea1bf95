#include "base/text.h"

#include <string>

#include <gtest/gtest.h>

TEST(text, copies_what_fits_and_answers_the_whole_length)
{
    for (const char *source : {"abcd", static_cast<const char *>(nullptr)})
        for (std::size_t size = 0; size < 7; ++size) {
            const std::string whole = source ? source : "";
            char copy[8] = "#######";
            EXPECT_EQ(memm::copy_bounded(copy, source, size), whole.size());
            const std::string kept = size == 0 ? "" : whole.substr(0, size - 1) + '\0';
            EXPECT_EQ(std::string(copy, 7), kept + std::string(7 - kept.size(), '#')) << size;
        }
}

TEST(text, an_empty_prefix_begins_everything)
{
    const char *const null = nullptr;
    EXPECT_TRUE(memm::begins_with("abc", "") && memm::begins_with("abc", null) && memm::begins_with(null, ""));
    EXPECT_TRUE(memm::begins_with(null, null) && memm::begins_with("abc", "abc"));
    EXPECT_FALSE(memm::begins_with(null, "a") || memm::begins_with("abc", "abcd") || memm::begins_with("abc", "Ab"));
}
