#pragma once

#include "containers/list.h"

namespace memm::lists {

// Deliberate: only "greater" counts. An object goes before the first one that it is not greater than, so of equal ones
// the newest comes first.
inline bool goes_before(const Node *placed, const Node *ordered, llist_compare_fn compare) noexcept
{
    return compare(placed->obj, ordered->obj) <= 0;
}

// A chain of one node at least, in the order in which insertion one by one would leave it.
Node *sort(Node *chain, llist_compare_fn compare) noexcept;

}  // namespace memm::lists
