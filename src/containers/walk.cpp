#include "containers/strings.h"
#include "dynstring/text_pool.h"

// Visiting the objects of one kind.
namespace memm::lists {

namespace {

constexpr u32 kAnyType = 0xffffffffU;

bool is_of_type(const void *object, u32 type) noexcept
{
    return object != nullptr && (type == kAnyType || (type != 0 && header_of(object).pool() == PoolId{type}));
}

// The first node from here on whose object is of the kind.
template <typename Kind> Node *first_of(Node *node, Kind is_of_kind) noexcept
{
    while (node != nullptr && !is_of_kind(node->obj)) {
        node = node->next;
    }
    return node;
}

template <typename Kind> Node *second_of(Node *node, Kind is_of_kind) noexcept
{
    Node *const first = first_of(node, is_of_kind);
    return first == nullptr ? nullptr : first_of(first->next, is_of_kind);
}

void *object_of(const Node *node) noexcept { return node == nullptr ? nullptr : node->obj; }

Node *holder_of(Node *node, const void *object) noexcept
{
    return first_of(node, [object](const void *held_object) { return held_object == object; });
}

// The object after the cursor's. Where that has left the list, the walk resumes by position: the objects that are there
// now are counted from the front; at a negative position, which none has, the cursor stays.
template <typename Kind> void *next_after(Node *list, void *cursor, int returned, Kind is_of_kind) noexcept
{
    if (returned == 0) {
        return object_of(first_of(list, is_of_kind));
    }
    if (Node *const last = holder_of(list, cursor); last != nullptr) {
        return object_of(second_of(last, is_of_kind));
    }
    if (returned < 0) {
        return cursor;
    }
    Node *node = first_of(list, is_of_kind);
    for (int left = returned; left > 0 && node != nullptr; --left) {
        node = second_of(node, is_of_kind);
    }
    return object_of(node);
}

template <typename Kind> void *resume(Node *list, int *index, void **cursor, Kind is_of_kind) noexcept
{
    if (index == nullptr || cursor == nullptr || !is_node(list)) {
        return nullptr;
    }
    *cursor = next_after(list, *cursor, *index, is_of_kind);
    if (*cursor != nullptr) {
        ++*index;
    }
    return *cursor;
}

void *resume_by_type(Node *list, u32 type, int *index, void **cursor) noexcept
{
    return resume(list, index, cursor, [type](const void *object) { return is_of_type(object, type); });
}

void *find_by_type(Node *list, u32 type, bool second) noexcept
{
    if (!is_node(list)) {
        return nullptr;
    }
    const auto is_of_kind = [type](const void *object) { return is_of_type(object, type); };
    return object_of(second ? second_of(list, is_of_kind) : first_of(list, is_of_kind));
}

// The lock is held only to read one node: the callback may change the list, and the walk goes on with the successor
// that was read before it ran.
int visit_by_type(Node *node, u32 type, llist_visit_fn visit, void *argument) noexcept
{
    int count = 0;
    while (node != nullptr) {
        void *object = nullptr;
        bool matches = false;
        {
            const ManagerLock lock("llist_enumcb_bytype");
            object = is_node(node) ? node->obj : nullptr;
            if (object == nullptr) {
                break;
            }
            matches = header_of(object).pool() == PoolId{type};
            node = node->next;
        }
        if (matches) {
            if (visit(object, argument) == 0) {
                break;
            }
            ++count;
        }
    }
    return count;
}

}  // namespace

dynstr *resume_strings(Node *list, int *index, void **cursor) noexcept
{
    return static_cast<dynstr *>(resume(list, index, cursor, strings::is_string));
}

}  // namespace memm::lists

using namespace memm;
using namespace memm::lists;

extern "C" {

void *llist_get_bytype(llist *list, unsigned type, int skip_first)
{
    const ManagerLock lock("llist_get_bytype");
    return find_by_type(list, type, skip_first != 0);
}

int llist_enumcb_bytype(llist *list, unsigned type, llist_visit_fn callback, void *argument)
{
    return callback == nullptr ? 0 : visit_by_type(list, type, callback, argument);
}

void *llist_enum_bytype(llist *list, unsigned type, int *index, void **cursor)
{
    const ManagerLock lock("llist_enum_bytype");
    return resume_by_type(list, type, index, cursor);
}

void *llist_enum_bytype_nolock(llist *list, unsigned type, int *index, void **cursor)
{
    const BusyTask busy;
    return resume_by_type(list, type, index, cursor);
}

dynstr *llist_enum_dynstr(llist *list, int *index, void **cursor)
{
    const ManagerLock lock("llist_enum_dynstr");
    return resume_strings(list, index, cursor);
}
}
