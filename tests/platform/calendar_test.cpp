// The calendar against the C library's, in which time_t has 64 bits.
#include <memmanager/platform.h>

#include <climits>
#include <cstdint>
#include <ctime>
#include <random>

#include <gtest/gtest.h>

namespace {

void expect_as_in_libc(unsigned seconds)
{
    xtm_date date;
    ASSERT_EQ(xtm_time_date_struct(&date, seconds, 0, 1), 0U);
    ASSERT_EQ(xtm_gettimezone(&date.timezone) | xtm_getdaylightsaving(&date.daylightsaving), 0U);
    const std::time_t time = seconds;
    std::tm tm{};
    ASSERT_NE(gmtime_r(&time, &tm), nullptr);
    const int expected[] = {tm.tm_sec,  tm.tm_min,  tm.tm_hour, tm.tm_mday, tm.tm_mon,
                            tm.tm_year, tm.tm_wday, tm.tm_yday, 0,          0};
    const int actual[] = {date.seconds, date.minutes, date.hours,          date.day,     date.month, date.years,
                          date.weekday, date.yearday, date.daylightsaving, date.timezone};
    for (int field = 0; field < 10; ++field)
        ASSERT_EQ(actual[field], expected[field]) << seconds << ", field " << field;
    unsigned back = ~seconds;
    ASSERT_EQ(xtm_time_date_struct_to_seconds(&back, &date), 0U);
    ASSERT_EQ(back, seconds);
}

TEST(calendar, takes_seconds_apart_as_the_c_library_does_and_puts_them_together_again)
{
    for (const unsigned seconds : {0U, 86399U, 86400U, 951782400U, 951868799U, 4107542399U, 4107542400U, UINT_MAX})
        expect_as_in_libc(seconds);  // around leap days and the year 2100, which has none
    std::mt19937 random(std::random_device{}());
    for (int round = 0; round < 20000 && !HasFatalFailure(); ++round)
        expect_as_in_libc(static_cast<unsigned>(random()));
}

// The C library's result holds for years that fit; the calendar repeats every 400 years, which carries it to all
// others.
unsigned expected_seconds(const xtm_date &date)
{
    const int cycles = date.years / 400;
    std::tm tm{};
    tm.tm_sec = date.seconds, tm.tm_min = date.minutes, tm.tm_hour = date.hours;
    tm.tm_mday = date.day, tm.tm_mon = date.month, tm.tm_year = date.years - cycles * 400;
    return static_cast<unsigned>(timegm(&tm) + std::int64_t{cycles} * 146097 * 86400);
}

TEST(calendar, carries_fields_out_of_range_and_cuts_the_result_to_32_bits)
{
    std::mt19937 random(std::random_device{}());
    const auto number = [&] { return static_cast<int>(static_cast<unsigned>(random())) >> random() % 32; };
    const auto check = [](xtm_date date) {
        unsigned seconds = 0;
        ASSERT_EQ(xtm_time_date_struct_to_seconds(&seconds, &date), 0U);
        ASSERT_EQ(seconds, expected_seconds(date)) << date.years << ' ' << date.month << ' ' << date.day << ' '
                                                   << date.hours << ' ' << date.minutes << ' ' << date.seconds;
    };
    for (int round = 0; round < 20000 && !HasFatalFailure(); ++round)
        check({number(), number(), number(), number(), number(), number(), number(), number(), number(), number()});
    for (const int extreme : {INT_MIN, INT_MAX})
        check({extreme, extreme, extreme, extreme, extreme, extreme, 0, 0, 0, 0});
}

TEST(calendar, answers_an_error_to_null_and_writes_nothing)
{
    xtm_date date{};
    unsigned seconds = 9;
    for (const unsigned result :
         {xtm_time_date_struct(nullptr, 1, 0, 1), xtm_time_date_struct_to_seconds(nullptr, &date),
          xtm_time_date_struct_to_seconds(&seconds, nullptr), xtm_gettimezone(nullptr), xtm_getdaylightsaving(nullptr)})
        EXPECT_NE(result, 0U);
    EXPECT_EQ(seconds, 9U);
}

}  // namespace
