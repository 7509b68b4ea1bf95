#pragma once

#include "base/result.h"
#include "memmanager/pool.h"

#include <memmanager/llist.h>

// A list is its first node; null is the empty list. A node is an object of a node pool and owns one reference to what
// it holds:
//
//     plist -> | obj | next -> | obj | next -> | obj | null
//
// What may change a list works on links: the address of the pointer that leads to a node, be it the caller's variable
// or the `next` of the node before. A link to null is the end.
//
// Deliberate: a node that holds nothing ends the list for counting, and with it for indices from the end; walks pass
// it.
namespace memm::lists {

using Node = llist;

// An object in use that is large enough for a node and belongs to no other module. Only the first node of a list is
// ever looked at; the others are what was linked to it.
bool is_node(const Node *node) noexcept;

// What may change a list goes on from here: an empty list, or one that begins with a node.
inline bool is_list(Node *const *plist) noexcept { return plist != nullptr && (*plist == nullptr || is_node(*plist)); }

int length(const Node *list) noexcept;

// An index from the end becomes one from the front; below 0 where there is no such node.
int from_front(const Node *list, int index) noexcept;

Node *node_at(Node *list, int index) noexcept;  // null when there is none, or the list's first node is no node

// Where an index leads: the link after that many steps, or the end and the steps that were left. An index that stays
// below 0 leads to the front with those left. The link is null when the list's first node is no node.
struct Position {
    Node **link;
    int left;
};
Position walk_to(Node **plist, int index) noexcept;

Node **end_of(Node **link) noexcept;

// The link to the first node that holds the object; null when there is none.
Node **link_to(Node **plist, const void *object) noexcept;

// Takes the node out of its chain: it is then a list of its own.
Node *unhook(Node **link) noexcept;

// A node of the pool that holds the object; null when there is none left, or the pool's objects are no nodes.
Node *make_node(Held, int poolid, void *object) noexcept;

// At the end of the list, which takes over the caller's reference.
// Deliberate: without a list, the node that was made is released, and the object with it. So only what finds no node is
// still the caller's.
Result append(Held, Node **plist, void *object, int poolid) noexcept;

// The list grows at its end without being walked each time.
class Tail {
    Node **end_;

public:
    explicit Tail(Node **plist) noexcept : end_(end_of(plist)) {}
    void append(Node *node) noexcept
    {
        *end_ = node;
        end_ = &node->next;
    }
};

}  // namespace memm::lists
