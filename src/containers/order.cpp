#include "containers/list.h"

#include <climits>
#include <utility>

namespace memm::lists {

namespace {

// Deliberate: only "greater" counts. An object goes before the first one that it is not greater than, so of equal ones
// the newest comes first.
bool goes_before(Node *placed, Node *ordered, llist_compare_fn compare) noexcept
{
    return compare(placed->obj, ordered->obj) <= 0;
}

// --- sorting: the runs that are there, merged two by two ---

// Takes the first node of `from` over to the end; false when that was the last one, and `other` follows.
bool take(Node **&end, Node *&from, Node *other) noexcept
{
    *end = from;
    end = &from->next;
    from = *end;
    if (from != nullptr) {
        return true;
    }
    *end = other;
    return false;
}

// Of two sorted chains, `newer` holds the objects that stood later.
Node *merge(Node *older, Node *newer, llist_compare_fn compare) noexcept
{
    Node *merged = nullptr;
    Node **end = &merged;
    void *older_object = older->obj;
    void *newer_object = newer->obj;
    for (;;) {
        if (compare(newer_object, older_object) <= 0) {
            if (!take(end, newer, older)) {
                return merged;
            }
            newer_object = newer->obj;
        } else {
            if (!take(end, older, newer)) {
                return merged;
            }
            older_object = older->obj;
        }
    }
}

// Cuts the longest run, rising or falling, off the front of the chain, as a sorted chain.
Node *take_run(Node *&chain, llist_compare_fn compare) noexcept
{
    Node *const first = chain;
    Node *next = first->next;
    if (next == nullptr || goes_before(next, first, compare)) {
        Node *run = first;  // falling: reversed on the way
        first->next = nullptr;
        while (next != nullptr && (run == first || goes_before(next, run, compare))) {
            run = std::exchange(next, std::exchange(next->next, run));
        }
        chain = next;
        return run;
    }
    Node *last = next;
    for (next = last->next; next != nullptr && !goes_before(next, last, compare); next = last->next) {
        last = next;
    }
    last->next = nullptr;
    chain = next;
    return first;
}

// The first four nodes of a chain, where they are neither rising nor falling, by selections instead of branches: which
// of them it is cannot be foretold. Their lowest and highest are what the two pairs have first and last.
Node *take_four(Node *&chain, llist_compare_fn compare) noexcept
{
    Node *const a = chain;
    Node *const b = a->next;
    Node *const c = b->next;
    Node *const d = c->next;
    const bool falls = goes_before(b, a, compare);
    const bool falls_between = goes_before(c, b, compare);
    const bool falls_then = goes_before(d, c, compare);
    if (falls == falls_between && falls == falls_then) {
        return take_run(chain, compare);
    }
    Node *const older_low = falls ? b : a;
    Node *const older_high = falls ? a : b;
    Node *const newer_low = falls_then ? d : c;
    Node *const newer_high = falls_then ? c : d;
    const bool newer_is_first = goes_before(newer_low, older_low, compare);
    const bool newer_is_last = !goes_before(newer_high, older_high, compare);
    Node *const first = newer_is_first ? newer_low : older_low;
    Node *const low = newer_is_first ? older_low : newer_low;
    Node *const high = newer_is_last ? older_high : newer_high;
    Node *const last = newer_is_last ? newer_high : older_high;

    // What is left is a pair in order, or one of each.
    Node *const newer = newer_is_first ? high : low;
    Node *const older = newer_is_first ? low : high;
    const bool newer_goes_first = goes_before(newer, older, compare);
    const bool swaps = (newer_is_first != newer_is_last) & (newer_goes_first == newer_is_first);
    chain = d->next;
    first->next = swaps ? high : low;
    first->next->next = swaps ? low : high;
    first->next->next->next = last;
    last->next = nullptr;
    return first;
}

bool has_four(const Node *chain) noexcept
{
    return chain->next != nullptr && chain->next->next != nullptr && chain->next->next->next != nullptr;
}

// A binary counter of chains: place i holds 2^i runs, the higher places the ones that stood earlier.
Node *sort(Node *chain, llist_compare_fn compare) noexcept
{
    constexpr int kPlaces = 32;
    Node *places[kPlaces] = {};
    while (chain != nullptr) {
        Node *run = has_four(chain) ? take_four(chain, compare) : take_run(chain, compare);
        int place = 0;
        for (; places[place] != nullptr; ++place) {
            run = merge(std::exchange(places[place], nullptr), run, compare);
        }
        places[place] = run;
    }
    Node *sorted = nullptr;
    for (Node *const older : places) {
        if (older != nullptr) {
            sorted = sorted == nullptr ? older : merge(older, sorted, compare);
        }
    }
    return sorted;
}

bool counts_two(const Node *list) noexcept
{
    return list != nullptr && list->obj != nullptr && list->next != nullptr && list->next->obj != nullptr;
}

Result sort_list(Node **plist, llist_compare_fn compare) noexcept
{
    if (!is_list(plist)) {
        return Result::invalid;
    }
    if (counts_two(*plist)) {
        *plist = sort(*plist, compare);
    }
    return Result::ok;
}

// --- sorted insertion: the calls of compare are part of what it promises ---

// In strides of ten up to a node whose successor is known not to be passed, then step by step.
Node *node_before(Node *placed, Node *first, llist_compare_fn compare) noexcept
{
    constexpr int kStride = 10;
    for (;;) {
        Node *reached = first;
        for (int steps = 0; steps < kStride && reached->next != nullptr; ++steps) {
            reached = reached->next;
        }
        if (reached->next == nullptr || goes_before(placed, reached->next, compare)) {
            break;
        }
        first = reached;
    }
    while (first->next != nullptr && !goes_before(placed, first->next, compare)) {
        first = first->next;
    }
    return first;
}

void insert_sorted(Held held, Node **plist, void *object, int poolid, llist_compare_fn compare) noexcept
{
    if (compare == nullptr || !is_list(plist)) {
        return;
    }
    Node *const node = make_node(held, poolid, object);
    if (node == nullptr) {
        return;
    }
    const bool is_first = *plist == nullptr || goes_before(node, *plist, compare);
    Node **const link = is_first ? plist : &node_before(node, *plist, compare)->next;
    node->next = *link;
    *link = node;
}

// --- positions ---

// Where a node that is to have this index goes: index = number of nodes is the end, from below 0 the front. Null when
// the chain is too short.
Node **insertion_link(Node **plist, int index) noexcept
{
    const Position position = walk_to(plist, index);
    return position.left > 0 ? nullptr : position.link;
}

// Deliberate: the node is made first, and is not given back when there is no such position.
Result insert(Held held, Node **plist, void *object, int index, int poolid) noexcept
{
    const bool has_list = is_list(plist);  // asked first: a released node may be the slot that is taken
    Node *const node = make_node(held, poolid, object);
    if (node == nullptr) {
        return Result::no_memory;
    }
    Node **const link = has_list ? insertion_link(plist, index) : nullptr;
    if (link == nullptr) {
        return Result::invalid;
    }
    node->next = *link;
    *link = node;
    return Result::ok;
}

// Chains that have a node in common end in the same link. Joined, they would be a ring.
bool share_nodes(Node **plist, Node **other_end) noexcept { return end_of(plist) == other_end; }

Result insert_chain(Node **plist, Node *chain, int index) noexcept
{
    if (chain == nullptr) {
        return Result::ok;
    }
    Node **const link = insertion_link(plist, index);
    if (link == nullptr || !is_node(chain)) {
        return Result::invalid;
    }
    Node **const end = end_of(&chain->next);
    if (share_nodes(plist, end)) {
        return Result::invalid;
    }
    *end = *link;
    *link = chain;
    return Result::ok;
}

Result append_chain(Node **plist, Node *chain) noexcept
{
    if (!is_list(plist) || !is_node(chain) || share_nodes(plist, end_of(&chain->next))) {
        return Result::invalid;
    }
    *end_of(plist) = chain;
    return Result::ok;
}

Node *split(Node **plist, int index) noexcept
{
    if (plist == nullptr || !is_node(*plist) || index == INT_MIN) {
        return nullptr;
    }
    if (index == 0 || index == -length(*plist)) {
        return std::exchange(*plist, nullptr);
    }
    Node *const before = node_at(*plist, index - 1);
    return before == nullptr ? nullptr : std::exchange(before->next, nullptr);
}

Result reverse(Node **plist) noexcept
{
    if (!is_list(plist)) {
        return Result::invalid;
    }
    Node *reversed = nullptr;
    for (Node *chain = *plist; chain != nullptr;) {
        Node *const next = std::exchange(chain->next, reversed);
        reversed = std::exchange(chain, next);
    }
    *plist = reversed;
    return Result::ok;
}

// --- copies, which share the objects ---

// A node that holds one more reference to the object; null, and no reference taken, when there is none to be had.
Node *share(Held held, void *object, int poolid) noexcept
{
    if (object != nullptr && add_reference(held, object) == nullptr) {
        return nullptr;
    }
    Node *const node = make_node(held, poolid, object);
    if (node == nullptr) {
        static_cast<void>(release(held, object));
    }
    return node;
}

// What cannot be copied is left out.
Node *copy(Held held, const Node *list, int poolid) noexcept
{
    Node *copied = nullptr;
    if (is_node(list)) {
        Tail tail(&copied);
        for (; list != nullptr; list = list->next) {
            if (Node *const node = share(held, list->obj, poolid); node != nullptr) {
                tail.append(node);
            }
        }
    }
    return copied;
}

// The list may be the one that is appended to: then its nodes of now are copied.
Result append_copy(Held held, Node **plist, const Node *list, int poolid) noexcept
{
    if (!is_list(plist) || (list != nullptr && !is_node(list))) {
        return Result::invalid;
    }
    Tail tail(plist);
    for (int left = length(list); left > 0 && list != nullptr; --left, list = list->next) {
        // Deliberate: a failed copy takes the whole destination with it, and keeps the reference it took last.
        Node *node = nullptr;
        if (add_reference(held, list->obj) != nullptr) {
            node = make_node(held, poolid, list->obj);
        }
        if (node == nullptr) {
            static_cast<void>(release(held, std::exchange(*plist, nullptr)));
            return Result::no_memory;
        }
        tail.append(node);
    }
    return Result::ok;
}

Result move_node(Node **from, Node **to, const void *object) noexcept
{
    Node **const link = link_to(from, object);
    if (link == nullptr) {
        return Result::invalid;
    }
    Node *const node = unhook(link);
    if (!is_list(to)) {
        return Result::invalid;  // Deliberate: the node is out of its list by now
    }
    *end_of(to) = node;
    return Result::ok;
}

}  // namespace

}  // namespace memm::lists

using namespace memm;
using namespace memm::lists;

extern "C" {

unsigned llist_sort(llist **plist, llist_compare_fn compare)
{
    if (plist == nullptr || compare == nullptr) {
        return to_c(Result::invalid);
    }
    const ManagerLock lock("llist_sort");
    return to_c(sort_list(plist, compare));
}

// Deliberate: the result is 0 whether the object is in the list now or not.
unsigned llist_insert_sorted(llist **plist, void *obj, int poolid, llist_compare_fn compare)
{
    const ManagerLock lock("llist_insert_sorted");
    insert_sorted(lock.held(), plist, obj, poolid, compare);
    return to_c(Result::ok);
}

unsigned llist_reverse(llist **plist)
{
    const ManagerLock lock("llist_reverse");
    return to_c(lists::reverse(plist));
}

unsigned llist_insert_at(llist **plist, void *obj, int index, int poolid)
{
    const ManagerLock lock("llist_insert_at");
    return to_c(insert(lock.held(), plist, obj, index, poolid));
}

unsigned llist_insert_list_at(llist **plist, llist *list, int index)
{
    const ManagerLock lock("llist_insert_list_at");
    return to_c(insert_chain(plist, list, index));
}

// Deliberate: the tag is not the name.
unsigned llist_addlist(llist **plist, llist *list)
{
    const ManagerLock lock("llist_add");
    return to_c(append_chain(plist, list));
}

llist *llist_split_at(llist **plist, int index)
{
    const ManagerLock lock("llist_split_at");
    return split(plist, index);
}

llist *llist_refalloc(llist *list, int poolid)
{
    const ManagerLock lock("llist_refalloc");
    return copy(lock.held(), list, poolid);
}

// Deliberate: the tag is that of its sibling.
unsigned llist_clone(llist **plist, llist *list, int poolid)
{
    const ManagerLock lock("llist_refalloc");
    return to_c(append_copy(lock.held(), plist, list, poolid));
}

unsigned llist_move_byobject(llist **source, llist **destination, void *obj)
{
    const ManagerLock lock("llist_move_byobject");
    return to_c(move_node(source, destination, obj));
}
}
