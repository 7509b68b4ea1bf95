#include "containers/list.h"

#include <memmanager/platform.h>
#include <utility>

namespace memm::lists {

namespace {

// Any pool of large enough objects will do, but descriptors and the records of other modules are no nodes.
bool can_hold_nodes(const PoolAid &aid) noexcept
{
    return aid.is_ordinary && aid.pool->slot_size >= slot_bytes(sizeof(Node)) && load(aid.control) == nullptr;
}

}  // namespace

bool is_node(const Node *node) noexcept
{
    const PoolAid *const aid = owner_of(node);
    return aid != nullptr && can_hold_nodes(*aid);
}

int length(const Node *list) noexcept
{
    int count = 0;
    for (; list != nullptr && list->obj != nullptr; list = list->next) {
        ++count;
    }
    return count;
}

int from_front(const Node *list, int index) noexcept { return index < 0 ? index + length(list) : index; }

Node *node_at(Node *list, int index) noexcept
{
    if (!is_node(list)) {
        return nullptr;
    }
    int left = from_front(list, index);
    if (left < 0) {
        return nullptr;
    }
    for (; list != nullptr && left > 0; list = list->next) {
        --left;
    }
    return list;
}

Position walk_to(Node **plist, int index) noexcept
{
    if (!is_list(plist)) {
        return {nullptr, 0};
    }
    Position position{plist, from_front(*plist, index)};
    for (; *position.link != nullptr && position.left > 0; --position.left) {
        position.link = &(*position.link)->next;
    }
    return position;
}

Node **end_of(Node **link) noexcept
{
    while (*link != nullptr) {
        link = &(*link)->next;
    }
    return link;
}

Node *unhook(Node **link) noexcept
{
    Node *const node = *link;
    *link = std::exchange(node->next, nullptr);
    return node;
}

Node **link_to(Node **plist, const void *object) noexcept
{
    if (!is_list(plist)) {
        return nullptr;
    }
    Node **link = plist;
    while (*link != nullptr && (*link)->obj != object) {
        link = &(*link)->next;
    }
    return *link != nullptr ? link : nullptr;
}

Node *make_node(Held held, int poolid, void *object) noexcept
{
    const PoolId id{static_cast<u32>(poolid)};
    const PoolAid *const aid = registry.find_aid(id);
    if (aid == nullptr || (has_slots(*aid->pool) && !can_hold_nodes(*aid))) {
        return nullptr;
    }
    auto *const node = static_cast<Node *>(allocate(held, id));
    if (node != nullptr && node != object) {  // a released node may be the slot just taken: none holds itself
        node->obj = object;
    }
    return node;
}

Result append(Held held, Node **plist, void *object, int poolid) noexcept
{
    const bool has_list = is_list(plist);  // asked first: a released node may be the slot that is taken
    Node *const node = make_node(held, poolid, object);
    if (node == nullptr) {
        return Result::no_memory;
    }
    if (!has_list) {
        static_cast<void>(release(held, node));
        return Result::invalid;
    }
    *end_of(plist) = node;
    return Result::ok;
}

namespace {

// --- the node pool's callbacks ---

// The rest of a chain goes node by node, not by recursion. A node that is refused stays, and so does what follows it.
int release_node(void *object)
{
    const Held held = Held::by_caller();
    Node &first = *static_cast<Node *>(object);
    while (first.next != nullptr) {
        Node *const node = unhook(&first.next);
        if (const Result result = release(held, node); result != Result::ok) {
            return to_int(result);
        }
    }
    return to_int(release(held, first.obj));
}

void print_node(void *object)
{
    const Node &node = *static_cast<const Node *>(object);
    dbg_printf(", next=");
    memm_printobject(node.next, 0);
    dbg_printf(", obj=");
    memm_printobject(node.obj, 0);
}

// --- finding ---

Node **link_at(Node **plist, int index) noexcept
{
    const Position position = walk_to(plist, index);
    return position.link != nullptr && position.left == 0 && *position.link != nullptr ? position.link : nullptr;
}

struct Found {
    Node *node;
    int index;
};

Found find_object(Node *list, const void *object) noexcept
{
    int index = 0;
    if (is_node(list)) {
        for (; list != nullptr; list = list->next, ++index) {
            if (list->obj == object) {
                return {list, index};
            }
        }
    }
    return {nullptr, -1};
}

void *search(Node *list, void *key, llist_match_fn matches) noexcept
{
    if (matches == nullptr || !is_node(list)) {
        return nullptr;
    }
    for (; list != nullptr; list = list->next) {
        if (matches(list->obj, key) != 0) {
            return list->obj;
        }
    }
    return nullptr;
}

int is_same_object(void *held_object, void *key) { return held_object == key ? 1 : 0; }

// --- taking out; the link is null when there is no such node ---

Result delete_node(Held held, Node **link) noexcept
{
    return link == nullptr ? Result::invalid : release(held, unhook(link));
}

Result remove_node(Held held, Node **link) noexcept
{
    if (link == nullptr) {
        return Result::invalid;
    }
    Node *const node = unhook(link);
    node->obj = nullptr;
    return release(held, node);
}

Result unlink_node(Node **link) noexcept
{
    if (link == nullptr) {
        return Result::invalid;
    }
    unhook(link);
    return Result::ok;
}

void *take_object(Held held, Node **link) noexcept
{
    if (link == nullptr) {
        return nullptr;
    }
    void *const object = (*link)->obj;
    static_cast<void>(remove_node(held, link));
    return object;
}

Node *take_node(Node **link) noexcept { return link == nullptr ? nullptr : unhook(link); }

// --- the others ---

// A null object is nothing to hold a reference to, and is added as it is.
Result append_reference(Held held, Node **plist, void *object, int poolid) noexcept
{
    if (object != nullptr && add_reference(held, object) == nullptr) {
        return Result::no_memory;
    }
    const Result result = append(held, plist, object, poolid);
    if (result == Result::no_memory) {
        static_cast<void>(release(held, object));
    }
    return result;
}

Result replace_object(Held held, Node *list, void *object, int index) noexcept
{
    Node *const node = node_at(list, index);
    if (node == nullptr) {
        return Result::invalid;
    }
    static_cast<void>(release(held, node->obj));
    node->obj = object;
    return Result::ok;
}

Result release_list(Held held, Node **plist) noexcept
{
    return plist == nullptr ? Result::invalid : release(held, std::exchange(*plist, nullptr));
}

}  // namespace

}  // namespace memm::lists

using namespace memm;
using namespace memm::lists;

extern "C" {

int llist_initpool(const char *name, int count, int objsize, const memm_pooloptions *options)
{
    memm_pooloptions own = options == nullptr ? memm_pooloptions{} : *options;
    if (own.print_cb == nullptr) {
        own.print_cb = print_node;
    }
    own.release_cb = release_node;
    constexpr int kNodeBytes = sizeof(Node);
    return memm_initpool(name, count, objsize >= 1 && objsize < kNodeBytes ? kNodeBytes : objsize, &own);
}

unsigned llist_addobject(llist **plist, void *obj, int poolid)
{
    const ManagerLock lock("llist_addobject");
    return to_c(append(lock.held(), plist, obj, poolid));
}

unsigned llist_addobject_nolock(llist **plist, void *obj, int poolid)
{
    const BusyTask busy;
    return to_c(append(Held::by_caller(), plist, obj, poolid));
}

unsigned llist_addref(llist **plist, void *obj, int poolid)
{
    const ManagerLock lock("llist_addref");
    return to_c(append_reference(lock.held(), plist, obj, poolid));
}

unsigned llist_pushobject(llist **plist, void *obj, int poolid) { return llist_insert_at(plist, obj, 0, poolid); }

void *llist_popobject(llist **plist) { return llist_getandremove_at(plist, 0); }

int llist_getlength(llist *list)
{
    const ManagerLock lock("llist_getlength");
    return is_node(list) ? length(list) : 0;
}

unsigned llist_free_plist(llist **plist)
{
    const ManagerLock lock("llist_free_plist");
    return to_c(release_list(lock.held(), plist));
}

llist *llist_get_first(llist *list)
{
    const ManagerLock lock("llist_get_first");
    return is_node(list) ? list : nullptr;
}

llist *llist_get_next(llist *node)
{
    const ManagerLock lock("llist_get_next");
    return is_node(node) ? node->next : nullptr;
}

llist *llist_get_at(llist *list, int index)
{
    const ManagerLock lock("llist_get_at");
    return node_at(list, index);
}

llist *llist_get_at_nolock(llist *list, int index)
{
    const BusyTask busy;
    return node_at(list, index);
}

void *llist_getobject_at(llist *list, int index)
{
    const ManagerLock lock("llist_getobject_at");
    const Node *const node = node_at(list, index);
    return node == nullptr ? nullptr : node->obj;
}

void *llist_getobject_this(llist *node)
{
    const ManagerLock lock("llist_getobject_this");
    return is_node(node) ? node->obj : nullptr;
}

unsigned llist_setobject_at(llist *list, void *obj, int index)
{
    const ManagerLock lock("llist_setobject_at");
    return to_c(replace_object(lock.held(), list, obj, index));
}

void *llist_searchobject(llist *list, void *key, llist_match_fn compare)
{
    const ManagerLock lock("llist_searchobject");
    return search(list, key, compare);
}

llist *llist_search_byobject(llist *list, void *obj)
{
    const ManagerLock lock("llist_search_byobject");
    return find_object(list, obj).node;
}

int llist_getindex_byobject(llist *list, void *obj)
{
    const ManagerLock lock("llist_getindex_byobject");
    return find_object(list, obj).index;
}

int llist_inlist(llist *list, void *obj) { return llist_searchobject(list, obj, is_same_object) != nullptr ? 1 : 0; }

unsigned llist_delete_at(llist **plist, int index)
{
    const ManagerLock lock("llist_delete_at");
    return to_c(delete_node(lock.held(), link_at(plist, index)));
}

unsigned llist_delete_byobject(llist **plist, void *obj)
{
    const ManagerLock lock("llist_delete_byobject");
    return to_c(delete_node(lock.held(), link_to(plist, obj)));
}

unsigned llist_remove_at(llist **plist, int index)
{
    const ManagerLock lock("llist_remove_at");
    return to_c(remove_node(lock.held(), link_at(plist, index)));
}

unsigned llist_remove_byobject(llist **plist, void *obj)
{
    const ManagerLock lock("llist_remove_byobject");
    return to_c(remove_node(lock.held(), link_to(plist, obj)));
}

unsigned llist_unlink_at(llist **plist, int index)
{
    const ManagerLock lock("llist_unlink_at");
    return to_c(unlink_node(link_at(plist, index)));
}

unsigned llist_unlink_byobject(llist **plist, void *obj)
{
    const ManagerLock lock("llist_unlink_byobject");
    return to_c(unlink_node(link_to(plist, obj)));
}

// Deliberate: the tags of the three that hand out what they take differ from their names.
void *llist_getandremove_at(llist **plist, int index)
{
    const ManagerLock lock("llist_cut_at");
    return take_object(lock.held(), link_at(plist, index));
}

llist *llist_getandunlink_at(llist **plist, int index)
{
    const ManagerLock lock("llist_cut_at");
    return take_node(link_at(plist, index));
}

llist *llist_getandunlink_byobject(llist **plist, void *obj)
{
    const ManagerLock lock("llist_cut_byobject");
    return take_node(link_to(plist, obj));
}
}
