#include "memmanager/block.h"
#include "memmanager/module.h"
#include "memmanager/pool.h"
#include "memmanager/signals.h"
#include "memmanager/trace.h"

#include <memmanager/lock.h>
#include <memmanager/platform.h>
#include <cstdlib>

namespace memm {

namespace {

// Listed in the lock table; the manager itself serialises by ManagerLock, so its counters stay as they are.
constinit LOCK manager_record{};

void print_descriptor(void *object)
{
    const char *name = static_cast<const Pool *>(object)->name;
    dbg_printf(" - '%s'", name == nullptr ? "(null)" : name);
}

// What stands beside the table is the library's own and not part of the platform's budget for pools.
bool adopt_table(unsigned char *table, u32 pools) noexcept
{
    void *const beside = std::calloc(pools, sizeof(PoolAid) + sizeof(u32));
    if (beside == nullptr) {
        return false;
    }
    auto *aids = static_cast<PoolAid *>(beside);
    registry.adopt(table, aids, reinterpret_cast<u32 *>(aids + pools));
    return true;
}

void describe_table(unsigned char *table, u32 pools) noexcept
{
    make_slots_free(table, kDescriptorBytes, pools);
    ObjectHeader{PoolId::descriptors}.write_to(table);
    Pool &pool = *static_cast<Pool *>(object_in(table));
    pool.name = "memm_pooldesc";
    pool.slots = table;
    pool.slot_size = kDescriptorBytes;
    pool.slot_count = static_cast<int>(pools);
    pool.first_free = table + kDescriptorBytes;
    pool.last_used = table;
    pool.last_item = table + std::size_t{kDescriptorBytes} * (pools - 1);
    pool.last_normal = pool.last_item;
    pool.cur_count = 1;
    pool.max_count = 1;
    pool.options.print_cb = print_descriptor;
}

// The table of the most pools that there can be is one block.
static_assert(u64{kDescriptorBytes} * Registry::kMaxPools + kBlockLead <= 0xffffffff);

Result start(u32 pools, int parameter) noexcept
{
    if (const int code = lock_initlock(&manager_record, "MEMM"); code != 0) {
        return Result{static_cast<unsigned>(code)};
    }
    unsigned char *block = nullptr;
    if (const Result got = get_block("MEMM", kDescriptorBytes * pools + kBlockLead, block); got != Result::ok) {
        return got;
    }
    unsigned char *const table = block + kBlockLead;
    describe_table(table, pools);
    if (!adopt_table(table, pools)) {
        return Result::no_memory;
    }
    registry.enrol(registry.at(0));
    registry.aid(PoolId::descriptors).set_slots(table, kDescriptorBytes, pools);
    registry.place(Held::by_caller(), PoolId::descriptors);
    ManagerLock::recognise();
    install_signal_handlers();
    for (const Module &module : modules()) {
        if (const Result started = module.start(parameter); started != Result::ok) {
            return started;
        }
    }
    return Result::ok;
}

}  // namespace

}  // namespace memm

using namespace memm;

extern "C" {

int memm_init(unsigned pool_count, int dynstr_param)
{
    if (registry.has_table()) {
        if (is_traced(1)) {
            trc_def_printf("memm_init() may only be called once per process!");
        }
        return to_int(Result::started);
    }
    if (pool_count < 1 || pool_count > Registry::kMaxPools) {
        return to_int(Result::invalid);
    }
    return to_int(start(pool_count, dynstr_param));
}
}
