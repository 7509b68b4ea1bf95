#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/lock.h>
#include <memmanager/memmanager.h>
#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <thread>

namespace {

using Strings = std::vector<std::string>;

constexpr const char *kHeader =
    " name          depth  active lock count wait count total (msec)   avg (msec)   max (msec) \r\n"
    " ----          -----  ------ ---------- ---------- ------------   ----------   ---------- \r\n";

struct Registered : LOCK {
    explicit Registered(const char *its_name) : LOCK{} { EXPECT_EQ(lock_initlock(this, its_name), 0); }
};

std::string state(const LOCK &lock)
{
    return text("%s %d, depth %d, %u takes, %u waits of %u us, at most %u", lock.owner_name, lock.owner, lock.depth,
                lock.lock_count, lock.wait_count, lock.total_wait, lock.max_wait);
}

TEST(locks, count_nested_holds_and_name_no_owner)
{
    LOCK lock;
    std::memset(&lock, 0xa5, sizeof lock);
    EXPECT_EQ(lock_initlock(&lock, "outer"), 0);
    for (int depth = 1; depth <= 3; ++depth)
        EXPECT_EQ(lock_lock(&lock, 99, "tag"), depth);
    EXPECT_EQ(state(lock), "---- -1, depth 3, 3 takes, 0 waits of 0 us, at most 0");
    lock.owner = 7;
    for (int depth = 2; depth >= 0; --depth) {
        EXPECT_EQ(lock_unlock(&lock), 0);
        EXPECT_EQ(lock.depth, depth);
        EXPECT_EQ(lock.owner, depth > 0 ? 7 : -1);
    }
    EXPECT_NE(lock_unlock(&lock), 0) << "the platform's answer";
    EXPECT_EQ(lock.depth, -1);
    EXPECT_EQ(recorder().take_mutex_calls(),
              (Strings{"create(outer,1)", "p(1,0)", "p(1,0)", "p(1,0)", "v", "v", "v", "v"}));

    EXPECT_EQ(lock_initlock(nullptr, "x"), MEMM_E_INVALID);
    EXPECT_EQ(lock_lock(nullptr, 0, "x"), -1);
    EXPECT_EQ(lock_unlock(nullptr), 0);
    lock_print_stats(nullptr, 1);
    recorder().fail_nth(Op::create, 1, 77);
    EXPECT_EQ(lock_initlock(&lock, nullptr), 77);
    EXPECT_EQ(recorder().take_mutex_calls(), Strings{"create(-unknown-,1)"});
    EXPECT_LT(lock_lock(&lock, 0, "x"), 1);
    EXPECT_EQ(recorder().take_trace(), "mutex lock error (-unknown-)");
    EXPECT_EQ(recorder().take_debug(), "");
}

TEST(locks, wait_as_long_as_it_takes_and_account_for_all_of_it)
{
    Registered lock("busy");
    const std::string round = "[busy] --- Task[TEST](waiter) --- Lock timeout. Active Task[----]. Retrying...\r\n";
    const std::string failure = "mutex lock error (busy)";
    const struct {
        std::vector<unsigned> answers;
        const char *tag, *filter;
        int level, printed, result;
        std::string traced;
    } attempts[] = {
        {{6, 6, 6, 0}, "waiter", "", 2, 0, 1, round + round},
        {{1, 6, 0}, "waiter", "BUS", 1, 0, 2, ""},
        {{6, 6, 9}, "waiter", "bus", 2, 0, 0, round + failure},
        {{6, 9}, "waiter", "", 1, -3, -3, failure},
        {{6, 9}, "waiter", "other", 2, -3, 0, ""},
    };
    for (unsigned microseconds = 1500; const auto &attempt : attempts) {
        recorder().script_xmu_p(attempt.answers);
        recorder().set_clock(100, 999999, microseconds);  // the two readings are one step apart
        recorder().print_result = attempt.printed;
        lock_settrace(attempt.filter, attempt.level);
        EXPECT_EQ(lock_lock(&lock, 0, attempt.tag), attempt.result);
        EXPECT_EQ(recorder().take_trace(), attempt.traced);
        microseconds -= 800;
    }
    const Strings calls = recorder().take_mutex_calls();
    EXPECT_EQ(Strings(calls.begin(), calls.begin() + 5),
              (Strings{"create(busy,1)", "p(1,0)", "p(0,10000)", "p(0,10000)", "p(0,10000)"}));
    EXPECT_EQ(state(lock), "---- -1, depth 2, 2 takes, 2 waits of 2200 us, at most 1500");
}

TEST(locks, table_shows_the_first_50_records_in_both_forms)
{
    lock_print_allstats();
    EXPECT_EQ(recorder().take_debug(), "\r\n");
    Registered idle("idle"), held("a name of more than thirteen"), unnamed(nullptr);
    lock_lock(&held, 0, "x");
    held.total_wait = held.max_wait = 1500;
    held.wait_count = 1;
    unnamed.wait_count = 3000000000U;
    unnamed.lock_count = unnamed.total_wait = 4294967295U;
    unnamed.max_wait = 4294966000U;
    lock_print_allstats();
    EXPECT_EQ(recorder().take_debug(), kHeader + lines(R"(
 idle              0                  0          0            -            -            -|
 a name of more than thirteen     1    ----          1          1        1.500        1.500        1.500 |
 -unknown-         0         4294967295 3000000000  4294967.500        0.001  4294966.000 |
|
)"));
    static LOCK others[48];
    for (LOCK &lock : others) {
        EXPECT_EQ(lock_initlock(&lock, nullptr), 0);
        EXPECT_EQ(lock_lock(&lock, 0, nullptr), 1);
    }
    lock_print_allstats();
    const std::string table = recorder().take_debug();
    EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 2 + 50 + 1);
    lock_clear_allstats();
    EXPECT_EQ(others[46].lock_count, 0U);
    EXPECT_EQ(others[47].lock_count, 1U) << "the 51st works without being listed";
    lock_print_stats(&others[46], 1);
    EXPECT_EQ(recorder().take_debug(), kHeader + lines(R"(
 -unknown-         1    ----          0          0            -            -            -|
)"));
    EXPECT_EQ(state(held), "---- -1, depth 1, 0 takes, 0 waits of 0 us, at most 0");
}

// The C library prints what a plain float calculation gives; halves of a thousandth come from counters below 2^23.
TEST(locks, times_are_those_of_single_precision_to_the_last_digit)
{
    Registered lock("digits");
    std::mt19937 random(4);
    const auto any_size = [&random] { return static_cast<unsigned>(random() >> random() % 32); };
    for (int round = 0; round < scaled(20000); ++round) {
        lock.max_wait = any_size();
        lock.wait_count = round % 4 == 0 ? 1U << random() % 12 : any_size() | 1;
        lock.total_wait = round % 4 == 0 ? 125U * static_cast<unsigned>(random() % 4096) : any_size();
        const volatile float total_us = static_cast<float>(lock.total_wait), max_us = static_cast<float>(lock.max_wait);
        const volatile float total = total_us / 1000.0F, waits = static_cast<float>(lock.wait_count);
        const volatile float average = total / waits, longest = max_us / 1000.0F;
        lock_print_stats(&lock, 0);
        ASSERT_EQ(recorder().take_debug(),
                  text(" %-13s %5d %7s %10u %10u %12.3f %12.3f %12.3f \r\n", "digits", 0, "", 0U, lock.wait_count,
                       static_cast<double>(total), static_cast<double>(average), static_cast<double>(longest)));
    }
}

TEST(locks, count_exactly_while_others_read_the_table_and_set_the_filter)
{
    Registered lock("shared");
    const int rounds = scaled(4000);
    std::vector<std::thread> takers;
    for (int i = 0; i < 4; ++i)
        takers.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                EXPECT_EQ(lock_lock(&lock, 0, "taker"), 1);
                EXPECT_EQ(lock_lock(&lock, 0, "taker"), 2);
                lock_unlock(&lock);
                lock_unlock(&lock);
            }
        });
    for (int i = 0; i < 100; ++i) {
        lock_print_allstats();
        lock_settrace(i % 2 == 0 ? "shared" : "", i % 3);
        EXPECT_GE(lock_gettrace("shared", 0), 1);
    }
    for (std::thread &taker : takers)
        taker.join();
    EXPECT_EQ(lock.lock_count, 8U * static_cast<unsigned>(rounds));
    EXPECT_EQ(lock.depth, 0);
    EXPECT_GE(lock.total_wait, lock.max_wait);
}

TEST(trace_switches, select_by_level_and_by_the_locks_name)
{
    EXPECT_EQ(lock_gettracelevel(), 2);
    const char *const cases[][4] = {{"mem", "mem", "MEMM", "me"},
                                    {"-UNK", "-UNK", nullptr, "x"},
                                    {"0123456789012345678901234", "0123456789012345678", "01234567890123456789", "01"}};
    for (const int level : {2, 7, -2, 0})
        for (const auto &[filter, shown, let_pass, kept_out] : cases) {
            lock_settrace(filter, level);
            EXPECT_STREQ(lock_getapplfilter(), shown);
            EXPECT_EQ(lock_gettrace("", -9), level);
            EXPECT_EQ(lock_gettracelevel(), level);
            for (const int asked : {0, 1, 2, 3, 7, 8}) {
                EXPECT_EQ(lock_gettrace(let_pass, asked), level >= asked) << level;
                EXPECT_EQ(lock_gettrace(kept_out, asked), 0) << level;
            }
        }
    lock_settrace(nullptr, 1);
    EXPECT_EQ(lock_gettrace("any", 1) & lock_gettrace(nullptr, 1), 1);

    EXPECT_EQ(memm_get_trace(-1), 2);
    for (const auto &[set, stored] : {std::pair{7, 2}, {2, 2}, {1, 1}, {0, 0}, {-5, -5}}) {
        memm_set_trace(set);
        EXPECT_EQ(memm_get_trace(-1), stored);
        for (const int asked : {-5, 1, 2})
            EXPECT_EQ(memm_get_trace(asked), stored >= asked);
    }
    memm_set_fast_trelk_locking();
    for (const char *tag : {"mine", static_cast<const char *>(nullptr)}) {
        memm_lock(tag);
        memm_lock("nested");
        EXPECT_EQ(recorder().manager_lock_depth(), 2U);
        memm_unlock();
        memm_unlock();
    }
    EXPECT_EQ(recorder().take_tags(), (Strings{"mine", "-unknown-"}));
}

}  // namespace
