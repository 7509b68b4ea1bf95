// The literal texts of all reports; locks and the stopwatch.
#include "support/recording_platform.h"

namespace {

// Slots of 16 bytes for both word sizes.
constexpr int kSmall = 12;

template <class... Arguments> std::string printed(void (*report)(Arguments...), std::type_identity_t<Arguments>... of)
{
    recorder().forget();
    report(of...);
    return recorder().take_debug();
}

void add_outside_bytes(void *, int *a, int *b, int *c, memm_printf_fn print)
{
    if (a != nullptr)
        *a += 1000, *b += 2000, *c += 4000;
    print("+%s", "outside");
}

TEST(statistics, rows_and_totals_to_the_last_character)
{
    const unsigned plain = make_pool("r_plain", 10, kSmall), based = make_pool("r_based", 20, kSmall),
                   full = make_pool("r_full", 2, kSmall, {.stats_cb = add_outside_bytes});
    make_pool("r_a name longer than any column", 1, kSmall);
    void *const shared = memm_calloc(plain);
    memm_free(memm_calloc(plain));
    memm_refalloc(shared), memm_refalloc(shared), memm_refalloc(shared);
    memm_free(shared);
    memm_calloc(full), memm_calloc(full), memm_calloc(full);
    memm_free(memm_getfirst(full));
    int base = 10;
    memm_get_currentcount_ptr(based, &base, nullptr);
    for (int i = 0; i < 12; ++i)
        memm_calloc(based);
    memm_free(memm_calloc(based));

    const std::string expected = lines(R"(
 pool name                 count: cur,max,avail   bytes: cur,max,avail  (max.%)   ref cur,max,avail |
 ---------                 --------------------   -----------------------------   ----------------- |
 r_plain                        1,     2,    10       16,    32,   160  (  20%)       2,    3,    -  |
 r_based                        2,     3,    20       32,    48,   320  (  15%)       0,    0,    -  |
 r_full                         1,     2,     2       16,    32,    32  (>100%)       0,    0,    -  +outside|
 r_a name longer than any column      0,     0,     1        0,     0,    16  (   0%)       0,    0,    -  |
 ----------------------                           ----------------------------  |
 Total usage                                        1064,  2112,  4528  (  46%)|
|
)");
    EXPECT_EQ(printed(memm_print_stats, "r_"), expected);
    memm_print_stats2("r_", trc_def_printf);
    EXPECT_EQ(recorder().take_trace(), expected);
}

TEST(object_listing, shows_what_level_and_filter_let_through)
{
    const auto print = [](void *object) { dbg_printf(" = %d", *static_cast<int *>(object)); };
    const auto filter = [](void *object, int level) { return int{*static_cast<int *>(object) % 2 == 0 || level == 4}; };
    const unsigned pool =
        make_pool("l_pool", 8, kSmall, {.stats_cb = add_outside_bytes, .print_cb = print, .filter_cb = filter});
    make_pool("l_a name of twenty-seven ch", 1);
    void *objects[4];
    std::string names[4];
    for (int i = 0; i < 4; ++i) {
        std::memcpy(objects[i] = memm_calloc(pool), &i, sizeof i);
        names[i] = text("%u.l_pool.%d.0x%08lx", pool, i, address(objects[i]));
    }
    memm_free(objects[1]);
    header_of(objects[2]) += 0x2800000;  // two more holders, and the tag

    const std::string even = " " + names[0] + " = 0\r\n", odd = " " + names[3] + " = 3\r\n",
                      tagged = " " + names[2] + ".[3 refs].[tagged] = 2\r\n",
                      head = "l_pool....................usage cur/max/avail (max.%): 3/4/8 (50%)+outside\r\n";
    for (const auto &[level, listed] : {std::pair{0, even}, {4, even + odd}, {2, tagged}, {6, tagged}})
        EXPECT_EQ(printed(memm_print_objects2, "l_", level), head + listed + lines(R"(
|
l_a name of twenty-seven chusage cur/max/avail (max.%): 0/0/1 (0%)|
|
|
)"));
    pool_at(pool).cur_count = 7;
    EXPECT_EQ(printed(memm_print_objects, "l_pool").substr(head.size()),
              even + "\r\n[MEMM] ERROR: actual object count (3) differs from pool count (7)\r\n\r\n");
    EXPECT_EQ(printed(memm_printobject, objects[3], 0), names[3]);
    header_of(objects[3]) ^= 1;  // overwritten
    EXPECT_NE(printed(memm_print_objects2, "l_pool", 4).find(text("0x%08lx: invalid object = 3", address(objects[3]))),
              std::string::npos);
    EXPECT_EQ(printed(memm_printobject, nullptr, 1), "0x0: null");
    for (void *const bad : {reinterpret_cast<void *>(5), objects[1]})
        EXPECT_EQ(printed(memm_printobject, bad, 1), text("?.?.?.0x%08lx: invalid object", address(bad)));
}

TEST(integrity, findings_are_traced_slot_by_slot_and_change_nothing)
{
    const unsigned id = make_pool("i_pool", 5, kSmall);
    memm_pool &pool = pool_at(id);
    void *const objects[] = {memm_calloc(id), memm_calloc(id), memm_calloc(id)};
    const auto traced = [](int level = 2) {
        memm_set_trace(level);
        memm_print_stats("none");
        return recorder().take_trace();
    };
    header_of(objects[0]) |= 0x81800000;  // references and the tag are not part of a pool's id
    EXPECT_EQ(traced(), "");
    const std::string below = "[MEMM] pool 'i_pool' has free item < ppool->first_free\r\n";
    pool.last_used = pool.slots;
    EXPECT_EQ(traced().find("[MEMM] pool 'i_pool' has item in use > ppool>last_use\r\n"), 0U);
    pool.last_used = pool.slots + 2 * pool.slot_size;
    pool.first_free = pool.last_item + pool.slot_size;
    EXPECT_EQ(traced(), below + below);
    EXPECT_EQ(traced(1), "");
    pool.last_used = pool.last_item + pool.slot_size;
    EXPECT_EQ(traced().find("[MEMM] pool 'i_pool' has last_used > last_item\r\n"), 0U);
    header_of(objects[1]) ^= 1;
    const unsigned long header = address(&header_of(objects[1]));
    EXPECT_EQ(traced(1) + traced(0),
              text("[MEMM] integrity check failed: invalid poolid: %u.i_pool.1.0x%08lx\r\n", id, header));
}

TEST(timing_report, shows_the_counters_by_path)
{
    const unsigned busy = make_pool("t_busy", 4, 8, {.stats_cb = add_outside_bytes});
    make_pool("t_idle", 4);
    memm_pool &pool = pool_at(busy);
    const unsigned paths[] = {8, 5, 1, 50000004, 1};  // times 100 is more than 32 bits hold
    std::copy(std::begin(paths), std::end(paths), pool.alloc_count);
    pool.alloc_time[MEMM_PATH_TOTAL] = 4294967295U, pool.alloc_time_max[MEMM_PATH_TOTAL] = 1001;
    pool.free_count = 3, pool.free_time = 9, pool.scan_steps = 100000009;
    EXPECT_EQ(printed(memm_print_timestats, "t_"), lines(R"(
 pool name                  alloc cnt: total/avg/max (msec)     |
 ---------                  ------------------------------      |
 t_busy                     8: 4294967.295/536870.911/1.001|
    - first_free            62%: 0.000/0.000/0.000|
    - last_used             12%: 0.000/0.000/0.000|
    - scan                  625000050%: 0.000/0.000/0.000 (avg steps=2)|
    - other                 12%: 0.000/0.000/0.000|
|
 pool name                  free cnt: total/avg/max (msec)      |
 ---------                  ------------------------------      |
 t_busy                     3: 0.009/0.003/0.000|
+outsideTime for 1000 elapsed measurements: 2.001 msec|
)"));
    timestat watch{};
    for (const auto &[stopped, elapsed] : {std::pair{11000002, 3U}, {10999998, 0U}}) {
        recorder().clock_us = 10999999;
        timestat_starttime(&watch);
        recorder().clock_us = stopped;
        EXPECT_TRUE(timestat_stoptime(&watch) == 0 && timestat_elapstime(&watch) == elapsed);
    }
    EXPECT_EQ(recorder().take_trace(), "[MEMM] Elapsed time error: starttime(10,999999) > stoptime(10,999998)\r\n");
}

TEST(dump, holds_what_callbacks_print_but_no_second_report_and_nothing_of_other_threads)
{
    const OwnFolder folder;
    folder.order("d_pool\n");
    static const unsigned full = make_pool("d_full", 1);
    const auto print = [](void *) {
        dbg_printf(" %.1f", 0.5);
        std::thread([] { dbg_printf("elsewhere"); }).join();
        EXPECT_EQ(memm_calloc(full), nullptr);
    };
    memm_calloc(full), memm_calloc(make_pool("d_pool", 1, kSmall, {.print_cb = print}));
    for (const int level : {0, 1}) {
        memm_set_trace(level), recorder().forget();
        const unsigned opened = dumps_opened;
        memm_lock("test"), raise(SIGUSR2);
        memm_unlock();  // writes the report, outside of the handler
        EXPECT_EQ(dumps_opened - opened, 1U);
        EXPECT_NE(content_of(folder.contents_path()).find(" 0.5\r\n"), std::string::npos);
        const std::string message = "memm_calloc() failed for pool 'd_full' (pool depleted)";
        EXPECT_EQ(recorder().take_errors(), "0x10002 2 memm memmanager: " + message + "\n");
        EXPECT_EQ(recorder().take_debug() + recorder().take_trace(), level == 0 ? "elsewhere" : "elsewhere" + message);
    }
}

// --- locks ---

std::string state(const LOCK &lock)
{
    return text("%s %d, depth %d, %u takes, %u waits of %u us, at most %u", lock.owner_name, lock.owner, lock.depth,
                lock.lock_count, lock.wait_count, lock.total_wait, lock.max_wait);
}

TEST(locks, count_holds_and_wait_as_long_as_it_takes)
{
    LOCK lock{};
    pthread_setname_np(pthread_self(), "TEST and more");
    lock_initlock(&lock, "busy");
    EXPECT_TRUE(lock_lock(&lock, 99, "tag") == 1 && lock_lock(&lock, 99, "tag") == 2);
    EXPECT_TRUE(lock_unlock(&lock) == 0 && lock.depth == 1 && lock_unlock(&lock) == 0);
    EXPECT_NE(lock_unlock(&lock), 0) << "the platform's answer";

    // Timed out twice, then taken; once, then taken; then an error, traced as the switches say.
    lock.depth = 0;
    const std::string timed_out = "[busy] --- Task[TEST](waiter) --- Lock timeout. Active Task[----]. Retrying...\r\n";
    const std::tuple<std::vector<int>, const char *, int, std::string> attempts[] = {
        {{6, 6, 6, 0}, "BUS", 1, timed_out + timed_out},
        {{6, 6, 0}, "other", 2, ""},
        {{6, 77}, "other", 0, ""},
        {{6, 77}, nullptr, 0, "mutex lock error (busy)"}};
    recorder().clock_us = 100999999, recorder().clock_step_us = 1500;  // two readings a wait
    for (const auto &[answers, filter, result, traced] : attempts) {
        fault = [&answer = answers, next = 0U](Op op) mutable { return op == Op::take ? answer.at(next++) : 0; };
        lock_settrace(filter, 2);
        EXPECT_EQ(lock_lock(&lock, 0, "waiter"), result);
        EXPECT_EQ(recorder().take_trace(), traced);
    }
    EXPECT_EQ(state(lock), "---- -1, depth 2, 4 takes, 2 waits of 3000 us, at most 1500");
    recorder().fail_nth(Op::create, 1, 77);
    EXPECT_EQ(lock_initlock(&lock, nullptr), 77);
    recorder().forget();
    memm_lock(nullptr), memm_unlock();
    EXPECT_EQ(recorder().take_tags(), "-unknown- ");
}

TEST(locks, table_shows_and_clears_the_records)
{
    LOCK idle{}, held{}, unnamed{};
    lock_initlock(&idle, "idle"), lock_initlock(&held, "a name of more than thirteen");
    lock_initlock(&unnamed, nullptr);
    lock_lock(&held, 0, "x");
    held.total_wait = 375, held.wait_count = 2, held.max_wait = 1500;  // 187.5 us each
    unnamed.wait_count = 2500000000U, unnamed.max_wait = 4294966000U;
    unnamed.lock_count = unnamed.total_wait = 4294967295U;
    EXPECT_EQ(printed(lock_print_allstats), lines(R"(
 name          depth  active lock count wait count total (msec)   avg (msec)   max (msec) |
 ----          -----  ------ ---------- ---------- ------------   ----------   ---------- |
 idle              0                  0          0            -            -            -|
 a name of more than thirteen     1    ----          1          2        0.375        0.188        1.500 |
 -unknown-         0         4294967295 2500000000  4294967.500        0.002  4294966.000 |
|
)"));
    lock_clear_allstats();
    EXPECT_EQ(state(held), "---- -1, depth 1, 0 takes, 0 waits of 0 us, at most 0");
    static LOCK more[60];
    for (LOCK &lock : more)
        ASSERT_TRUE(lock_initlock(&lock, "more") == 0 && lock_lock(&lock, 0, "x") == 1);
    EXPECT_EQ(std::ranges::count(printed(lock_print_allstats), '\n'), 3 + 50);
}

}  // namespace
