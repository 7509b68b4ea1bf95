// The bounded formatter against the C library's printf, which it must equal to the last character: what no model
// prints, for they print to strings.
#include "base/format.h"

#include <climits>
#include <gtest/gtest.h>
#include <random>

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

template <class... Values> void expect_as_in_libc(const std::string &format, Values... values)
{
    char expected[512];
    const int length = std::snprintf(expected, sizeof expected, format.c_str(), values...);
    ASSERT_EQ(bounded(format.c_str(), values...), std::string(expected, static_cast<std::size_t>(length))) << format;
}

TEST(format, prints_every_conversion_in_every_form_as_the_c_library_does)
{
    std::mt19937 dice(std::random_device{}());
    const auto number = [&] { return static_cast<int>(dice()) >> dice() % 32; };
    const char *const texts[] = {nullptr, "", "a", "seven b", "a text of thirty characters..."};
    for (int round = 0; round < 20000 && !testing::Test::HasFatalFailure(); ++round) {
        std::string form = "<%";
        for (unsigned flags = static_cast<unsigned>(dice()) % 32; flags != 0; flags &= flags - 1)
            form += "-0+ #"[__builtin_ctz(flags)];
        const int width = number() % 41, precision = number() % 31;
        const auto expect = [&](const std::string &conversion, auto value) {
            expect_as_in_libc(form + "*.*" + conversion + ">%d", width, precision, value, 4711);
            expect_as_in_libc(form + std::to_string(std::abs(width)) + conversion + ">%d", value, 4711);
        };
        const std::string letter(1, "diuxXo"[dice() % 6]);
        const long long wide = dice() % 9 == 0 ? LLONG_MIN : 1LL * number() * number();
        expect(std::string("hh").substr(dice() % 3) + letter, number());
        expect("lzt"[dice() % 3] + letter, static_cast<long>(wide));
        expect((dice() % 2 == 0 ? "ll" : "j") + letter, wide);
        expect("s", texts[dice() % 5]);
        expect("c", number());
        expect("p", reinterpret_cast<void *>(static_cast<std::uintptr_t>(dice() % 4 == 0 ? 0 : wide)));
    }
    const char unterminated[] = {'a', 'b', 'c'};
    expect_as_in_libc("%.3s|%5.2s|100%%%.s", unterminated, unterminated, "cut");
}

TEST(format, refuses_what_it_cannot_print_before_writing_anything)
{
    for (const std::string format :
         {"%f", "%n", "%m", "%1$d", "%ls", "%'d", "%y", "%", "%5", "%.", "%l", "%hs", "%99999999999d", "%.-3d"})
        EXPECT_EQ(bounded(("text %d " + format).c_str(), 1, 1.0), "refused") << format;
}

}  // namespace
