// The bounded formatter against the C library's printf, which it must equal to the last character.
#include "base/format.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <random>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

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

// Every set of the five flags with a spread of widths and precisions, as digits and as arguments.
template <class... Values> void expect_all_forms_as_in_libc(const std::string &conversion, Values... values)
{
    for (int flags = 0; flags < 32 && !testing::Test::HasFatalFailure(); ++flags) {
        std::string start = "<%";
        for (int flag = 0; flag < 5; ++flag)
            start.append(flags >> flag & 1, "-0+ #"[flag]);
        for (const int width : {-21, 0, 1, 6, 19, 40})
            for (const int precision : {-3, 0, 1, 5, 30}) {
                const std::string digits = precision < 0 ? "" : "." + std::to_string(precision);
                expect_as_in_libc(start + (width > 0 ? std::to_string(width) : "") + digits + conversion, values...);
                expect_as_in_libc(start + "*.*" + conversion + ">", width, precision, values...);
            }
    }
}

template <class Value> void expect_integers_as_in_libc(std::initializer_list<const char *> lengths)
{
    for (const std::string length : lengths)
        for (const char letter : {'d', 'i', 'u', 'x', 'X', 'o'})
            for (const long long value :
                 {0LL, 1LL, -1LL, 7LL, 128LL, 32768LL, 123456789LL, LLONG_MIN, LLONG_MAX, 1LL << 32})
                expect_all_forms_as_in_libc(length + letter, static_cast<Value>(value));
}

TEST(format, prints_every_conversion_in_every_form_as_the_c_library_does)
{
    expect_integers_as_in_libc<int>({"hh", "h", ""});
    expect_integers_as_in_libc<long>({"l", "z", "t"});
    expect_integers_as_in_libc<long long>({"ll", "j"});
    for (const char *text : {static_cast<const char *>(nullptr), "", "a", "seven b", "a text of thirty characters..."})
        expect_all_forms_as_in_libc("s", text);
    for (const int character : {0, int{'x'}, 0xe9, 256 + 'y'})
        expect_all_forms_as_in_libc("c", character);
    for (const std::uintptr_t address : {std::uintptr_t{0}, std::uintptr_t{0xbeef}, UINTPTR_MAX})
        expect_all_forms_as_in_libc("p", reinterpret_cast<void *>(address));
    const char unterminated[] = {'a', 'b', 'c'};
    expect_as_in_libc("%.3s|%5.2s", unterminated, unterminated);
}

TEST(format, keeps_its_place_in_the_argument_list)
{
    std::mt19937 random(std::random_device{}());
    const auto number = [&] { return static_cast<int>(random()) >> random() % 32; };
    for (int round = 0; round < 2000 && !HasFatalFailure(); ++round) {
        const int width = number() % 30, precision = number() % 30;
        expect_as_in_libc("%d%%%*s[%lld] %.*x %c%hhd\n%-*.*ld %.s|%.030d%p 100%%", number(), width, "text",
                          1LL * number() * number(), precision, number(), number(), number(), width, precision,
                          static_cast<long>(number()), "cut", number(), &random);
    }
}

TEST(format, refuses_what_it_cannot_print_before_writing_anything)
{
    std::istringstream outside("%f %5.2e %g %La %n %m %1$d %ls %lc %C %S %'d %Id %qd %y % %- %5 %. %l %5% %hs %lp "
                               "%99999999999d %.2147483648d %.-3d");
    for (std::string format; outside >> format;)
        EXPECT_EQ(bounded(("text %d " + format).c_str(), 1, 1.0), "refused") << format;
}

TEST(format, into_a_buffer_cuts_terminates_and_answers_the_whole_length)
{
    for (const char *format : {"%s-%05d", "%s-%05d%.3f"})  // the second is passed on to the C library
        for (std::size_t size = 0; size < 16; ++size) {
            char buffer[16] = "###############", expected[16] = "###############";
            const int length = std::snprintf(expected, size, format, "abcd", 42, 1.5);
            EXPECT_EQ(memm::format_to(buffer, size, format, "abcd", 42, 1.5), static_cast<std::size_t>(length));
            EXPECT_EQ(std::string(buffer, 16), std::string(expected, 16)) << format << ' ' << size;
        }
    char buffer[8] = "#";
    EXPECT_EQ(memm::format_to(buffer, sizeof buffer, "%lc", static_cast<wint_t>(0x7fffffff)), 0U);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(memm::format_to(nullptr, 0, "%d", 12345), 5U);
}

}  // namespace
