#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/memmanager.h>
#include <memmanager/timestat.h>
#include <algorithm>
#include <gtest/gtest.h>

namespace {

TEST(stopwatch, borrows_seconds_wraps_and_reports_a_stop_before_the_start)
{
    memm_set_trace(-1);  // is not asked
    const struct {
        timestat watch;
        unsigned elapsed;
        const char *trace;
    } cases[] = {
        {{10, 999999, 11, 1}, 2, ""},
        {{10, 5, 10, 5}, 0, ""},
        {{0, 0, 4295, 0}, 32704, ""},
        {{10, 5, 10, 4}, 0, "[MEMM] Elapsed time error: starttime(10,5) > stoptime(10,4)\r\n"},
        {{~0U, 0, 1, 999999}, 0, "[MEMM] Elapsed time error: starttime(4294967295,0) > stoptime(1,999999)\r\n"},
    };
    for (const auto &[watch, elapsed, trace] : cases) {
        timestat read{};
        recorder().set_clock(watch.start_seconds, watch.start_microseconds);
        EXPECT_EQ(timestat_starttime(&read), 0);
        recorder().set_clock(watch.stop_seconds, watch.stop_microseconds);
        EXPECT_EQ(timestat_stoptime(&read), 0);
        EXPECT_EQ(timestat_elapstime(&read), elapsed);
        EXPECT_EQ(recorder().take_trace(), trace);
    }
    EXPECT_EQ(timestat_starttime(nullptr), MEMM_E_INVALID);
    EXPECT_EQ(timestat_stoptime(nullptr), MEMM_E_INVALID);
    EXPECT_EQ(timestat_elapstime(nullptr), 0U);
}

void print_extra(void *cookie, int *a, int *b, int *c, memm_printf_fn print)
{
    EXPECT_TRUE(a == nullptr && b == nullptr && c == nullptr);
    print("  extra %s\r\n", static_cast<const char *>(cookie));
}

TEST(timing_report, shows_the_counters_by_path)
{
    static char cookie[] = "cookie";
    memm_pooloptions options{};
    options.stats_cb = print_extra;
    options.cookie = cookie;
    const unsigned busy = make_pool("t_busy", 4, 8, options);
    make_pool("t_idle", 4);
    memm_calloc(make_pool("t_quiet", 4));
    memm_pool &pool = pool_at(busy);
    const unsigned paths[] = {8, 5, 1, 50000004, 1};  // times 100 is more than 32 bits hold
    std::copy(std::begin(paths), std::end(paths), pool.alloc_count);
    pool.alloc_time[MEMM_PATH_TOTAL] = 4294967295U;
    pool.alloc_time_max[MEMM_PATH_TOTAL] = 1001;
    pool.free_count = 3;
    pool.free_time = 9;
    pool.scan_steps = 100000009;
    recorder().set_clock(0, 0, 1);
    recorder().forget();
    memm_print_timestats("t_");
    EXPECT_EQ(recorder().take_tags(), std::vector<std::string>{"memm_print_timestats"});
    EXPECT_EQ(recorder().take_debug(), lines(R"(
 pool name                  alloc cnt: total/avg/max (msec)     |
 ---------                  ------------------------------      |
 t_busy                     8: 4294967.295/536870.911/1.001|
    - first_free            62%: 0.000/0.000/0.000|
    - last_used             12%: 0.000/0.000/0.000|
    - scan                  625000050%: 0.000/0.000/0.000 (avg steps=2)|
    - other                 12%: 0.000/0.000/0.000|
 t_quiet                    1: 0.000/0.000/0.000|
    - first_free            100%: 0.000/0.000/0.000|
|
 pool name                  free cnt: total/avg/max (msec)      |
 ---------                  ------------------------------      |
 t_busy                     3: 0.009/0.003/0.000|
  extra cookie|
Time for 1000 elapsed measurements: 2.001 msec|
)"));

    memm_clear_timestats();
    EXPECT_EQ(recorder().take_tags(), std::vector<std::string>{});
    EXPECT_EQ(pool.scan_steps + pool.free_time + pool.alloc_time[0] + pool.alloc_time_max[0], 0U);
    memm_print_timestats(nullptr);
    EXPECT_EQ(recorder().take_debug(), lines(R"(
 pool name                  alloc cnt: total/avg/max (msec)     |
 ---------                  ------------------------------      |
|
 pool name                  free cnt: total/avg/max (msec)      |
 ---------                  ------------------------------      |
Time for 1000 elapsed measurements: 2.001 msec|
)"));
}

}  // namespace
