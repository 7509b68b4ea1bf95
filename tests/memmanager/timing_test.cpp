#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/memmanager.h>
#include <memmanager/timestat.h>
#include <gtest/gtest.h>

namespace {

TEST(stopwatch, reads_the_clock_at_start_and_stop)
{
    recorder().set_clock(7, 999999, 2000003);
    timestat watch{};
    EXPECT_EQ(timestat_starttime(&watch), 0);
    EXPECT_EQ(timestat_stoptime(&watch), 0);
    EXPECT_EQ(watch.start_seconds, 7U);
    EXPECT_EQ(watch.start_microseconds, 999999U);
    EXPECT_EQ(watch.stop_seconds, 10U);
    EXPECT_EQ(watch.stop_microseconds, 2U);
    EXPECT_EQ(timestat_elapstime(&watch), 2000003U);
    EXPECT_EQ(timestat_starttime(nullptr), MEMM_E_INVALID);
    EXPECT_EQ(timestat_stoptime(nullptr), MEMM_E_INVALID);
    EXPECT_EQ(timestat_elapstime(nullptr), 0U);
}

TEST(stopwatch, borrows_seconds_wraps_and_reports_a_stop_before_the_start)
{
    struct Case {
        timestat watch;
        unsigned elapsed;
        const char *trace;
    };
    memm_set_trace(-1);  // is not asked
    for (const Case &c : {
             Case{{10, 999999, 11, 1}, 2, ""},
             {{10, 5, 10, 5}, 0, ""},
             {{0, 0, 4295, 0}, 32704, ""},
             {{10, 5, 10, 4}, 0, "[MEMM] Elapsed time error: starttime(10,5) > stoptime(10,4)\r\n"},
             {{4294967295U, 0, 1, 999999},
              0,
              "[MEMM] Elapsed time error: starttime(4294967295,0) > stoptime(1,999999)\r\n"},
         }) {
        timestat watch = c.watch;
        EXPECT_EQ(timestat_elapstime(&watch), c.elapsed);
        EXPECT_EQ(recorder().take_trace(), c.trace);
    }
}

int stats_calls = 0, totals_given = 0;

void print_extra(void *cookie, int *a, int *b, int *c, memm_printf_fn print)
{
    ++stats_calls;
    totals_given += a != nullptr || b != nullptr || c != nullptr;
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
    void *o[3];
    for (void *&object : o) {
        object = memm_calloc(busy);
    }
    memm_free(o[0]);
    o[0] = memm_calloc(busy);
    memm_calloc(busy);  // the slot after the last used one
    memm_free(o[2]);
    memm_free(o[0]);
    memm_calloc(busy);
    memm_calloc(busy);                      // found by scanning
    EXPECT_EQ(memm_calloc(busy), nullptr);  // and once nothing
    recorder().take_errors();
    recorder().take_trace();
    memm_pool *pool = memm_get_pool_nolock(busy);
    pool->alloc_time[MEMM_PATH_TOTAL] = 4294967295U;
    pool->alloc_time_max[MEMM_PATH_TOTAL] = 1001;
    pool->free_time = 9;
    pool->alloc_count[MEMM_PATH_SCAN] = 50000004;  // times 100 is more than 32 bits hold
    pool->scan_steps = 100000009;
    recorder().take_tags();
    recorder().take_debug();
    stats_calls = totals_given = 0;

    memm_print_timestats("t_");
    EXPECT_EQ(recorder().take_tags(), std::vector<std::string>{"memm_print_timestats"});
    EXPECT_EQ(stats_calls, 1);
    EXPECT_EQ(totals_given, 0);
    const std::string row = " t_busy                     8: 4294967.295/536870.911/1.001\r\n"
                            "    - first_free            62%: 0.000/0.000/0.000\r\n"
                            "    - last_used             12%: 0.000/0.000/0.000\r\n"
                            "    - scan                  625000050%: 0.000/0.000/0.000 (avg steps=2)\r\n"
                            "    - other                 12%: 0.000/0.000/0.000\r\n";
    EXPECT_EQ(recorder().take_debug(), " pool name                  alloc cnt: total/avg/max (msec)     \r\n"
                                       " ---------                  ------------------------------      \r\n" +
                                           row +
                                           " t_quiet                    1: 0.000/0.000/0.000\r\n"
                                           "    - first_free            100%: 0.000/0.000/0.000\r\n"
                                           "\r\n"
                                           " pool name                  free cnt: total/avg/max (msec)      \r\n"
                                           " ---------                  ------------------------------      \r\n"
                                           " t_busy                     3: 0.009/0.003/0.000\r\n"
                                           "  extra cookie\r\n"
                                           "Time for 1000 elapsed measurements: 2.001 msec\r\n");

    memm_clear_timestats();
    EXPECT_EQ(recorder().take_tags(), std::vector<std::string>{});
    EXPECT_EQ(pool->scan_steps + pool->free_time + pool->alloc_time[0] + pool->alloc_time_max[0], 0U);
    memm_print_timestats(nullptr);
    EXPECT_EQ(recorder().take_debug(), " pool name                  alloc cnt: total/avg/max (msec)     \r\n"
                                       " ---------                  ------------------------------      \r\n"
                                       "\r\n"
                                       " pool name                  free cnt: total/avg/max (msec)      \r\n"
                                       " ---------                  ------------------------------      \r\n"
                                       "Time for 1000 elapsed measurements: 2.001 msec\r\n");
}

}  // namespace
