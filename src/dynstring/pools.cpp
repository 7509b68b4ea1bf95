#include "dynstring/text_pool.h"

#include "memmanager/block.h"
#include "memmanager/trace.h"

#include <memmanager/platform.h>
#include <algorithm>
#include <cstring>

namespace memm::strings {

constinit PoolId control_pool = PoolId::invalid;

namespace {

constexpr int kReserveOfSmallPool = 5;
constexpr int kReserve = 20;
constexpr int kSmallPool = 50;

void print_control_block(void *object)
{
    const char *name = static_cast<const TextPool *>(object)->name;
    dbg_printf(" - '%s'", name == nullptr ? "(null)" : name);
}

}  // namespace

// Control blocks are the objects in use of their pool. Other cookies are their owners' business and may point nowhere.
bool is_control_block(const void *cookie) noexcept
{
    const PoolAid *const owner = owner_of(cookie);
    return owner != nullptr && owner->id == load(control_pool);
}

bool is_string(const void *record) noexcept
{
    return owner_pool(record) != nullptr && !info_of(*static_cast<const dynstr *>(record)).is_deleted();
}

// A start that fails leaves an earlier one in force.
Result start(int count) noexcept
{
    memm_pooloptions options{};
    options.print_cb = print_control_block;
    const auto id = PoolId{static_cast<u32>(memm_initpool("dynstr_pool", count, sizeof(TextPool), &options))};
    if (id == PoolId::invalid) {
        err_printf(MEMM_E_SETUP, 2, "DYNSTR", "dynstring", 2571, "dynstring init failed");
        return Result::no_memory;
    }
    store(control_pool, id);
    return Result::ok;
}

namespace {

PoolId create_record_pool(Held held, const char *name, int count, TextPool &texts) noexcept
{
    const int reserve = count <= kSmallPool ? kReserveOfSmallPool : kReserve;
    memm_pooloptions options{};
    options.stats_cb = print_usage;
    options.print_cb = print_record;
    options.release_cb = release_record;
    options.gc_cb = collect_for_allocation;
    options.cookie = &texts;
    options.spare_count = reserve;
    options.filter_cb = is_shown;
    // Counts that only the reserve makes overflow cannot be had either.
    int capacity = 0;
    if (__builtin_add_overflow(count, reserve, &capacity)) {
        capacity = count;
    }
    return create_pool(held, name, capacity, sizeof(dynstr), &options);
}

bool get_buffers(TextPool &texts) noexcept
{
    for (u32 i = 0; i < texts.bufcnt; ++i) {
        unsigned char *block = nullptr;
        if (get_block("DYNSTR", texts.bufsize, block) != Result::ok) {
            return false;
        }
        std::memset(block, 0, texts.bufsize);
        texts.buf[i] = reinterpret_cast<char *>(block);
    }
    return true;
}

// The record pool cannot be taken back, so it is cut off: its records are nobody's strings from now on.
void abandon(Held held, Pool &records, TextPool &texts) noexcept
{
    store(records.options.cookie, nullptr);
    store(records.count_base, nullptr);
    store(records.spare_flag, nullptr);
    store(registry.aid(id_of(records)).control, nullptr);
    static_cast<void>(release(held, &texts));
}

PoolId create(Held held, const char *name, int count, unsigned bytes, u32 buffers) noexcept
{
    void *const block = allocate(held, load(control_pool));
    if (block == nullptr) {
        return PoolId::invalid;
    }
    auto &texts = *static_cast<TextPool *>(block);
    texts.bufcnt = buffers;  // the hooks may be asked from here on
    const PoolId id = create_record_pool(held, name, count, texts);
    if (id == PoolId::invalid) {
        err_printf(MEMM_E_SETUP, 2, "DYNSTR", "dynstring", 2519, "dynstring init failed");
        return PoolId::invalid;
    }
    Pool &records = registry.at(to_index(id));
    texts.name = name;
    texts.poolid = to_index(id);
    texts.bufsize = bytes / buffers;
    texts.spare = static_cast<dynstr *>(allocate(held, id));
    texts.capacity = static_cast<u32>(records.slot_count);
    texts.pcurcnt = &records.cur_count;
    store(records.count_base, &texts.delcnt);
    store(records.spare_flag, &texts.gcrequest);
    store(registry.aid(id).control, &texts);
    texts.balance_limit = texts.capacity / buffers;
    if (!get_buffers(texts)) {
        abandon(held, records, texts);
        return PoolId::invalid;
    }
    return id;
}

}  // namespace

void trace_bad_pool(const char *function) noexcept
{
    if (is_traced(2)) {
        trc_def_printf("[DYNSTR] %s: invalid poolid passed\r\n", function);
    }
}

void trace_bad_string(const char *function) noexcept
{
    if (is_traced(2)) {
        trc_def_printf("[DYNSTR] %s: invalid dynstring passed\r\n", function);
    }
}

void trace_bad_size() noexcept
{
    if (is_traced(1)) {
        trc_def_printf("[DYNSTR] loc_setstrsize with invalid size\r\n");
    }
}

}  // namespace memm::strings

using namespace memm;
using namespace memm::strings;

extern "C" {

unsigned dynstr_init(int count) { return to_c(strings::start(count)); }

int dynstr_initpool(const char *name, int count, unsigned bytes)
{
    return dynstr_initpool2(name, count, bytes, count <= 10000 ? 2 : 4);
}

int dynstr_initpool2(const char *name, int count, unsigned bytes, int bufcnt)
{
    if (bufcnt < 1) {
        return static_cast<int>(PoolId::invalid);
    }
    if (bufcnt > static_cast<int>(kMaxBuffers)) {
        err_printf(MEMM_E_SETUP, 2, "DYNSTR", "dynstring", 2493, "dynstr_initpool(): poolcount exceeds maximum");
    }
    const ManagerLock lock("dynstr_initpool");
    return static_cast<int>(create(lock.held(), name, count, bytes, std::min(static_cast<u32>(bufcnt), kMaxBuffers)));
}

// Kept for old callers: the limit is fixed when the pool is made.
int dynstr_pool_set_dellist_threshold(int /*poolid*/, ...) { return 0; }

int dynstr_isdynstring(const void *p) { return is_string(p) ? 1 : 0; }
}
