#include "memmanager/pool.h"

#include "base/text.h"
#include "memmanager/block.h"
#include "memmanager/trace.h"
#include "platform/probe.h"

#include <memmanager/platform.h>
#include <algorithm>
#include <cstring>

namespace memm {

alignas(memm_word) constinit unsigned char Registry::no_table_[kBlockLead + kDescriptorBytes]{};
constinit Pool Registry::no_pool_{};
constinit PoolAid Registry::no_aid_{&no_pool_};
constinit Registry registry;

void Registry::adopt(unsigned char *table, PoolAid *aids, u32 *by_address) noexcept
{
    aids_ = aids;
    by_address_ = by_address;
    store(table_, table);
}

void Registry::enrol(Pool &pool) const noexcept
{
    const PoolId id = id_of(pool);
    aid(id).pool = &pool;
    aid(id).id = id;
}

void Registry::place(Held, PoolId id) noexcept
{
    const unsigned char *slots = at(to_index(id)).slots;
    u32 position = placed_;
    for (; position > 0 && at(by_address_[position - 1]).slots > slots; --position) {
        publish(by_address_[position], by_address_[position - 1]);
    }
    publish(by_address_[position], to_index(id));
    publish(placed_, placed_ + 1);
}

// A caller without the lock may meet an entry on its way to the next place and miss its pool; header_of() then asks the
// kernel for the header, and everything else holds the lock.
PoolAid *Registry::search(std::uintptr_t address) const noexcept
{
    u32 low = 0;
    u32 high = load_published(placed_);
    while (low < high) {
        const u32 middle = low + (high - low) / 2;
        PoolAid &aid = aids_[load_published(by_address_[middle])];
        if (aid.holds(address)) {
            publish(hits_[1], load_published(hits_[0]));
            publish(hits_[0], &aid);
            return &aid;
        }
        if (aid.first > address) {
            high = middle;
        } else {
            low = middle + 1;
        }
    }
    return nullptr;
}

ObjectHeader header_of(const void *object) noexcept
{
    const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(object) - kHeaderBytes;
    if (address % alignof(u32) == 0 && registry.around(address) != nullptr) [[likely]] {
        return ObjectHeader::of_slot(reinterpret_cast<const unsigned char *>(address));
    }
    u32 word = 0;
    return read_word(address, word) ? ObjectHeader{word} : ObjectHeader{};
}

Pool *pool_named_by(const void *object) noexcept
{
    return object == nullptr ? nullptr : registry.find(header_of(object).pool());
}

bool is_selected(const Pool &pool, const char *prefix) noexcept
{
    const char *name = load(pool.name);
    return name != nullptr && begins_with(name, prefix);
}

void make_slots_free(unsigned char *slots, u32 slot_size, u32 count) noexcept
{
    std::memset(slots, 0, std::size_t{slot_size} * count);
    for (unsigned char *slot = slots; count-- > 0; slot += slot_size) {
        ObjectHeader{}.write_to(slot);
    }
}

namespace {

bool name_is_taken(const char *name) noexcept
{
    for (u32 id = 0; id < registry.count(); ++id) {
        const char *other = registry.at(id).name;
        if (other != nullptr && std::strcmp(name, other) == 0) {
            return true;
        }
    }
    return false;
}

SlotIndex *make_index(u32 slots) noexcept
{
    if (slots <= SlotIndex::kWorthwhile) {
        return nullptr;
    }
    const u32 bytes = SlotIndex::bytes_for(slots);
    unsigned char *block = nullptr;
    if (get_block("MEMM", bytes, block) != Result::ok) {
        return nullptr;
    }
    std::memset(block, 0, bytes);
    return SlotIndex::make(block, slots);
}

struct Size {
    u32 slot;   // bytes per slot; the object's own size when there can be no such pool
    u32 block;  // bytes to ask for; 0 when there can be no such pool
};

// Both are 1 at least.
Size size_of(int count, int object_size) noexcept
{
    const u64 slot = slot_bytes(static_cast<u32>(object_size));
    const u64 block = slot * static_cast<u32>(count) + kBlockLead;
    if (slot > 0x7fffffff || block > 0xffffffff) {
        return {static_cast<u32>(object_size), 0};
    }
    return {static_cast<u32>(slot), static_cast<u32>(block)};
}

void set_options(memm_pooloptions &own, const memm_pooloptions &given) noexcept
{
    own.stats_cb = given.stats_cb;
    own.print_cb = given.print_cb;
    own.release_cb = given.release_cb;
    own.release2_cb = given.release2_cb;
    own.gc_cb = given.gc_cb;
    store(own.cookie, given.cookie);  // the only one that getters read
    own.spare_count = given.spare_count;
    own.filter_cb = given.filter_cb;
}

// Null when it cannot be made; the caller reports that.
Pool *make_pool(Held held, const char *name, int count, Size size, const memm_pooloptions *options) noexcept
{
    if (size.block == 0 || (*name != '\0' && name_is_taken(name))) {
        return nullptr;
    }
    void *const descriptor = allocate(held, PoolId::descriptors);
    if (descriptor == nullptr) {
        return nullptr;
    }
    unsigned char *block = nullptr;
    if (get_block(name, size.block, block) != Result::ok) {
        // Deliberate: pool 0 takes no releases, so this leaves a trace and the descriptor stays taken.
        static_cast<void>(release(held, descriptor));
        return nullptr;
    }
    unsigned char *const slots = block + kBlockLead;
    make_slots_free(slots, size.slot, static_cast<u32>(count));

    auto &pool = *static_cast<Pool *>(descriptor);
    const PoolId id = id_of(pool);
    PoolAid &aid = registry.aid(id);
    aid.set_slots(slots, size.slot, static_cast<u32>(count));
    aid.index = make_index(static_cast<u32>(count));
    if (options != nullptr) {
        set_options(pool.options, *options);
    }
    const auto spare = static_cast<int>(std::clamp<intptr_t>(pool.options.spare_count, 0, count));
    auto *const last_slot = slots + std::size_t{size.slot} * static_cast<u32>(count - 1);
    store(pool.slot_size, size.slot);
    store(pool.slot_count, count);
    store(pool.first_free, slots);
    store(pool.last_used, slots - size.slot);
    store(pool.last_normal, last_slot - std::size_t{size.slot} * static_cast<u32>(spare));
    store(pool.last_item, last_slot);
    store(pool.name, name);
    publish(pool.slots, slots);
    aid.small_bytes = size.slot - kHeaderBytes <= PoolAid::kMostSmall ? size.slot - kHeaderBytes : 0;
    aid.is_ordinary = true;
    registry.place(held, id);
    return &pool;
}

}  // namespace

PoolId create_pool(Held held, const char *name, int count, int object_size, const memm_pooloptions *options) noexcept
{
    Size size{static_cast<u32>(object_size), 0};
    if (name != nullptr && count >= 1 && object_size >= 1) {
        if (!registry.has_table()) {
            err_printf(MEMM_E_SETUP, 2, "MEMM", "memmanager", __LINE__, "memm_initpool() called before mem_init()");
        } else {
            size = size_of(count, object_size);
            if (const Pool *pool = make_pool(held, name, count, size, options); pool != nullptr) {
                return id_of(*pool);
            }
        }
    }
    if (is_traced(1)) {
        trc_def_printf("[MEMM] Failed to allocate %s buffer (cnt=%d, objsize=%d)\r\n",
                       name == nullptr ? "<no_name>" : name, count, static_cast<int>(size.slot));
    }
    return PoolId::invalid;
}

}  // namespace memm

using namespace memm;

extern "C" {

int memm_initpool(const char *name, int count, int objsize, const memm_pooloptions *options)
{
    const ManagerLock lock("memm_initpool");
    return static_cast<int>(create_pool(lock.held(), name, count, objsize, options));
}

int memm_initpool2(const char *name, int count, int objsize, memm_print_fn print_cb, memm_release_fn release_cb)
{
    memm_pooloptions options{};
    options.print_cb = print_cb;
    options.release_cb = release_cb;
    return memm_initpool(name, count, objsize, &options);
}

int memm_initpool3(const char *name, int count, int objsize, memm_print_fn print_cb, memm_release2_fn release2_cb)
{
    memm_pooloptions options{};
    options.print_cb = print_cb;
    options.release2_cb = release2_cb;
    return memm_initpool(name, count, objsize, &options);
}

memm_pool *memm_get_pool_nolock(unsigned poolid) { return registry.find(PoolId{poolid}); }

const char *memm_get_poolname2(unsigned poolid)
{
    const Pool *pool = registry.find(PoolId{poolid});
    const char *name = pool == nullptr ? nullptr : load(pool->name);
    return name == nullptr ? "invalid poolid" : name;
}

const char *memm_get_poolname(const void *obj)
{
    return memm_get_poolname2(obj == nullptr ? to_index(PoolId::invalid) : to_index(header_of(obj).pool()));
}

int memm_get_poolid(const void *obj)
{
    return static_cast<int>(obj == nullptr ? PoolId::invalid : header_of(obj).pool());
}

void *memm_getpoolcookie_bypoolid(unsigned poolid)
{
    const Pool *pool = registry.find(PoolId{poolid});
    return pool == nullptr ? nullptr : load(pool->options.cookie);
}

void *memm_getpoolcookie(const void *obj)
{
    const Pool *pool = pool_named_by(obj);
    return pool == nullptr ? nullptr : load(pool->options.cookie);
}

void *memm_getpoolcookie_nolock(const void *obj) { return memm_getpoolcookie(obj); }

int *memm_get_currentcount_ptr(unsigned poolid, int *count_base, int *spare_flag)
{
    Pool *pool = registry.find(PoolId{poolid});
    if (pool == nullptr) {
        return nullptr;
    }
    store(pool->count_base, count_base);
    store(pool->spare_flag, spare_flag);
    return &pool->cur_count;
}
}
