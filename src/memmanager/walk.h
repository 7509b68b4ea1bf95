#pragma once

#include "memmanager/pool.h"

namespace memm {

// Visits the objects in use in the order of their slots until `visit` answers false. It may release the object that it
// is given, and allocate: where the walk goes on and where it ends is looked up after every step.
template <typename Visit> void walk(Held, const Pool &pool, Visit visit) noexcept
{
    for (unsigned char *slot = first_in_use(pool); slot != nullptr; slot = in_use_after(pool, slot)) {
        if (!visit(slot)) {
            return;
        }
    }
}

// The pool that the object's header names, when it lies among that pool's used slots; else null. Whether it is the
// start of a slot is not looked at.
Pool *pool_containing(const void *object) noexcept;

// The number of the slot that an object lies in, counted on beyond the ends; the pool has slots.
int slot_number(const Pool &pool, const void *object) noexcept;

}  // namespace memm
