#include "dyndata/area.h"

#include "memmanager/slots.h"

#include <algorithm>
#include <cstring>

namespace memm::data {

namespace {

struct Bytes {
    const unsigned char *from;
    u32 length;
};

PoolId pool_of(dyndata &object) noexcept { return ObjectHeader::of_slot(slot_of(&object)).pool(); }

// Which runs lie behind the one that goes is as good as random, so no branch depends on it. Free slots hold no pointer.
void lower_later_runs(const Area &area, Run gone) noexcept
{
    const Pool *const pool = registry.find(PoolId{area.poolid});
    if (pool == nullptr) {
        return;  // it could not be made
    }
    const u32 slot_size = pool->slot_size;
    unsigned char *const last = pool->last_used;
    for (unsigned char *slot = pool->slots; slot <= last; slot += slot_size) {
        unsigned char *&data = static_cast<dyndata *>(object_in(slot))->data;
        store(data, data - (data > gone.from ? gone.size : 0));
    }
}

// What follows the run moves down.
void remove(Area &area, Run run) noexcept
{
    if (run.size == 0) {
        return;
    }
    unsigned char *const rest = run.from + run.size;
    if (const auto rest_size = static_cast<std::size_t>(area.tail() - rest); rest_size > 0) {
        lower_later_runs(area, run);
        std::memmove(run.from, rest, rest_size);
    }
    add(area.curr, -run.size);
    std::memset(area.tail(), 0, run.size);
}

inline void grow(Area &area, u32 bytes) noexcept { raise_to(area.max, add(area.curr, bytes)); }

// Into an object that holds no bytes. What the area, or the object's limit, has no room for is cut.
Result write(Area &area, dyndata &object, Bytes bytes) noexcept
{
    if (bytes.from == nullptr) {
        return Result::ok;
    }
    const SizeInfo before = info_of(object);
    const u32 limit = before.max_size();
    const u32 room = std::min(limit != 0 && limit < area.room() ? limit : area.room(), SizeInfo::kMaxSize);
    const u32 size = std::min(bytes.length, room);
    // Deliberate: where there is no room at all, the limit goes too.
    set_info(object, room == 0 ? SizeInfo{0} : before.with_size(size));
    store(object.data, size == 0 ? nullptr : area.tail());
    std::memmove(area.tail(), bytes.from, size);
    grow(area, size);
    return room < bytes.length ? Result::no_memory : Result::ok;
}

// The new bytes go to the tail before the old ones leave, so they may be made from these. A temporary object would hold
// the old ones meanwhile; it is only booked.
Result replace(Held held, Area &area, dyndata &object, Bytes bytes) noexcept
{
    if (!allocate_in_passing(held, pool_of(object))) {
        return Result::no_memory;
    }
    const Run old = run_of(area, object);
    store(object.data, nullptr);
    const Result result = write(area, object, bytes);
    remove(area, old);
    return result;
}

// Deliberate: appending does not honour the limit.
Result extend(Area &area, dyndata &object, Run run, Bytes bytes) noexcept
{
    const u32 room = area.room();
    if (room == 0 || room < bytes.length || bytes.length > SizeInfo::kMaxSize - run.size) {
        return Result::no_memory;
    }
    unsigned char *const tail = area.tail();
    set_info(object, info_of(object).with_size(run.size + bytes.length));
    grow(area, bytes.length);
    std::memmove(tail, bytes.from, bytes.length);
    return Result::ok;
}

// The run moves to the tail and grows there; nothing changes unless all of it finds room. The work object that would
// hold it meanwhile takes a slot, and the copying into it books another.
[[gnu::noinline]] Result move_and_extend(Held held, Area &area, dyndata &object, Run run, Bytes bytes) noexcept
{
    const PoolId pool = pool_of(object);
    void *const work = allocate(held, pool);
    if (work == nullptr) {
        return Result::no_memory;
    }
    const u64 size = u64{run.size} + bytes.length;
    // As in extend(), there must be room left behind the moved run, even for no bytes.
    const bool fits =
        allocate_in_passing(held, pool) && run.size < area.room() && size <= std::min(area.room(), SizeInfo::kMaxSize);
    if (fits) {
        unsigned char *const moved = area.tail();
        std::memcpy(moved, run.from, run.size);
        std::memmove(moved + run.size, bytes.from, bytes.length);
        grow(area, static_cast<u32>(size));
        store(object.data, moved);
        set_info(object, SizeInfo{0}.with_size(static_cast<u32>(size)));
        remove(area, run);
    }
    static_cast<void>(release(held, work));
    return fits ? Result::ok : Result::no_memory;
}

Result append(Held held, Area &area, dyndata &object, Bytes bytes) noexcept
{
    const Run run = run_of(area, object);
    if (run.from == nullptr) {
        return write(area, object, bytes);
    }
    if (run.from + run.size == area.tail()) [[likely]] {
        return extend(area, object, run, bytes);
    }
    return move_and_extend(held, area, object, run, bytes);
}

dyndata *create(Held held, PoolId pool, Bytes bytes) noexcept
{
    auto *const object = static_cast<dyndata *>(allocate(held, pool));
    if (object == nullptr) {
        return nullptr;
    }
    Area *const area = owner_area(object);
    if (area == nullptr) {
        trace_foreign("loc_dyndata_setdata");
    }
    if (area == nullptr || write(*area, *object, bytes) != Result::ok) {
        static_cast<void>(release(held, object));
        return nullptr;
    }
    return object;
}

Run run_of(const dyndata *object) noexcept
{
    const Area *const area = owner_area(object);
    return area == nullptr ? Run{nullptr, 0} : run_of(*area, *object);
}

// No bytes equal nothing.
bool are_equal(Run run, const void *bytes, u32 length) noexcept
{
    return run.size != 0 && run.size == length && std::memcmp(run.from, bytes, length) == 0;
}

}  // namespace

int release_buffer(void *object)
{
    Area *const area = owner_area(object);
    if (area == nullptr) {
        trace_foreign("loc_dyndata_free_ex");
        return MEMM_E_INVALID;
    }
    dyndata &buffer = *static_cast<dyndata *>(object);
    const Run run = run_of(*area, buffer);
    store(buffer.data, nullptr);
    remove(*area, run);
    return MEMM_OK;
}

}  // namespace memm::data

using namespace memm;
using namespace memm::data;

extern "C" {

int dyndata_isdyndata(const void *obj) { return owner_area(obj) != nullptr ? 1 : 0; }

unsigned dyndata_getmaxsize(const dyndata *d) { return owner_area(d) == nullptr ? 0 : info_of(*d).max_size(); }

unsigned dyndata_setmaxsize(dyndata *d, unsigned maxsize)
{
    if (owner_area(d) == nullptr) {
        return to_c(Result::invalid);
    }
    set_info(*d, info_of(*d).with_max_size(maxsize));
    return to_c(Result::ok);
}

unsigned dyndata_getdatasize(const dyndata *d) { return owner_area(d) == nullptr ? 0 : info_of(*d).size(); }

const unsigned char *dyndata_getdata(const dyndata *d)
{
    const ManagerLock lock("dyndata_getdata");
    return owner_area(d) == nullptr ? nullptr : d->data;
}

int dyndata_isdyndata_equal(const dyndata *a, const dyndata *b)
{
    const Run other = run_of(b);
    return are_equal(run_of(a), other.from, other.size) ? 1 : 0;
}

int dyndata_isdyndata_equal2(const dyndata *d, const void *bytes, unsigned length)
{
    return bytes != nullptr && are_equal(run_of(d), bytes, length) ? 1 : 0;
}

dyndata *dyndata_calloc(unsigned poolid) { return dyndata_calloc_maxsize(poolid, 0); }

// Any pool may be asked; where its objects are too small for a buffer, there is nothing to write the limit into.
// Descriptors are the manager's.
dyndata *dyndata_calloc_maxsize(unsigned poolid, unsigned maxsize)
{
    auto *const object = static_cast<dyndata *>(memm_calloc(poolid));
    const PoolAid *const aid = object == nullptr ? nullptr : registry.find_aid(PoolId{poolid});
    if (aid != nullptr && aid->is_ordinary && aid->pool->slot_size >= slot_bytes(sizeof(dyndata))) {
        set_info(*object, info_of(*object).with_max_size(maxsize));
    }
    return object;
}

dyndata *dyndata_calloc_maxlen(unsigned poolid, unsigned maxsize) { return dyndata_calloc_maxsize(poolid, maxsize); }

dyndata *dyndata_refalloc(dyndata *d) { return static_cast<dyndata *>(memm_refalloc(d)); }

int dyndata_free(dyndata *d) { return memm_free(d); }

unsigned dyndata_setdata(dyndata *d, const void *bytes, unsigned length)
{
    const ManagerLock lock("dyndata_setdata");
    Area *const area = owner_area(d);
    return to_c(area == nullptr ? Result::invalid
                                : replace(lock.held(), *area, *d, {static_cast<const unsigned char *>(bytes), length}));
}

dyndata *dyndata_fromdata(unsigned poolid, const void *bytes, unsigned length)
{
    const ManagerLock lock("dyndata_fromdata");
    return data::create(lock.held(), PoolId{poolid}, {static_cast<const unsigned char *>(bytes), length});
}

unsigned dyndata_adddata(dyndata *d, const void *bytes, unsigned length)
{
    if (bytes == nullptr) {
        return to_c(Result::ok);
    }
    const ManagerLock lock("dyndata_adddata");
    Area *const area = owner_area(d);
    return to_c(area == nullptr
                    ? Result::invalid
                    : data::append(lock.held(), *area, *d, {static_cast<const unsigned char *>(bytes), length}));
}
}
