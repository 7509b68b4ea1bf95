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

// The short way, in place: what an application calls most.
[[gnu::always_inline]] inline void *allocate_here(Held held, PoolId id) noexcept
{
    const PoolAid *const aid = registry.find_aid(id);
    if (aid == nullptr) {
        return nullptr;
    }
    void *const object = take_slot(held, *aid, Reserve::closed);
    return object != nullptr ? object : collect_and_allocate(held, *aid);
}

}  // namespace

void *allocate(Held held, PoolId id) noexcept { return allocate_here(held, id); }

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

// Others hold the object too, or its pool has a say in the release.
[[gnu::noinline]] Result release_shared(Held held, const PoolAid &aid, void *object) noexcept
{
    unsigned char *const slot = slot_of(object);
    const ObjectHeader header = ObjectHeader::of_slot(slot);
    if (header.extra_refs() != 0) {
        header.with_extra_refs(header.extra_refs() - 1).write_to(slot);
        add(aid.pool->refs, -1U);
        add(aid.pool->free_count, 1);
        return Result::ok;
    }
    switch (ask_callback(aid, object)) {
    case Verdict::kept:
        return Result::ok;
    case Verdict::refused:
        return Result::setup;
    case Verdict::free_slot:
        break;
    }
    // Deliberate: reported, and the slot is freed again all the same.
    if (!ObjectHeader::of_slot(slot).in_use()) [[unlikely]] {
        trace_release("[MEMM] memm_free: Recursive release detected: 0x%08lx (poolid = %d)\r\n", slot, header.pool());
    }
    finish_release(held, aid, slot);
    return Result::ok;
}

// Descriptors cannot be released.
[[gnu::always_inline]] inline Result release_here(Held held, void *object) noexcept
{
    const PoolAid *const aid = owner_of(object);
    if (aid == nullptr || aid->id == PoolId::descriptors || slot_of(object) > aid->pool->last_used) [[unlikely]] {
        report_invalid(object);
        return Result::ok;
    }
    unsigned char *const slot = slot_of(object);
    const memm_pooloptions &options = aid->pool->options;
    if (ObjectHeader::of_slot(slot).extra_refs() != 0 || options.release_cb != nullptr ||
        options.release2_cb != nullptr) {
        return release_shared(held, *aid, object);
    }
    finish_release(held, *aid, slot);
    return Result::ok;
}

}  // namespace

Result release(Held held, void *object) noexcept { return release_here(held, object); }

}  // namespace memm

using namespace memm;

extern "C" {

void *memm_calloc(unsigned poolid)
{
    const ManagerLock lock("memm_calloc");
    return allocate_here(lock.held(), PoolId{poolid});
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
    const ManagerLock lock("memm_free");
    return to_int(release_here(lock.held(), obj));
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
