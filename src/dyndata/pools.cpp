#include "dyndata/area.h"

#include "memmanager/block.h"
#include "memmanager/trace.h"
#include "memmanager/usage.h"

#include <memmanager/platform.h>
#include <algorithm>
#include <cstring>

namespace memm::data {

constinit PoolId record_pool = PoolId::invalid;

namespace {

constexpr std::size_t kShownBytes = 47;

bool is_record(const void *cookie) noexcept
{
    const PoolAid *const owner = owner_of(cookie);
    return owner != nullptr && owner->id == load(record_pool);
}

void print_record(void *object)
{
    if (object != nullptr) {
        const char *name = static_cast<const Area *>(object)->name;
        dbg_printf(" - '%s'", name == nullptr ? "(null)" : name);
    }
}

void print_usage(void *cookie, int *current, int *highest, int *available, memm_printf_fn print)
{
    if (!is_record(cookie)) {
        return;
    }
    const Area &area = *static_cast<const Area *>(cookie);
    const auto curr = static_cast<int>(area.curr);
    const auto max = static_cast<int>(area.max);
    const auto size = static_cast<int>(area.bufsize);
    const int percent = percentage(area.max, area.bufsize);
    if (current == nullptr) {
        print(" %-25s  data buffer  curr/max/avail %d,%d,%d  (%3d%%)\r\n", "", curr, max, size, percent);
        return;
    }
    print("\r\n %-25s %20s   %6d,%6d,%6d  ( %3d%%)", "- data buffer", "", curr, max, size, percent);
    add_to(current, curr);
    add_to(highest, max);
    add_to(available, size);
}

}  // namespace

// The application may have made the pool, of objects of any size, and its cookie may be anything.
Area *area_of(const PoolAid &aid) noexcept
{
    void *const cookie = load(aid.pool->options.cookie);
    const bool holds_buffers = aid.pool->slot_size >= slot_bytes(sizeof(dyndata));
    return holds_buffers && is_record(cookie) ? static_cast<Area *>(cookie) : nullptr;
}

void trace_foreign(const char *function) noexcept
{
    if (is_traced(1)) {
        trc_def_printf("[DYNDATA] %s: %s\r\n", function, "obj isn't a dyndata element");
    }
}

// Deliberate: shows what lies there, the size notwithstanding; but not beyond the area.
void print_buffer(void *object)
{
    const Area *const area = owner_area(object);
    if (area == nullptr) {
        trace_foreign("loc_dyndata_printobject");
        return;
    }
    const dyndata &buffer = *static_cast<const dyndata *>(object);
    char text[kShownBytes + 4] = {};
    if (const unsigned char *const data = run_of(*area, buffer).from; data != nullptr) {
        const auto left = static_cast<std::size_t>(area->buffer + area->bufsize - data);
        std::memcpy(text, data, std::min(sizeof text, left));
    }
    if (text[kShownBytes] != '\0') {
        std::memcpy(text + kShownBytes, "...", 4);
    }
    dbg_printf(" - size=%d, data='%s'", static_cast<int>(info_of(buffer).size()), text);
}

namespace {

// A start that fails leaves an earlier one in force.
Result start(int count) noexcept
{
    memm_pooloptions options{};
    options.print_cb = print_record;
    const auto id = PoolId{static_cast<u32>(memm_initpool("dyndata_pool", count, sizeof(Area), &options))};
    if (id == PoolId::invalid) {
        err_printf(MEMM_E_SETUP, 2, "DYNDATA", "dyndata", 633, "dyndata init failed");
        return Result::no_memory;
    }
    store(record_pool, id);
    return Result::ok;
}

PoolId create(Held held, const char *name, int count, u32 bytes) noexcept
{
    void *const record = allocate(held, load(record_pool));
    if (record == nullptr) {
        return PoolId::invalid;
    }
    auto &area = *static_cast<Area *>(record);
    area.name = name;
    area.bufsize = bytes;
    if (get_block("DYNDATA", bytes, area.buffer) != Result::ok) {
        static_cast<void>(release(held, record));
        return PoolId::invalid;
    }
    std::memset(area.buffer, 0, bytes);
    memm_pooloptions options{};
    options.stats_cb = print_usage;
    options.print_cb = print_buffer;
    options.release_cb = release_buffer;
    options.cookie = &area;
    const PoolId id = create_pool(held, name, count, sizeof(dyndata), &options);
    area.poolid = to_index(id);
    if (id == PoolId::invalid) {
        err_printf(MEMM_E_SETUP, 2, "DYNDATA", "dyndata", 608, "dyndata init pool failed");
    } else {
        store(registry.aid(id).control, &area);
    }
    return id;
}

}  // namespace

}  // namespace memm::data

using namespace memm;

extern "C" {

unsigned dyndata_init(int count) { return to_c(data::start(count)); }

int dyndata_initpool(const char *name, int count, unsigned bufsize)
{
    const ManagerLock lock("dyndata_initpool");
    return static_cast<int>(data::create(lock.held(), name, count, bufsize));
}
}
