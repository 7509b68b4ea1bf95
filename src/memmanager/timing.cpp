// Deliberate: allocation and release keep counters only. The times stay 0 and are printed all the same.
#include "memmanager/pool.h"
#include "memmanager/stopwatch.h"

#include <memmanager/platform.h>

namespace memm {

namespace {

constexpr const char *kPathNames[MEMM_PATHS] = {"total", "first_free", "last_used", "scan", "other"};

unsigned long whole_ms(u32 microseconds) noexcept { return microseconds / 1000; }

unsigned long rest_us(u32 microseconds) noexcept { return microseconds % 1000; }

// The counters are read once each: they may be cleared at any time.
struct Times {
    u32 count, total, longest;

    static Times of_path(const Pool &pool, unsigned path) noexcept
    {
        return {load(pool.alloc_count[path]), load(pool.alloc_time[path]), load(pool.alloc_time_max[path])};
    }
    static Times of_releases(const Pool &pool) noexcept
    {
        return {load(pool.free_count), load(pool.free_time), load(pool.free_time_max)};
    }
    u32 average() const noexcept { return total / count; }
};

void print_header(const char *title) noexcept
{
    constexpr const char *kColumns = " %-25s  %-35s \r\n";
    dbg_printf(kColumns, "pool name", title);
    dbg_printf(kColumns, "---------", "------------------------------");
}

void print_row(const Pool &pool, const Times &times) noexcept
{
    dbg_printf(" %-25s  %lu: %lu.%03lu/%lu.%03lu/%lu.%03lu\r\n", pool.name, static_cast<unsigned long>(times.count),
               whole_ms(times.total), rest_us(times.total), whole_ms(times.average()), rest_us(times.average()),
               whole_ms(times.longest), rest_us(times.longest));
}

void print_path(const Pool &pool, unsigned path, u32 allocations) noexcept
{
    const Times times = Times::of_path(pool, path);
    if (times.count == 0) {
        return;
    }
    const auto percent = static_cast<u32>(u64{times.count} * 100 / allocations);
    dbg_printf("    - %-20s  %lu%%: %lu.%03lu/%lu.%03lu/%lu.%03lu", kPathNames[path],
               static_cast<unsigned long>(percent), whole_ms(times.total), rest_us(times.total),
               whole_ms(times.average()), rest_us(times.average()), whole_ms(times.longest), rest_us(times.longest));
    if (path == MEMM_PATH_SCAN) {
        dbg_printf(" (avg steps=%lu)", static_cast<unsigned long>(load(pool.scan_steps) / times.count));
    }
    dbg_printf("\r\n");
}

template <typename Print> void for_each_selected(const char *prefix, Print print) noexcept
{
    for (u32 id = 0; id < registry.count(); ++id) {
        if (const Pool &pool = registry.at(id); is_selected(pool, prefix)) {
            print(pool);
        }
    }
}

void print_allocations(const char *prefix) noexcept
{
    print_header("alloc cnt: total/avg/max (msec)");
    for_each_selected(prefix, [](const Pool &pool) {
        const Times times = Times::of_path(pool, MEMM_PATH_TOTAL);
        if (times.count == 0) {
            return;
        }
        print_row(pool, times);
        for (unsigned path = MEMM_PATH_FIRST_FREE; path < MEMM_PATHS; ++path) {
            print_path(pool, path, times.count);
        }
    });
    dbg_printf("\r\n");
}

void print_releases(const char *prefix) noexcept
{
    print_header("free cnt: total/avg/max (msec)");
    for_each_selected(prefix, [](const Pool &pool) {
        const Times times = Times::of_releases(pool);
        if (times.count == 0) {
            return;
        }
        print_row(pool, times);
        if (const memm_pooloptions &options = pool.options; options.stats_cb != nullptr) {
            options.stats_cb(options.cookie, nullptr, nullptr, nullptr, dbg_printf);
        }
    });
}

void print_cost_of_measuring() noexcept
{
    constexpr int kRounds = 1000;
    timestat all{};
    start(all);
    for (int round = 0; round < kRounds; ++round) {
        timestat one;
        start(one);
        stop(one);
    }
    stop(all);
    const u32 elapsed = elapsed_us(all);
    dbg_printf("Time for 1000 elapsed measurements: %lu.%03lu msec\r\n", whole_ms(elapsed), rest_us(elapsed));
}

void clear_times(Pool &pool) noexcept
{
    store(pool.free_count, 0);
    store(pool.free_time, 0);
    store(pool.free_time_max, 0);
    for (unsigned path = 0; path < MEMM_PATHS; ++path) {
        store(pool.alloc_count[path], 0);
        store(pool.alloc_time[path], 0);
        store(pool.alloc_time_max[path], 0);
    }
    store(pool.scan_steps, 0);
}

}  // namespace

}  // namespace memm

using namespace memm;

extern "C" {

void memm_print_timestats(const char *prefix)
{
    const ManagerLock lock("memm_print_timestats");
    print_allocations(prefix);
    print_releases(prefix);
    print_cost_of_measuring();
}

// Without the lock: an allocation under way may count on from the number before.
void memm_clear_timestats(void)
{
    for (u32 id = 0; id < registry.count(); ++id) {
        clear_times(registry.at(id));
    }
}
}
