#include "memmanager/depletion.h"
#include "memmanager/slots.h"
#include "memmanager/trace.h"

#include "base/format.h"
#include "platform/probe.h"

#include <memmanager/platform.h>

namespace memm {

namespace {

// Deliberate: a callback that promises free slots is believed, however often.
[[gnu::noinline]] void *collect_and_allocate(Held held, const PoolAid &aid) noexcept
{
    for (int attempt = 0;; ++attempt) {
        const memm_pooloptions &options = aid.pool->options;
        if (options.gc_cb == nullptr ||
            options.gc_cb(options.cookie, attempt, static_cast<int>(aid.pool->slot_size)) == 0) {
            report_depletion(held, *aid.pool);
            return nullptr;
        }
        if (void *object = take_slot(held, aid, Reserve::closed); object != nullptr) {
            return object;
        }
    }
}

void *allocate_elsewhere(Held held, const PoolAid &aid) noexcept
{
    void *const object = take_slot_elsewhere(aid, Reserve::closed);
    return object != nullptr ? object : collect_and_allocate(held, aid);
}

}  // namespace

void *allocate(Held held, PoolId id) noexcept
{
    const PoolAid *const aid = registry.find_aid(id);
    if (aid == nullptr) {
        return nullptr;
    }
    void *const object = take_slot(held, *aid, Reserve::closed);
    return object != nullptr ? object : collect_and_allocate(held, *aid);
}

void *allocate_without_gc(Held held, PoolId id) noexcept
{
    const PoolAid *const aid = registry.find_aid(id);
    if (aid == nullptr) {
        return nullptr;
    }
    void *const object = take_slot(held, *aid, Reserve::open);
    if (object == nullptr) {
        report_depletion(held, *aid->pool);
    }
    return object;
}

bool allocate_in_passing(Held held, PoolId id) noexcept
{
    const PoolAid &aid = registry.aid(id);
    if (pass_slot(held, aid)) {
        return true;
    }
    report_depletion(held, *aid.pool);
    return false;
}

namespace {

void *refuse_reference(const char *reason) noexcept
{
    char message[80];
    format_to(message, sizeof message, "memm__refalloc() failed (%s)", reason);
    err_printf(MEMM_E_NO_MEMORY, 2, "memm", "memmanager", __LINE__, message);
    return nullptr;
}

// The object may lie outside of all pools, where its header may be anything.
bool write_header(void *object, ObjectHeader header) noexcept
{
    const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(object) - kHeaderBytes;
    if (address % alignof(u32) == 0 && registry.around(address) != nullptr) [[likely]] {
        header.write_to(slot_of(object));
        return true;
    }
    return write_word(address, header.word());
}

}  // namespace

// Deliberate: the count is written before it is judged, so a refused reference leaves 255, and the one after wraps to
// 0.
void *add_reference(Held, void *object) noexcept
{
    if (object == nullptr) {
        return nullptr;
    }
    const ObjectHeader header = header_of(object);
    Pool *const pool = registry.find(header.pool());
    const u32 refs = header.extra_refs() + 1;
    if (pool == nullptr || !write_header(object, header.with_extra_refs(refs))) {
        return refuse_reference("invalid object passed");
    }
    if (refs >= ObjectHeader::kMaxExtraRefs) {
        return refuse_reference("too many references for this object");
    }
    raise_to(pool->max_refs, add(pool->refs, 1));
    // In pool 0 this word keeps the highest count of any object.
    if (unsigned &highest = registry.at(0).max_refs; static_cast<int>(load(highest)) < static_cast<int>(refs)) {
        store(highest, refs);
    }
    return object;
}

namespace {

// Addresses in these texts have eight digits at least, and more where a pointer needs them.
void trace_release(const char *text, const unsigned char *slot, PoolId id) noexcept
{
    if (is_traced(1)) {
        trc_def_printf(text, reinterpret_cast<unsigned long>(slot), static_cast<int>(to_index(id)));
    }
}

enum class Verdict { free_slot, kept, refused };

Verdict ask_callback(const PoolAid &aid, void *object) noexcept
{
    const memm_pooloptions &options = aid.pool->options;
    if (options.release2_cb != nullptr) {
        if (options.release2_cb(object, memm_free_nolock) == 0) {
            return Verdict::free_slot;
        }
        trace_release("[MEMM] memm_free: free2_ex failed for: 0x%08lx (poolid = %d)\r\n", slot_of(object), aid.id);
        return Verdict::refused;
    }
    if (options.release_cb == nullptr) {
        return Verdict::free_slot;
    }
    switch (options.release_cb(object)) {
    case MEMM_OK:
        return Verdict::free_slot;
    case MEMM_KEPT:
        return Verdict::kept;
    default:
        break;
    }
    trace_release("[MEMM] memm_free: free_ex failed for: 0x%08lx (poolid = %d)\r\n", slot_of(object), aid.id);
    return Verdict::refused;
}

// Null and the object of a header at address 0 are nothing to release; other pointers are somebody's mistake.
[[gnu::cold, gnu::noinline]] void report_invalid(void *object) noexcept
{
    const auto address = reinterpret_cast<std::uintptr_t>(object);
    if (address != 0 && address != kHeaderBytes) {
        trace_release("[MEMM] memm_free: Attempt to release invalid pointer: 0x%08lx (poolid = %d)\r\n",
                      reinterpret_cast<const unsigned char *>(address - kHeaderBytes), header_of(object).pool());
    }
}

bool has_say_in_release(const Pool &pool) noexcept
{
    return pool.options.release_cb != nullptr || pool.options.release2_cb != nullptr;
}

// The pool may have a say in the release of an object that nobody else holds.
Result release_sole(Held held, const PoolAid &aid, void *object) noexcept
{
    switch (ask_callback(aid, object)) {
    case Verdict::kept:
        return Result::ok;
    case Verdict::refused:
        return Result::setup;
    case Verdict::free_slot:
        break;
    }
    unsigned char *const slot = slot_of(object);
    // Deliberate: reported, and the slot is freed again all the same.
    if (!ObjectHeader::of_slot(slot).in_use()) [[unlikely]] {
        trace_release("[MEMM] memm_free: Recursive release detected: 0x%08lx (poolid = %d)\r\n", slot, aid.id);
    }
    finish_release(held, aid, slot);
    return Result::ok;
}

Result release_owned(Held held, const PoolAid &aid, void *object) noexcept
{
    const ObjectHeader header = ObjectHeader::of_slot(slot_of(object));
    if (header.extra_refs() == 0) {
        return release_sole(held, aid, object);
    }
    header.with_extra_refs(header.extra_refs() - 1).write_to(slot_of(object));
    add(aid.pool->refs, -1U);
    add(aid.pool->free_count, 1);
    return Result::ok;
}

struct Owner {
    const PoolAid *aid;
    u32 number;  // of the object's slot
};

// The pool of an object in use with one holder, when the pool is one of those met last; null elsewhere.
// Descriptors cannot be released.
[[gnu::always_inline]] inline Owner sole_owner_of(void *object) noexcept
{
    unsigned char *const slot = slot_of(object);
    const PoolAid *const aid = registry.recent_around(reinterpret_cast<std::uintptr_t>(slot));
    if (aid == nullptr) {
        return {};
    }
    const u32 number = aid->number_of(slot);
    const bool is_sole = aid->is_number(number) && ObjectHeader::of_slot(slot).is_sole(aid->id) && aid->is_ordinary &&
                         slot <= aid->pool->last_used;
    return {is_sole ? aid : nullptr, number};
}

}  // namespace

Result release(Held held, void *object) noexcept
{
    if (const Owner owner = sole_owner_of(object); owner.aid != nullptr) {
        return release_sole(held, *owner.aid, object);
    }
    const PoolAid *const aid = owner_of(object);
    if (aid == nullptr || aid->id == PoolId::descriptors || slot_of(object) > aid->pool->last_used) {
        report_invalid(object);
        return Result::ok;
    }
    return release_owned(held, *aid, object);
}

namespace {

// What an application calls most is over without a call, and so without a stack frame, as a rule: the lock is free, the
// first slot tried is, and nobody has sent a signal. The functions below take over wherever that is not so.

[[gnu::noinline]] void *allocate_at_length(PoolId id) noexcept
{
    const ManagerLock lock("memm_calloc");
    return allocate(lock.held(), id);
}

[[gnu::noinline]] void *end_allocation(void *object, const PoolAid *aid) noexcept
{
    if (object == nullptr && aid != nullptr) {
        object = allocate_elsewhere(Held::by_caller(), *aid);
    }
    default_lock.leave();
    return object;
}

// From where the lock is held.
[[gnu::noinline]] void *allocate_lowest(const PoolAid &aid) noexcept
{
    void *const object = take_lowest_slot_at_once(Held::by_caller(), aid);
    return object != nullptr && default_lock.leave_at_once() ? object : end_allocation(object, &aid);
}

[[gnu::noinline]] Result release_at_length(void *object) noexcept
{
    const ManagerLock lock("memm_free");
    return release(lock.held(), object);
}

[[gnu::noinline]] Result end_release(bool released, const PoolAid *aid, void *object) noexcept
{
    const Held held = Held::by_caller();
    const Result result = released         ? Result::ok
                          : aid != nullptr ? release_sole(held, *aid, object)
                                           : release(held, object);
    default_lock.leave();
    return result;
}

// Behind return_slot(), from where the lock is held.
[[gnu::noinline]] Result clear_and_leave(SlotIndex &index, u32 number) noexcept
{
    index.clear(number);
    return default_lock.leave_at_once() ? Result::ok : end_release(true, nullptr, nullptr);
}

}  // namespace

}  // namespace memm

using namespace memm;

extern "C" {

void *memm_calloc(unsigned poolid)
{
    const PoolId id{poolid};
    if (!default_lock.enter_at_once()) [[unlikely]] {
        return allocate_at_length(id);
    }
    const PoolAid *const aid = registry.find_aid(id);
    if (aid != nullptr && aid->wrong_guesses != 0) {
        return allocate_lowest(*aid);
    }
    void *const object = aid != nullptr ? take_slot_at_once(Held::by_caller(), *aid) : nullptr;
    return object != nullptr && default_lock.leave_at_once() ? object : end_allocation(object, aid);
}

void *memm_calloc_nolock(unsigned poolid)
{
    const BusyTask busy;
    return allocate(Held::by_caller(), PoolId{poolid});
}

void *memm_calloc_nolock_nogc(unsigned poolid)
{
    const BusyTask busy;
    return allocate_without_gc(Held::by_caller(), PoolId{poolid});
}

void *memm_refalloc(void *obj)
{
    const ManagerLock lock("memm_refalloc");
    return add_reference(lock.held(), obj);
}

void *memm_refalloc_nolock(void *obj)
{
    const BusyTask busy;
    return add_reference(Held::by_caller(), obj);
}

int memm_free(void *obj)
{
    if (!default_lock.enter_at_once()) [[unlikely]] {
        return to_int(release_at_length(obj));
    }
    const auto [aid, number] = sole_owner_of(obj);
    const bool released =
        aid != nullptr && !has_say_in_release(*aid->pool) && return_slot(Held::by_caller(), *aid, slot_of(obj));
    if (released && aid->index != nullptr) {
        return to_int(clear_and_leave(*aid->index, number));
    }
    return to_int(released && default_lock.leave_at_once() ? Result::ok : end_release(released, aid, obj));
}

int memm_free_nolock(void *obj)
{
    const BusyTask busy;
    return to_int(release(Held::by_caller(), obj));
}

int memm_ex_free(void **pobj)
{
    if (pobj == nullptr) {
        return MEMM_OK;
    }
    const int result = memm_free(*pobj);
    memm_removeFromAllocateList(pobj);
    return result;
}

// Hooks for tools that track allocations; they do nothing here.
void memm_addToAllocateList(void * /*slot*/, ...) {}

void memm_removeFromAllocateList(void * /*slot*/) {}

int memm_instanceof_no_ori(const void *obj, unsigned poolid)
{
    const PoolId id = obj == nullptr ? PoolId::invalid : header_of(obj).pool();
    return id == PoolId{poolid} ? 1 : 0;
}
}
