#include "memmanager/walk.h"

#include <memmanager/platform.h>

namespace memm {

namespace {

const unsigned char *slot_before(const void *object) noexcept { return slot_of(const_cast<void *>(object)); }

}  // namespace

Pool *pool_containing(const void *object) noexcept
{
    Pool *const pool = pool_named_by(object);
    return pool != nullptr && has_slots(*pool) && is_among_used(*pool, slot_before(object)) ? pool : nullptr;
}

int slot_number(const Pool &pool, const void *object) noexcept
{
    const auto distance = static_cast<std::intptr_t>(reinterpret_cast<std::uintptr_t>(slot_before(object)) -
                                                     reinterpret_cast<std::uintptr_t>(pool.slots));
    return static_cast<int>(distance / static_cast<std::intptr_t>(pool.slot_size));
}

namespace {

// Of any pointer whose header names a pool, inside of it or not.
int index_of(Held, const void *object) noexcept
{
    const Pool *const pool = pool_named_by(object);
    return pool == nullptr || !has_slots(*pool) ? 0 : slot_number(*pool, object);
}

// Without the lock: a pool that is being made has no slots yet, or only free ones.
void *object_at(PoolId id, int index) noexcept
{
    const Pool *const pool = registry.find(id);
    if (pool == nullptr || !has_slots(*pool) || index < 0 || index >= load(pool->slot_count)) {
        return nullptr;
    }
    unsigned char *const slot = load(pool->slots) + std::size_t{load(pool->slot_size)} * static_cast<u32>(index);
    return ObjectHeader::of_slot(slot).pool() == id ? object_in(slot) : nullptr;
}

void *find_object(Held held, PoolId id, int argument, int (*match)(void *, int)) noexcept
{
    const Pool *const pool = registry.find(id);
    if (pool == nullptr || match == nullptr) {
        return nullptr;
    }
    void *found = nullptr;
    walk(held, *pool, [&](unsigned char *slot) {
        if (match(object_in(slot), argument) != 0) {
            found = object_in(slot);
        }
        return found == nullptr;
    });
    return found;
}

void *object_of(unsigned char *slot) noexcept { return slot == nullptr ? nullptr : object_in(slot); }

void *first_object(Held, PoolId id) noexcept
{
    const Pool *const pool = registry.find(id);
    return pool == nullptr ? nullptr : object_of(first_in_use(*pool));
}

// Null, too, for a pointer that is not the start of an object in use.
void *object_after(Held, void *object) noexcept
{
    const PoolAid *const owner = owner_of(object);
    return owner == nullptr ? nullptr : object_of(in_use_after(*owner->pool, slot_of(object)));
}

// The objects reached, with the one at which `visit` stopped. Deliberate: without a callback the first one counts.
int visit_objects(Held held, PoolId id, int (*visit)(void *, void *), void *argument) noexcept
{
    const Pool *const pool = registry.find(id);
    if (pool == nullptr) {
        return 0;
    }
    int count = 0;
    walk(held, *pool, [&](unsigned char *slot) {
        ++count;
        return visit != nullptr && visit(object_in(slot), argument) != 0;
    });
    return count;
}

int tag_pool(Held held, const Pool &pool, bool tagged) noexcept
{
    int count = 0;
    walk(held, pool, [&](unsigned char *slot) {
        ObjectHeader::of_slot(slot).with_tag(tagged).write_to(slot);
        ++count;
        return true;
    });
    return count;
}

void tag_objects(Held held, const char *prefix, bool tagged) noexcept
{
    for (u32 id = 0; id < registry.count(); ++id) {
        const Pool &pool = registry.at(id);
        if (is_selected(pool, prefix)) {
            const int count = tag_pool(held, pool, tagged);
            dbg_printf("%stagged %d object(s) in pool %s\r\n", tagged ? "" : "un", count, pool.name);
        }
    }
}

}  // namespace

}  // namespace memm

using namespace memm;

extern "C" {

int memm_isvalidobj(const void *obj) { return pool_containing(obj) != nullptr; }

int memm_isvalidobj_nolock(const void *obj) { return pool_containing(obj) != nullptr; }

int memm_getindex(const void *obj)
{
    const ManagerLock lock("memm_getindex");
    return index_of(lock.held(), obj);
}

void *memm_getobject_byindex(unsigned poolid, int index) { return object_at(PoolId{poolid}, index); }

void *memm_search(unsigned poolid, int arg, int (*match)(void *obj, int arg))
{
    const ManagerLock lock("memm_search");
    return find_object(lock.held(), PoolId{poolid}, arg, match);
}

void *memm_getfirst(unsigned poolid)
{
    const ManagerLock lock("memm_getfirst");
    return first_object(lock.held(), PoolId{poolid});
}

void *memm_getnext(void *obj)
{
    const ManagerLock lock("memm_getnext");
    return object_after(lock.held(), obj);
}

int memm_enum_objects(unsigned poolid, int (*visit)(void *obj, void *arg), void *arg)
{
    const ManagerLock lock("memm_enum_objects");
    return visit_objects(lock.held(), PoolId{poolid}, visit, arg);
}

int memm_enum_objects_nolock(unsigned poolid, int (*visit)(void *obj, void *arg), void *arg)
{
    const BusyTask busy;
    return visit_objects(Held::by_caller(), PoolId{poolid}, visit, arg);
}

void memm_tag_objects(const char *prefix, void *tag)
{
    const ManagerLock lock("memm_tag_objects");
    tag_objects(lock.held(), prefix, tag != nullptr);
}
}
