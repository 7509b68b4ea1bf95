// Calendar seconds are counted from 1970-01-01T00:00:00Z, in UTC, in the Gregorian calendar, without leap seconds.
// No C library call: those read the time zone's files and take a lock.
#include <memmanager/platform.h>

#include <cerrno>
#include <cstdint>

namespace {

using i64 = std::int64_t;

constexpr i64 kSecondsPerDay = 86400;
constexpr i64 kDaysPerEra = 146097;       // 400 years
constexpr i64 kDaysBeforeEpoch = 719468;  // from 0000-03-01 to 1970-01-01
constexpr int kThursday = 4;              // 1970-01-01

constexpr i64 floor_div(i64 value, i64 by) noexcept { return value / by - (value % by < 0 ? 1 : 0); }

struct Date {
    i64 year;
    int month;  // 0-11
    int day;    // 1-31
};

// Years are counted from March in here, which puts the leap day at their end, and the months' days into one straight
// line: month m of a year begins at day (153 m + 2) / 5.
constexpr i64 days_since_epoch(i64 year, int month) noexcept
{
    const int month_from_march = (month + 10) % 12;
    year -= month < 2 ? 1 : 0;
    const i64 era = floor_div(year, 400);
    const i64 year_of_era = year - era * 400;
    const i64 days = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + (153 * month_from_march + 2) / 5;
    return era * kDaysPerEra + days - kDaysBeforeEpoch;
}

constexpr Date date_of(i64 days) noexcept
{
    days += kDaysBeforeEpoch;
    const i64 era = floor_div(days, kDaysPerEra);
    const i64 day_of_era = days - era * kDaysPerEra;
    const i64 year_of_era = (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    const i64 day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const int month_from_march = static_cast<int>((5 * day_of_year + 2) / 153);
    const int month = (month_from_march + 2) % 12;
    return {era * 400 + year_of_era + (month < 2 ? 1 : 0), month,
            static_cast<int>(day_of_year) - (153 * month_from_march + 2) / 5 + 1};
}

static_assert(days_since_epoch(1970, 0) == 0 && days_since_epoch(2000, 2) == 11017);

}  // namespace

extern "C" {

[[gnu::weak]] unsigned xtm_time_date_struct(xtm_date *record, unsigned seconds, int, int)
{
    if (record == nullptr) {
        return EINVAL;
    }
    const i64 days = seconds / kSecondsPerDay;
    const int time = static_cast<int>(seconds % kSecondsPerDay);
    const Date date = date_of(days);
    *record = {.seconds = time % 60,
               .minutes = time / 60 % 60,
               .hours = time / 3600,
               .day = date.day,
               .month = date.month,
               .years = static_cast<int>(date.year) - 1900,
               .weekday = static_cast<int>((days + kThursday) % 7),
               .yearday = static_cast<int>(days - days_since_epoch(date.year, 0)),
               .daylightsaving = 0,
               .timezone = 0};
    return 0;
}

// Fields out of their range carry into the next one. No field is left out but those that the others imply (weekday,
// yearday) and those that UTC has not. 64 bits hold every sum of 32-bit fields; the result is its lower half.
[[gnu::weak]] unsigned xtm_time_date_struct_to_seconds(unsigned *seconds, xtm_date *record)
{
    if (seconds == nullptr || record == nullptr) {
        return EINVAL;
    }
    const i64 years = floor_div(record->month, 12);
    const int month = static_cast<int>(record->month - years * 12);
    const i64 days = days_since_epoch(i64{record->years} + 1900 + years, month) + record->day - 1;
    const i64 hours = days * 24 + record->hours;
    const i64 minutes = hours * 60 + record->minutes;
    *seconds = static_cast<unsigned>(minutes * 60 + record->seconds);
    return 0;
}

[[gnu::weak]] unsigned xtm_gettimezone(int *timezone)
{
    if (timezone == nullptr) {
        return EINVAL;
    }
    *timezone = 0;
    return 0;
}

[[gnu::weak]] unsigned xtm_getdaylightsaving(int *flag)
{
    if (flag == nullptr) {
        return EINVAL;
    }
    *flag = 0;
    return 0;
}
}
