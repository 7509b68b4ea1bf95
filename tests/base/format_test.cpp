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

struct Written {
    bool accepted;
    std::string text;
};

Written bounded(const char *format, ...)
{
    Written written{};
    va_list arguments;
    va_start(arguments, format);
    const auto append = [](void *text, const char *bytes, std::size_t count) noexcept {
        static_cast<std::string *>(text)->append(bytes, count);
    };
    written.accepted = memm::format({append, &written.text}, format, arguments);
    va_end(arguments);
    return written;
}

// Both must print the same; width and precision arguments come first where the format has stars.
template <class... Values> void expect_as_in_libc(const std::string &format, Values... values)
{
    char expected[512];
    const int length = std::snprintf(expected, sizeof expected, format.c_str(), values...);
    ASSERT_TRUE(length >= 0 && static_cast<std::size_t>(length) < sizeof expected) << format;
    const Written written = bounded(format.c_str(), values...);
    ASSERT_TRUE(written.accepted) << format;
    ASSERT_EQ(written.text, std::string(expected, static_cast<std::size_t>(length))) << format;
}

// Every set of the five flags with a spread of widths and precisions, as digits and as arguments.
template <class... Values> void expect_all_forms_as_in_libc(const std::string &conversion, Values... values)
{
    for (int flags = 0; flags < 32 && !testing::Test::HasFatalFailure(); ++flags) {
        std::string start = "<%";
        for (int flag = 0; flag < 5; ++flag)
            if ((flags >> flag & 1) != 0)
                start += "-0+ #"[flag];
        for (const char *width : {"", "1", "6", "19", "40"})
            for (const char *precision : {"", ".", ".0", ".1", ".5", ".6", ".030"})
                expect_as_in_libc(start + width + precision + conversion + ">", values...);
        for (const int width : {-21, -1, 0, 9}) {
            expect_as_in_libc(start + "*" + conversion + ">", width, values...);
            for (const int precision : {-3, 0, 4, 20})
                expect_as_in_libc(start + "*.*" + conversion + ">", width, precision, values...);
        }
    }
}

template <class Value> void expect_integers_as_in_libc(const std::string &length)
{
    for (const char letter : std::string("diuxXo"))
        for (const long long value :
             {0LL, 1LL, -1LL, 7LL, 128LL, 32768LL, 123456789LL, LLONG_MIN, LLONG_MAX, 1LL << 32})
            expect_all_forms_as_in_libc(length + letter, static_cast<Value>(value));
}

TEST(format, prints_integers_of_every_length_and_form_as_the_c_library_does)
{
    for (const char *length : {"hh", "h", ""})
        expect_integers_as_in_libc<int>(length);
    for (const char *length : {"l", "z", "t"})
        expect_integers_as_in_libc<long>(length);
    for (const char *length : {"ll", "j"})
        expect_integers_as_in_libc<long long>(length);
}

TEST(format, prints_texts_characters_and_pointers_as_the_c_library_does)
{
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
    const auto seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto number = [&] { return static_cast<int>(random()) >> random() % 32; };
    for (int round = 0; round < 2000 && !HasFatalFailure(); ++round) {
        const int width = number() % 30, precision = number() % 30;
        expect_as_in_libc("%d%%%*s[%lld] %.*x %c%hhd\n%-*.*ld %s %p", number(), width, "text",
                          1LL * number() * number(), precision, number(), number(), number(), width, precision,
                          static_cast<long>(number()), "last", &random);
    }
    EXPECT_EQ(bounded("no conversion, 100%%").text, "no conversion, 100%");
}

TEST(format, refuses_what_it_cannot_print_before_writing_anything)
{
    std::istringstream outside("%f %5.2e %g %La %n %m %1$d %ls %lc %C %S %'d %Id %qd %y % %- %5 %. %l %5% %hs %lp "
                               "%99999999999d %.2147483648d %.-3d");
    for (std::string format; outside >> format;) {
        const Written written = bounded(("text %d " + format).c_str(), 1, 1.0);
        EXPECT_FALSE(written.accepted) << format;
        EXPECT_EQ(written.text, "") << format;
    }
}

TEST(format, into_a_buffer_cuts_terminates_and_answers_the_whole_length)
{
    for (std::size_t size = 0; size < 14; ++size) {
        char buffer[16] = "###############", expected[16] = "###############";
        const int length = std::snprintf(expected, size, "%s-%05d", "abcd", 42);
        EXPECT_EQ(memm::format_to(buffer, size, "%s-%05d", "abcd", 42), static_cast<std::size_t>(length));
        EXPECT_EQ(std::string(buffer, sizeof buffer), std::string(expected, sizeof expected)) << size;
        EXPECT_EQ(memm::format_to(buffer, size, "%.6f", 1.5), 8U) << "passed on to the C library";
        EXPECT_EQ(std::string(buffer),
                  size == 0 ? "###############" : std::string("1.500000", std::min(size - 1, std::size_t{8})));
    }
    char buffer[8] = "#";
    EXPECT_EQ(memm::format_to(buffer, sizeof buffer, "%lc", static_cast<wint_t>(0x7fffffff)), 0U);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(memm::format_to(nullptr, 0, "%d", 12345), 5U);
}

}  // namespace
