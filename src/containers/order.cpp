#include "containers/sort.h"

#include <climits>
#include <utility>

namespace memm::lists {

namespace {

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
