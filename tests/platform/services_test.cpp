// Memory, tasks, clock and calendar: the small platform operations.
#include <memmanager/platform.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <thread>

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

int own_id()
{
    int id = -1;
    EXPECT_EQ(vemo_t_ident(0, 0, &id), 0U);
    return id;
}

TEST(task, has_the_kernels_identity_also_after_fork)
{
    EXPECT_EQ(own_id(), gettid());
    std::thread([] { EXPECT_EQ(own_id(), gettid()); }).join();
    const pid_t child = fork();
    if (child == 0)
        _exit(own_id() == getpid() ? 0 : 1);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(task, name_is_four_characters_padded_with_blanks_and_not_terminated)
{
    const char *const names[][2] = {{"", "    "}, {"a", "a   "}, {"abcd", "abcd"}, {"longest name 15", "long"}};
    for (const auto &[full, shown] : names) {
        ASSERT_EQ(pthread_setname_np(pthread_self(), full), 0);
        char name[8] = "#######";
        std::thread([&name, id = own_id()] { EXPECT_EQ(xt_getname(id, name), 0U); }).join();
        EXPECT_EQ(std::string(name), std::string(shown) + "###");
    }
    for (const int id : {0, -1, INT_MIN, INT_MAX, 1}) {  // 1 is another process
        char name[8] = "#######";
        errno = 0;
        EXPECT_NE(xt_getname(id, name), 0U) << id;
        EXPECT_STREQ(name, "#######");
        EXPECT_EQ(errno, 0);
    }
}

TEST(memory, of_a_pool_is_zeroed_and_aligned_whatever_the_heap_held_before)
{
    for (const unsigned size : {0U, 1U, 15U, 16U, 200U, 4096U, 70001U, 3000000U}) {
        void *block = nullptr;
        ASSERT_EQ(xm_getmem(size, &block), 0U);
        ASSERT_NE(block, nullptr) << size;
        std::memset(block, 0xff, size);
        EXPECT_EQ(xm_retmem(block), 0U);
        ASSERT_EQ(xm_alloc("test", 1, size, &block), 0U);
        ASSERT_NE(block, nullptr) << size;
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 16, 0U) << size;
        EXPECT_EQ(std::string(static_cast<char *>(block), size), std::string(size, '\0'));
        std::free(block);  // the library never does; here it gives the next round a used heap
    }
    EXPECT_EQ(xm_retmem(nullptr), 0U);
}

TEST(clock, is_the_monotonic_one_split_into_seconds_and_microseconds)
{
    const auto now = [] {
        timespec time{};
        clock_gettime(CLOCK_MONOTONIC, &time);
        return std::int64_t{time.tv_sec} * 1000000 + time.tv_nsec / 1000;
    };
    for (int round = 0; round < 1000; ++round) {
        unsigned seconds = 0, microseconds = 0;
        const std::int64_t before = now();
        xtm_gettimestamp(&seconds, &microseconds);
        const std::int64_t stamp = std::int64_t{seconds} * 1000000 + microseconds;
        ASSERT_TRUE(microseconds < 1000000 && before <= stamp && stamp <= now());
    }
}

// ---- the calendar, against the C library's, in which time_t has 64 bits ----

// The C library's result holds for years that fit; the calendar repeats every 400 years, which carries it to all
// others.
void expect_same_seconds(xtm_date date)
{
    const int cycles = date.years / 400;
    std::tm tm{};
    tm.tm_sec = date.seconds, tm.tm_min = date.minutes, tm.tm_hour = date.hours;
    tm.tm_mday = date.day, tm.tm_mon = date.month, tm.tm_year = date.years - cycles * 400;
    unsigned seconds = 0;
    ASSERT_EQ(xtm_time_date_struct_to_seconds(&seconds, &date), 0U);
    ASSERT_EQ(seconds, static_cast<unsigned>(timegm(&tm) + std::int64_t{cycles} * 146097 * 86400))
        << date.years << ' ' << date.month << ' ' << date.day << ' ' << date.hours << ' ' << date.minutes;
}

void expect_same_date(unsigned seconds)
{
    xtm_date date;
    ASSERT_EQ(xtm_time_date_struct(&date, seconds, 0, 1), 0U);
    ASSERT_EQ(xtm_gettimezone(&date.timezone) | xtm_getdaylightsaving(&date.daylightsaving), 0U);
    const std::time_t time = seconds;
    std::tm tm{};
    gmtime_r(&time, &tm);
    const xtm_date expected{tm.tm_sec,  tm.tm_min,  tm.tm_hour, tm.tm_mday, tm.tm_mon,
                            tm.tm_year, tm.tm_wday, tm.tm_yday, 0,          0};
    ASSERT_EQ(std::memcmp(&date, &expected, sizeof date), 0) << seconds;
    expect_same_seconds(date);
}

TEST(calendar, agrees_with_the_c_library_for_dates_of_any_kind)
{
    std::mt19937 random(std::random_device{}());
    const auto number = [&] { return static_cast<int>(static_cast<unsigned>(random())) >> random() % 32; };
    for (const unsigned seconds : {0U, 86399U, 86400U, 951782400U, 951868799U, 4107542399U, 4107542400U, UINT_MAX})
        expect_same_date(seconds);  // around leap days and the year 2100, which has none
    for (int round = 0; round < 20000 && !HasFatalFailure(); ++round) {
        expect_same_date(static_cast<unsigned>(random()));
        expect_same_seconds({number(), number(), number(), number(), number(), number(), number(), 0, 0, 0});
    }
    for (const int extreme : {INT_MIN, INT_MAX})
        expect_same_seconds({extreme, extreme, extreme, extreme, extreme, extreme, 0, 0, 0, 0});
}

TEST(small_operations, answer_an_error_to_null_and_write_nothing)
{
    unsigned value = 7;
    xtm_date date{};
    xtm_gettimestamp(&value, nullptr);
    xtm_gettimestamp(nullptr, &value);
    for (const unsigned result :
         {xm_alloc("test", 1, 1, nullptr), xm_getmem(1, nullptr), vemo_t_ident(0, 0, nullptr),
          xt_getname(own_id(), nullptr), xtm_time_date_struct(nullptr, 1, 0, 1), xtm_gettimezone(nullptr),
          xtm_getdaylightsaving(nullptr), xtm_time_date_struct_to_seconds(nullptr, &date),
          xtm_time_date_struct_to_seconds(&value, nullptr)})
        EXPECT_NE(result, 0U);
    EXPECT_EQ(value, 7U);
}

}  // namespace
