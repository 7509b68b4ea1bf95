// The bounded formatter against the C library's printf, which it must equal to the last character.
#include "base/format.h"

#include <climits>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <string>

namespace {

// The text, with "refused" in front of whatever is written when the format is not accepted.
std::string bounded(const char *format, ...)
{
    std::string text;
    const auto append = [](void *to, const char *bytes, std::size_t count) noexcept {
        static_cast<std::string *>(to)->append(bytes, count);
    };
    va_list arguments;
    va_start(arguments, format);
    const bool accepted = memm::format({append, &text}, format, arguments);
    va_end(arguments);
    return accepted ? text : "refused" + text;
}

// Both must print the same; width and precision arguments come first where the format has stars.
template <class... Values> void expect_as_in_libc(const std::string &format, Values... values)
{
    char expected[512];
    const int length = std::snprintf(expected, sizeof expected, format.c_str(), values...);
    ASSERT_EQ(bounded(format.c_str(), values...), std::string(expected, static_cast<std::size_t>(length))) << format;
}

std::mt19937 dice(std::random_device{}());
int number() { return static_cast<int>(dice()) >> dice() % 32; }

TEST(format, prints_every_conversion_in_every_form_as_the_c_library_does)
{
    const char *const texts[] = {nullptr, "", "a", "seven b", "a text of thirty characters..."};
    for (int round = 0; round < 200000 && !HasFatalFailure(); ++round) {
        std::string form = "<%";
        for (unsigned flags = static_cast<unsigned>(dice()) % 32; flags != 0; flags &= flags - 1)
            form += "-0+ #"[__builtin_ctz(flags)];
        const int width = number() % 41, precision = number() % 31, value = number();
        const bool has_stars = dice() % 2 == 0;
        form += has_stars
                    ? "*.*"
                    : (width > 0 ? std::to_string(width) : "") + (precision > 0 ? "." + std::to_string(precision) : "");
        const auto expect = [&](const std::string &conversion, auto argument) {
            if (has_stars)
                expect_as_in_libc(form + conversion + ">%d", width, precision, argument, 4711);
            else
                expect_as_in_libc(form + conversion + ">%d", argument, 4711);
        };
        const std::string letter(1, "diuxXo"[dice() % 6]);
        const auto wide = dice() % 9 == 0 ? LLONG_MIN : (1LL * value * number()) >> (dice() % 2 * 32);
        const std::string small[] = {"", "h", "hh"};
        const std::function<void()> ways[] = {
            [&] { expect(small[dice() % 3] + letter, value); },
            [&] { expect(std::string(1, "lzt"[dice() % 3]) + letter, static_cast<long>(wide)); },
            [&] { expect((dice() % 2 == 0 ? "ll" : "j") + letter, wide); },
            [&] { expect("s", texts[dice() % 5]); },
            [&] { expect("c", value); },
            [&] { expect("p", reinterpret_cast<void *>(static_cast<std::uintptr_t>(dice() % 4 == 0 ? 0 : wide))); },
        };
        ways[dice() % std::size(ways)]();
    }
    const char unterminated[] = {'a', 'b', 'c'};
    expect_as_in_libc("%.3s|%5.2s|100%%%.s", unterminated, unterminated, "cut");
}

TEST(format, refuses_what_it_cannot_print_before_writing_anything)
{
    for (const char *format :
         {"%f", "%n", "%m", "%1$d", "%ls", "%'d", "%y", "%", "%5", "%.", "%l", "%hs", "%99999999999d", "%.-3d"})
        EXPECT_EQ(bounded(("text %d " + std::string(format)).c_str(), 1, 1.0), "refused") << format;
}

}  // namespace
