#include "dyndata/area.h"

#include "memmanager/slots.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace memm::data {

namespace {

struct Bytes {
    const unsigned char *from;
    u32 length;
};

// The bytes [run, run + size) go; what follows moves down, and so do the pointers to it.
void close_gap(Area &area, const unsigned char *run, u32 size) noexcept
{
    unsigned char *const gap = area.buffer + (run - area.buffer);
    unsigned char *const rest = gap + size;
    const auto rest_size = static_cast<std::size_t>(area.tail() - rest);
    if (rest_size > 0 && size > 0) {
        const Pool &pool = registry.at(area.poolid);
        for (unsigned char *slot = first_in_use(pool); slot != nullptr; slot = in_use_after(pool, slot)) {
            dyndata &object = *static_cast<dyndata *>(object_in(slot));
            if (object.data > gap) {
                object.data -= size;
            }
        }
        std::memmove(gap, rest, rest_size);
    }
    area.curr -= size;
    std::memset(area.tail(), 0, size);
}

void grow(Area &area, u32 bytes) noexcept
{
    area.curr += bytes;
    raise_to(area.max, area.curr);
}

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
    const SizeInfo after = room == 0 ? SizeInfo{0} : before.with_size(0).with_size(size);
    object.data = size == 0 ? nullptr : area.tail();
    if (size != 0) {
        std::memmove(object.data, bytes.from, size);
    }
    set_info(object, after);
    grow(area, size);
    return room < bytes.length ? Result::no_memory : Result::ok;
}

// The new bytes go to the tail before the old ones leave, so they may be made from these. A temporary object would hold
// the old ones meanwhile; it is only booked.
Result replace(Held held, Area &area, dyndata &object, Bytes bytes) noexcept
{
    if (!allocate_in_passing(held, PoolId{area.poolid})) {
        return Result::no_memory;
    }
    const unsigned char *const old = std::exchange(object.data, nullptr);
    const u32 old_size = info_of(object).size();
    const Result result = write(area, object, bytes);
    if (old != nullptr) {
        close_gap(area, old, old_size);
    }
    return result;
}

bool is_last_run(const Area &area, const dyndata &object) noexcept
{
    return object.data + info_of(object).size() == area.tail();
}

// Deliberate: appending does not honour the limit.
Result extend(Area &area, dyndata &object, Bytes bytes) noexcept
{
    const u32 size = info_of(object).size();
    if (area.room() == 0 || area.room() < bytes.length || bytes.length > SizeInfo::kMaxSize - size) {
        return Result::no_memory;
    }
    std::memmove(area.tail(), bytes.from, bytes.length);
    set_info(object, info_of(object).with_size(size + bytes.length));
    grow(area, bytes.length);
    return Result::ok;
}

// The run moves to the tail and grows there; nothing changes unless all of it finds room. The work object that would
// hold it meanwhile takes a slot, and the copying into it books another.
Result move_and_extend(Held held, Area &area, dyndata &object, Bytes bytes) noexcept
{
    const PoolId pool{area.poolid};
    void *const work = allocate(held, pool);
    if (work == nullptr) {
        return Result::no_memory;
    }
    const u32 size = info_of(object).size();
    const u64 grown = u64{size} + bytes.length;
    const bool fits = allocate_in_passing(held, pool) && grown <= area.room() && grown <= SizeInfo::kMaxSize;
    if (fits) {
        unsigned char *const moved = area.tail();
        std::memcpy(moved, object.data, size);
        std::memmove(moved + size, bytes.from, bytes.length);
        grow(area, static_cast<u32>(grown));
        close_gap(area, std::exchange(object.data, moved), size);
        set_info(object, SizeInfo{0}.with_size(static_cast<u32>(grown)));
    }
    static_cast<void>(release(held, work));
    return fits ? Result::ok : Result::no_memory;
}

Result append(Held held, Area &area, dyndata &object, Bytes bytes) noexcept
{
    if (object.data == nullptr) {
        return write(area, object, bytes);
    }
    return is_last_run(area, object) ? extend(area, object, bytes) : move_and_extend(held, area, object, bytes);
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

// An empty object equals nothing.
bool holds(const dyndata &object, const void *bytes, u32 length) noexcept
{
    return object.data != nullptr && length != 0 && info_of(object).size() == length &&
           std::memcmp(object.data, bytes, length) == 0;
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
    if (const unsigned char *const run = std::exchange(buffer.data, nullptr); run != nullptr) {
        close_gap(*area, run, info_of(buffer).size());
    }
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
    const bool comparable = owner_area(a) != nullptr && owner_area(b) != nullptr && b->data != nullptr;
    return comparable && holds(*a, b->data, info_of(*b).size()) ? 1 : 0;
}

int dyndata_isdyndata_equal2(const dyndata *d, const void *bytes, unsigned length)
{
    return owner_area(d) != nullptr && bytes != nullptr && holds(*d, bytes, length) ? 1 : 0;
}

dyndata *dyndata_calloc(unsigned poolid) { return dyndata_calloc_maxsize(poolid, 0); }

// Any pool may be asked; where its objects are too small for a buffer, there is nothing to write the limit into.
dyndata *dyndata_calloc_maxsize(unsigned poolid, unsigned maxsize)
{
    auto *const object = static_cast<dyndata *>(memm_calloc(poolid));
    const Pool *const pool = object == nullptr ? nullptr : registry.find(PoolId{poolid});
    if (pool != nullptr && pool->slot_size >= slot_bytes(sizeof(dyndata))) {
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
