#include "containers/strings.h"

namespace memm::lists {

const char *text_of_item(const void *item) noexcept { return strings::is_string(item) ? strings::text_of(item) : ""; }

Result append_text(Held held, Node **plist, const char *text, int poolid, int strpool) noexcept
{
    dynstr *const string = strings::create_from_text(held, PoolId{static_cast<u32>(strpool)}, text);
    if (string == nullptr) {
        return Result::no_memory;
    }
    const Result result = append(held, plist, string, poolid);
    if (result == Result::no_memory) {
        static_cast<void>(release(held, string));
    }
    return result;
}

namespace {

dynstr *string_in(const Node *node) noexcept
{
    return node != nullptr && strings::is_string(node->obj) ? static_cast<dynstr *>(node->obj) : nullptr;
}

// New strings with the texts of the items; an item that is no string becomes an empty one.
Node *clone(Held held, const Node *list, int poolid, int strpool) noexcept
{
    StringListBuilder copy(held, poolid);
    for (int left = is_node(list) ? length(list) : 0; left > 0; --left, list = list->next) {
        copy.add(strings::create_from_text(held, PoolId{static_cast<u32>(strpool)}, text_of_item(list->obj)));
    }
    return copy.list();
}

}  // namespace

}  // namespace memm::lists

using namespace memm;
using namespace memm::lists;

extern "C" {

strlist *strlist_refalloc(strlist *list, int poolid) { return llist_refalloc(list, poolid); }

int strlist_getlength(strlist *list) { return llist_getlength(list); }

unsigned strlist_adddynstr(strlist **plist, dynstr *string, int poolid)
{
    return llist_addobject(plist, string, poolid);
}

unsigned strlist_addref(strlist **plist, dynstr *string, int poolid) { return llist_addref(plist, string, poolid); }

unsigned strlist_delete_at(strlist **plist, int index) { return llist_delete_at(plist, index); }

unsigned strlist_remove_at(strlist **plist, int index) { return llist_remove_at(plist, index); }

unsigned strlist_remove_byobject(strlist **plist, dynstr *string) { return llist_remove_byobject(plist, string); }

dynstr *strlist_todynstr(strlist *list, const char *separator, int strpool)
{
    return dynstr_fromstrlist(static_cast<unsigned>(strpool), list, separator);
}

dynstr *strlist_partialtodynstr(strlist *list, const char *separator, int strpool, int first, int last)
{
    return dynstr_frompartialstrlist(static_cast<unsigned>(strpool), list, separator, first, last);
}

dynstr *strlist_enum_dynstr(strlist *list, int *index, void **cursor)
{
    const ManagerLock lock("strlist_enum_dynstr");
    return resume_strings(list, index, cursor);
}

unsigned strlist_addstring(strlist **plist, const char *text, int poolid, int strpool)
{
    const ManagerLock lock("strlist_addstring");
    return to_c(append_text(lock.held(), plist, text, poolid, strpool));
}

unsigned strlist_addstring_nolock(strlist **plist, const char *text, int poolid, int strpool)
{
    const BusyTask busy;
    return to_c(append_text(Held::by_caller(), plist, text, poolid, strpool));
}

unsigned strlist_addulong(strlist **plist, unsigned value, int poolid, int strpool)
{
    dynstr *const string = dynstr_fromulong(static_cast<unsigned>(strpool), value);
    if (string == nullptr) {
        return to_c(Result::no_memory);
    }
    const unsigned result = llist_addobject(plist, string, poolid);
    if (result == to_c(Result::no_memory)) {
        memm_free(string);
    }
    return result;
}

dynstr *strlist_getdynstr_at(strlist *list, int index)
{
    auto *const item = static_cast<dynstr *>(llist_getobject_at(list, index));
    return strings::is_string(item) ? item : nullptr;
}

const char *strlist_getstring_at(strlist *list, int index)
{
    const ManagerLock lock("strlist_getstring_at");
    const Node *const node = node_at(list, index);
    return node == nullptr ? "" : text_of_item(node->obj);
}

unsigned strlist_getulong_at(strlist *list, unsigned *value, int index)
{
    const dynstr *const item = strlist_getdynstr_at(list, index);
    return item == nullptr ? to_c(Result::invalid) : dynstr_getulong(item, value);
}

// Deliberate: the lock is held to find the item, not to change it.
unsigned strlist_setstring_at(strlist *list, const char *text, int index)
{
    dynstr *const item = string_in(llist_get_at(list, index));
    return item == nullptr ? to_c(Result::invalid) : dynstr_setstring_nolock(item, text);
}

// Deliberate: the tag is that of the array form.
strlist *strlist_clone(strlist *list, int poolid, int strpool)
{
    const ManagerLock lock("strlist_fromstringarr");
    return clone(lock.held(), list, poolid, strpool);
}
}
