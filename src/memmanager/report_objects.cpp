#include "memmanager/report.h"
#include "memmanager/usage.h"
#include "memmanager/walk.h"

#include <memmanager/platform.h>
#include <algorithm>
#include <cstring>

namespace memm {

namespace {

constexpr int kOnlyTagged = 2;  // a bit of the level; without it only untagged objects are listed

unsigned long address_of(const void *object) noexcept { return reinterpret_cast<unsigned long>(object); }

// Answers the pool of an object; null for what is none, going by its header.
const Pool *print_identity(const void *object) noexcept
{
    if (object == nullptr) {
        dbg_printf("0x0: null");
        return nullptr;
    }
    const Pool *const pool = pool_containing(object);
    if (pool == nullptr) {
        dbg_printf("?.?.?.0x%08lx: invalid object", address_of(object));
        return nullptr;
    }
    const ObjectHeader header = header_of(object);
    dbg_printf("%d.%s.%d.0x%08lx", static_cast<int>(to_index(id_of(*pool))), pool->name, slot_number(*pool, object),
               address_of(object));
    if (const u32 refs = header.extra_refs(); refs != 0) {
        dbg_printf(".[%d refs]", static_cast<int>(refs + 1));
    }
    if (header.is_tagged()) {
        dbg_printf(".[tagged]");
    }
    return pool;
}

void print_contents(const Pool &pool, void *object) noexcept
{
    if (pool.options.print_cb != nullptr) {
        pool.options.print_cb(object);
    }
}

void print_any(Held, void *object, bool with_contents) noexcept
{
    if (const Pool *const pool = print_identity(object); pool != nullptr && with_contents) {
        print_contents(*pool, object);
    }
}

void print_line(const Pool &pool, unsigned char *slot, int level) noexcept
{
    void *const object = object_in(slot);
    if (ObjectHeader::of_slot(slot).is_tagged() != ((level & kOnlyTagged) != 0)) {
        return;
    }
    if (pool.options.filter_cb != nullptr && pool.options.filter_cb(object, level) == 0) {
        return;
    }
    dbg_printf(" ");
    print_identity(object);
    print_contents(pool, object);
    dbg_printf("\r\n");
}

void print_title(const Pool &pool) noexcept
{
    constexpr const char *kDots = "..........................";
    const int dots = static_cast<int>(std::strlen(kDots) - std::min(std::strlen(kDots), std::strlen(pool.name)));
    const int available = load(pool.slot_count);
    const int highest = load(pool.max_count);
    dbg_printf("%s%.*susage cur/max/avail (max.%%): %d/%d/%d (%d%%)", pool.name, dots, kDots, load(pool.cur_count),
               highest, available, percentage(highest, available));
}

// Objects that the level leaves out count too.
int print_lines(Held held, const Pool &pool, int level) noexcept
{
    int count = 0;
    walk(held, pool, [&](unsigned char *slot) {
        ++count;
        print_line(pool, slot, level);
        return true;
    });
    return count;
}

}  // namespace

void print_objects(Held held, const char *prefix, int level) noexcept
{
    int totals[3] = {};  // the callbacks' contract has them; this report prints none
    for (u32 id = 0; id < registry.count(); ++id) {
        const Pool &pool = registry.at(id);
        if (!is_selected(pool, prefix)) {
            continue;
        }
        print_title(pool);
        if (const memm_pooloptions &options = pool.options; options.stats_cb != nullptr) {
            options.stats_cb(options.cookie, &totals[0], &totals[1], &totals[2], dbg_printf);
        }
        dbg_printf("\r\n");
        const int count = print_lines(held, pool, level);
        dbg_printf("\r\n");
        if (const int expected = load(pool.cur_count); count != expected) {
            dbg_printf("[MEMM] ERROR: actual object count (%d) differs from pool count (%d)\r\n", count, expected);
        }
    }
    dbg_printf("\r\n");
}

}  // namespace memm

using namespace memm;

extern "C" {

void memm_print_objects(const char *prefix) { memm_print_objects2(prefix, 0); }

void memm_print_objects2(const char *prefix, int level)
{
    const ManagerLock lock("memm_print_objects");
    print_objects(lock.held(), prefix, level);
}

void memm_printobject(void *obj, int contents)
{
    const ManagerLock lock("memm_printobject");
    print_any(lock.held(), obj, contents != 0);
}
}
