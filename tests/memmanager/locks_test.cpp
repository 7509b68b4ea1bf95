#include "support/recording_platform.h"

#include <memmanager/lock.h>
#include <memmanager/memmanager.h>
#include <algorithm>
#include <cstdio>
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

TEST(locks, count_nested_holds_and_name_no_owner)
{
    LOCK lock;
    std::memset(&lock, 0xa5, sizeof lock);
    EXPECT_EQ(lock_initlock(&lock, "outer"), 0);
    EXPECT_EQ(std::string(lock.owner_name), "----");
    for (int depth = 1; depth <= 3; ++depth) {
        EXPECT_EQ(lock_lock(&lock, 99, "tag"), depth);
    }
    EXPECT_EQ(lock.owner, -1);
    EXPECT_EQ(lock.lock_count, 3U);
    EXPECT_EQ(lock.wait_count, 0U);
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
}

TEST(locks, refuse_null_records_and_pass_on_the_platforms_codes)
{
    EXPECT_EQ(lock_initlock(nullptr, "x"), MEMM_E_INVALID);
    EXPECT_EQ(lock_lock(nullptr, 0, "x"), -1);
    EXPECT_EQ(lock_unlock(nullptr), 0);
    lock_print_stats(nullptr, 1);
    EXPECT_EQ(recorder().take_debug(), "");

    LOCK lock;
    recorder().fail_nth(Op::create, 1, 77);
    EXPECT_EQ(lock_initlock(&lock, nullptr), 77);
    EXPECT_EQ(recorder().take_mutex_calls(), Strings{"create(-unknown-,1)"});
    EXPECT_LT(lock_lock(&lock, 0, "x"), 1);
    EXPECT_EQ(recorder().take_trace(), "mutex lock error (-unknown-)");
    lock_print_allstats();
    EXPECT_EQ(recorder().take_debug(),
              std::string(kHeader) +
                  " -unknown-         0                  0          0            -            -            -\r\n\r\n");
}

TEST(locks, wait_as_long_as_it_takes_and_account_for_all_of_it)
{
    Registered lock("busy");
    recorder().script_xmu_p({6, 6, 6, 0});
    const std::string round = "[busy] --- Task[TEST](waiter) --- Lock timeout. Active Task[----]. Retrying...\r\n";
    recorder().set_clock(100, 999999, 1500);  // the two readings are one step apart
    EXPECT_EQ(lock_lock(&lock, 0, "waiter"), 1);
    EXPECT_EQ(recorder().take_trace(), round + round);
    EXPECT_EQ(recorder().take_mutex_calls(),
              (Strings{"create(busy,1)", "p(1,0)", "p(0,10000)", "p(0,10000)", "p(0,10000)"}));

    recorder().set_clock(200, 0, 700);
    recorder().script_xmu_p({1, 6, 0});
    lock_settrace("BUS", 1);  // the round is level 2
    EXPECT_EQ(lock_lock(&lock, 0, nullptr), 2);
    lock_settrace(nullptr, 2);
    recorder().script_xmu_p({6, 6, 9});
    EXPECT_EQ(lock_lock(&lock, 0, nullptr), 0);
    EXPECT_EQ(recorder().take_trace(),
              "[busy] --- Task[TEST](-unknown-) --- Lock timeout. Active Task[----]. Retrying...\r\n"
              "mutex lock error (busy)");
    recorder().print_result = -3;
    recorder().script_xmu_p({6, 9});
    EXPECT_EQ(lock_lock(&lock, 0, "x"), -3);
    recorder().take_trace();
    lock_settrace("other", 2);
    recorder().script_xmu_p({6, 9});
    EXPECT_EQ(lock_lock(&lock, 0, "x"), 0);

    EXPECT_EQ(lock.lock_count, 2U);
    EXPECT_EQ(lock.wait_count, 2U);
    EXPECT_EQ(lock.total_wait, 2200U);
    EXPECT_EQ(lock.max_wait, 1500U);
    EXPECT_EQ(lock.depth, 2);
}

TEST(locks, table_shows_every_record_in_both_forms)
{
    lock_print_allstats();
    EXPECT_EQ(recorder().take_debug(), "\r\n");

    Registered idle("idle"), held("a name of more than thirteen"), unnamed(nullptr);
    lock_lock(&held, 0, "x");
    held.total_wait = held.max_wait = 1500;
    held.wait_count = 1;
    unnamed.wait_count = 3000000000U;
    unnamed.lock_count = 4294967295U;
    unnamed.total_wait = 4294967295U;
    unnamed.max_wait = 4294966000U;
    lock_print_allstats();
    EXPECT_EQ(recorder().take_debug(),
              std::string(kHeader) +
                  " idle              0                  0          0            -            -            -\r\n"
                  " a name of more than thirteen     1    ----          1          1        1.500        1.500        "
                  "1.500 \r\n"
                  " -unknown-         0         4294967295 3000000000  4294967.500        0.001  4294966.000 \r\n\r\n");

    lock_clear_allstats();
    EXPECT_EQ(held.depth, 1);
    EXPECT_EQ(held.total_wait + held.max_wait, 0U);
    lock_print_stats(&held, 0);
    EXPECT_EQ(
        recorder().take_debug(),
        " a name of more than thirteen     1    ----          0          0            -            -            -\r\n");
    lock_print_stats(&idle, 1);
    EXPECT_EQ(recorder().take_debug().find(kHeader), 0U);
    lock_unlock(&held);
}

// The C library prints what a plain float calculation gives; halves of a thousandth come from counters below 2^23.
TEST(locks, times_are_those_of_single_precision_to_the_last_digit)
{
    Registered lock("digits");
    std::mt19937 random(4);
    const auto any_size = [&random] { return static_cast<unsigned>(random() >> random() % 32); };
    for (int round = 0; round < scaled(20000); ++round) {
        lock.total_wait = any_size();
        lock.max_wait = any_size();
        lock.wait_count = any_size() | 1;
        if (round % 4 == 0) {
            lock.wait_count = 1U << random() % 12;
            lock.total_wait = 125U * static_cast<unsigned>(random() % 4096);
        }
        const volatile float total_us = static_cast<float>(lock.total_wait), max_us = static_cast<float>(lock.max_wait);
        const volatile float total = total_us / 1000.0F, waits = static_cast<float>(lock.wait_count);
        const volatile float average = total / waits, longest = max_us / 1000.0F;
        char expected[160];
        std::snprintf(expected, sizeof expected, " %-13s %5d %7s %10lu %10lu %12.3f %12.3f %12.3f \r\n", "digits", 0,
                      "", 0UL, static_cast<unsigned long>(lock.wait_count), static_cast<double>(total),
                      static_cast<double>(average), static_cast<double>(longest));
        lock_print_stats(&lock, 0);
        ASSERT_EQ(recorder().take_debug(), expected);
    }
}

TEST(locks, the_51st_works_without_being_listed)
{
    static LOCK locks[51];
    for (LOCK &lock : locks) {
        EXPECT_EQ(lock_initlock(&lock, "many"), 0);
        EXPECT_EQ(lock_lock(&lock, 0, "x"), 1);
    }
    lock_print_allstats();
    const std::string table = recorder().take_debug();
    EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 2 + 50 + 1);
    lock_clear_allstats();
    EXPECT_EQ(locks[49].lock_count, 0U);
    EXPECT_EQ(locks[50].lock_count, 1U);
    for (LOCK &lock : locks) {
        EXPECT_EQ(lock_unlock(&lock), 0);
    }
}

TEST(locks, count_exactly_while_others_read_the_table_and_set_the_filter)
{
    Registered lock("shared");
    const int rounds = scaled(4000);
    std::vector<std::thread> takers;
    long guarded = 0;
    for (int i = 0; i < 4; ++i) {
        takers.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                EXPECT_EQ(lock_lock(&lock, 0, "taker"), 1);
                ++guarded;
                EXPECT_EQ(lock_lock(&lock, 0, "taker"), 2);
                lock_unlock(&lock);
                lock_unlock(&lock);
            }
        });
    }
    for (int i = 0; i < 100; ++i) {
        lock_print_allstats();
        lock_settrace(i % 2 == 0 ? "shared" : "", i % 3);
        EXPECT_GE(lock_gettrace("shared", 0), 1);
    }
    for (std::thread &taker : takers) {
        taker.join();
    }
    EXPECT_EQ(guarded, 4L * rounds);
    EXPECT_EQ(lock.lock_count, 8U * static_cast<unsigned>(rounds));
    EXPECT_EQ(lock.depth, 0);
    EXPECT_LE(lock.wait_count, lock.lock_count);
    EXPECT_GE(lock.total_wait, lock.max_wait);
}

TEST(trace_switches, select_by_level_and_by_the_locks_name)
{
    EXPECT_EQ(lock_gettrace("any", 2), 1);
    EXPECT_EQ(lock_gettrace("any", 3), 0);
    lock_settrace("mem", 2);
    EXPECT_EQ(lock_gettrace("MEMM", 1), 1);
    EXPECT_EQ(lock_gettrace("DYN", 1), 0);
    EXPECT_EQ(lock_gettrace("me", 1), 0);
    EXPECT_EQ(lock_gettrace(nullptr, 1), 0);
    lock_settrace("-UNK", 0);
    EXPECT_EQ(lock_gettrace(nullptr, 0), 1);
    EXPECT_EQ(lock_gettrace(nullptr, 1), 0);
    lock_settrace("0123456789012345678901234", 7);
    EXPECT_EQ(std::string(lock_getapplfilter()), "0123456789012345678");
    EXPECT_EQ(lock_gettrace("x", -9), 7);
    lock_settrace(nullptr, -2);
    EXPECT_EQ(std::string(lock_getapplfilter()), "");
    EXPECT_EQ(lock_gettracelevel(), -2);
    EXPECT_EQ(lock_gettrace("x", 0), 0);

    struct Case {
        int set, stored, failures, details;
    };
    EXPECT_EQ(memm_get_trace(-1), 2);
    for (const Case &c : {Case{7, 2, 1, 1}, {2, 2, 1, 1}, {1, 1, 1, 0}, {0, 0, 0, 0}, {-5, -5, 0, 0}}) {
        memm_set_trace(c.set);
        EXPECT_EQ(memm_get_trace(-1), c.stored);
        EXPECT_EQ(memm_get_trace(1), c.failures);
        EXPECT_EQ(memm_get_trace(2), c.details);
    }
    EXPECT_EQ(memm_get_trace(-5), 1);
}

TEST(manager_lock, is_taken_under_the_callers_tag_or_as_unknown)
{
    memm_set_fast_trelk_locking();
    memm_lock("mine");
    memm_lock("nested");
    EXPECT_EQ(recorder().manager_lock_depth(), 2U);
    memm_unlock();
    memm_unlock();
    memm_lock(nullptr);
    memm_unlock();
    EXPECT_EQ(recorder().take_tags(), (Strings{"mine", "-unknown-"}));
}

}  // namespace
