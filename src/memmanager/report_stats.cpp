#include "memmanager/module.h"
#include "memmanager/pool.h"
#include "memmanager/report.h"
#include "memmanager/usage.h"

#include <memmanager/platform.h>

namespace memm {

namespace {

constexpr int kHighestRefs = static_cast<int>(ObjectHeader::kMaxExtraRefs);

// Objects or bytes, as the three columns show them.
struct Usage {
    int current = 0, highest = 0, available = 0;

    void add(const Usage &more) noexcept
    {
        add_to(&current, more.current);
        add_to(&highest, more.highest);
        add_to(&available, more.available);
    }
    int percent() const noexcept { return percentage(highest, available); }
};

Usage objects_of(const Pool &pool) noexcept
{
    const int available = load(pool.slot_count);
    if (const int *base = load(pool.count_base); base != nullptr) {
        return {load(pool.cur_count) - *base, load(pool.max_count_rel), available};
    }
    return {load(pool.cur_count), load(pool.max_count), available};
}

Usage bytes_of(const Usage &objects, u32 slot_size) noexcept
{
    const auto bytes = [slot_size](int count) { return static_cast<int>(std::int64_t{count} * slot_size); };
    return {bytes(objects.current), bytes(objects.highest), bytes(objects.available)};
}

void print_header(memm_printf_fn print) noexcept
{
    constexpr const char *kColumns = " %-25s %-22s %-31s %-18s\r\n";
    print(kColumns, "pool name", "count: cur,max,avail", "bytes: cur,max,avail  (max.%)", "ref cur,max,avail");
    print(kColumns, "---------", "--------------------", "-----------------------------", "-----------------");
}

void print_references(const Pool &pool, memm_printf_fn print) noexcept
{
    if (id_of(pool) == PoolId::descriptors) {
        print("  obj:%5d,%5d  ", static_cast<int>(load(pool.max_refs)), kHighestRefs);
    } else {
        print("%5d,%5d,    -  ", static_cast<int>(load(pool.refs)), static_cast<int>(load(pool.max_refs)));
    }
}

void print_row(const Pool &pool, Usage &total, memm_printf_fn print) noexcept
{
    const Usage objects = objects_of(pool);
    const Usage bytes = bytes_of(objects, pool.slot_size);
    const char *mark = (load(pool.flags) & kDepleted) != 0 ? ">" : " ";
    print(" %-25s %6d,%6d,%6d   %6d,%6d,%6d  (%1s%3d%%)   ", pool.name, objects.current, objects.highest,
          objects.available, bytes.current, bytes.highest, bytes.available, mark, objects.percent());
    print_references(pool, print);
    total.add(bytes);
    if (const memm_pooloptions &options = pool.options; options.stats_cb != nullptr) {
        options.stats_cb(options.cookie, &total.current, &total.highest, &total.available, print);
    }
    print("\r\n");
}

void print_total(const Usage &total, memm_printf_fn print) noexcept
{
    print(" %-25s %-22s %-30s\r\n", "----------------------", "", "----------------------------");
    print(" %-25s %-22s %6d,%6d,%6d  ( %3d%%)\r\n", "Total usage", "", total.current, total.highest, total.available,
          total.percent());
}

bool is_sound(Held held, PoolId id) noexcept
{
    for (const Module &module : modules()) {
        if (!module.pool_is_sound(held, id)) {
            return false;
        }
    }
    return true;
}

}  // namespace

void print_statistics(Held held, const char *prefix, memm_printf_fn print) noexcept
{
    Usage total;
    bool any = false;
    for (u32 id = 0; id < registry.count(); ++id) {
        const Pool &pool = registry.at(id);
        if (is_selected(pool, prefix)) {
            if (!any) {
                print_header(print);
            }
            any = true;
            print_row(pool, total, print);
        }
        if (!is_sound(held, PoolId{id})) {
            print("[MEMM] dynstr integrity check failed: %s\r\n", pool.name);
        }
    }
    if (any) {
        print_total(total, print);
    }
    print("\r\n");
    char finding[100];
    check_slots(held, finding, sizeof finding);
}

}  // namespace memm

using namespace memm;

extern "C" {

void memm_print_stats(const char *prefix) { memm_print_stats2(prefix, dbg_printf); }

void memm_print_stats2(const char *prefix, memm_printf_fn print)
{
    if (print == nullptr) {
        return;
    }
    const ManagerLock lock("memm_print_stats");
    print_statistics(lock.held(), prefix, print);
}
}
