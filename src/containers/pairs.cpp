#include "containers/strings.h"

#include <memmanager/strpair.h>

#include <cstring>

// A pair is a string list of two items, a pair list a list of pairs.
namespace memm::lists {

namespace {

enum Part : int { kFirst, kSecond };

Node *make_pair(Held held, const char *first, const char *second, int poolid, int strpool) noexcept
{
    Node *pair = nullptr;
    static_cast<void>(append_text(held, &pair, first, poolid, strpool));
    static_cast<void>(append_text(held, &pair, second, poolid, strpool));
    return pair;
}

// Deliberate: the delimiter that ended the first part becomes the first of them, whichever stood there.
Node *split_pair(Held held, char *text, const char *delimiters, int poolid, int strpool) noexcept
{
    char *const first = text + std::strspn(text, delimiters);
    char *const end = first + std::strcspn(first, delimiters);
    if (first == end) {
        return nullptr;
    }
    if (*end == '\0') {
        return make_pair(held, first, "", poolid, strpool);
    }
    *end = '\0';
    Node *const pair = make_pair(held, first, end + 1, poolid, strpool);
    *end = *delimiters;
    return pair;
}

void *object_at(Node *list, int index) noexcept
{
    const Node *const node = node_at(list, index);
    return node == nullptr ? nullptr : node->obj;
}

dynstr *part_at(Node *list, int index, Part part) noexcept
{
    return static_cast<dynstr *>(object_at(static_cast<Node *>(object_at(list, index)), part));
}

Result set_part_at(Held held, Node *list, int index, Part part, const char *text) noexcept
{
    dynstr *const string = part_at(list, index, part);
    return strings::is_string(string) ? strings::assign(held, string, strings::text_given(text), 0, -1)
                                      : Result::invalid;
}

Result append_pair(Held held, Node **plist, const char *first, const char *second, int poolid, int strpool) noexcept
{
    Node **const list = is_list(plist) ? plist : nullptr;  // asked first: a released node may be a slot that is taken
    Node *const pair = make_pair(held, first, second, poolid, strpool);
    if (pair == nullptr) {
        return Result::no_memory;
    }
    const Result result = append(held, list, pair, poolid);
    if (result == Result::no_memory) {
        static_cast<void>(release(held, pair));
    }
    return result;
}

// Deliberate: the copy holds the same pairs without references of its own.
Node *copy_shallow(Held held, const Node *list, int poolid) noexcept
{
    Node *copied = nullptr;
    Tail tail(&copied);
    for (int left = is_node(list) ? length(list) : 0; left > 0; --left, list = list->next) {
        Node *const node = make_node(held, poolid, list->obj);
        if (node == nullptr) {
            static_cast<void>(release(held, copied));
            return nullptr;
        }
        tail.append(node);
    }
    return copied;
}

// Deliberate: only the reading of a text holds the lock, not the walk.
dynstr *second_by_first(Node *list, const char *text) noexcept
{
    if (text == nullptr || !is_node(list)) {
        return nullptr;
    }
    const BusyTask busy;
    for (; list != nullptr; list = list->next) {
        auto *const pair = static_cast<Node *>(list->obj);
        if (pair != nullptr && std::strcmp(strpair_getfirststring(pair), text) == 0) {
            return strpair_getsecond(pair);
        }
    }
    return nullptr;
}

}  // namespace

}  // namespace memm::lists

using namespace memm;
using namespace memm::lists;

extern "C" {

strpair *strpair_fromstrings(const char *first, const char *second, int poolid, int strpool)
{
    const ManagerLock lock("strpair_fromstring");
    return make_pair(lock.held(), first, second, poolid, strpool);
}

strpair *strpair_fromstring(char *text, const char *delimiters, int poolid, int strpool)
{
    if (text == nullptr || delimiters == nullptr) {
        return nullptr;
    }
    const ManagerLock lock("strpair_fromstring");
    return split_pair(lock.held(), text, delimiters, poolid, strpool);
}

strpair *strpair_clone(strpair *pair, int poolid, int strpool) { return strlist_clone(pair, poolid, strpool); }

dynstr *strpair_getfirst(strpair *pair) { return static_cast<dynstr *>(llist_getobject_at(pair, kFirst)); }

dynstr *strpair_getsecond(strpair *pair) { return static_cast<dynstr *>(llist_getobject_at(pair, kSecond)); }

const char *strpair_getfirststring(strpair *pair) { return strlist_getstring_at(pair, kFirst); }

const char *strpair_getsecondstring(strpair *pair) { return strlist_getstring_at(pair, kSecond); }

unsigned strpair_setfirststring(strpair *pair, const char *text) { return strlist_setstring_at(pair, text, kFirst); }

unsigned strpair_setsecondstring(strpair *pair, const char *text) { return strlist_setstring_at(pair, text, kSecond); }

int strpairlist_getlength(strpairlist *list) { return llist_getlength(list); }

unsigned strpairlist_addstringpair(strpairlist **plist, strpair *pair, int poolid)
{
    return llist_addobject(plist, pair, poolid);
}

unsigned strpairlist_addstringpairlist(strpairlist **plist, strpairlist *list) { return llist_addlist(plist, list); }

unsigned strpairlist_addstrings(strpairlist **plist, const char *first, const char *second, int poolid, int strpool)
{
    if (plist == nullptr) {
        return to_c(Result::invalid);
    }
    const ManagerLock lock("strpairlist_add");
    return to_c(append_pair(lock.held(), plist, first, second, poolid, strpool));
}

unsigned strpairlist_delete_at(strpairlist **plist, int index) { return llist_delete_at(plist, index); }

unsigned strpairlist_setpair_at(strpairlist *list, strpair *pair, int index)
{
    return llist_setobject_at(list, pair, index);
}

strpair *strpairlist_getpair_at(strpairlist *list, int index)
{
    return static_cast<strpair *>(llist_getobject_at(list, index));
}

dynstr *strpairlist_getfirst_at(strpairlist *list, int index)
{
    const ManagerLock lock("strpairlist_getfirst_at");
    return part_at(list, index, kFirst);
}

dynstr *strpairlist_getsecond_at(strpairlist *list, int index)
{
    const ManagerLock lock("strpairlist_getsecond_at");
    return part_at(list, index, kSecond);
}

const char *strpairlist_getfirststring_at(strpairlist *list, int index)
{
    const ManagerLock lock("strpairlist_getfirststring_at");
    return text_of_item(part_at(list, index, kFirst));
}

const char *strpairlist_getsecondstring_at(strpairlist *list, int index)
{
    const ManagerLock lock("strpairlist_getsecondstring_at");
    return text_of_item(part_at(list, index, kSecond));
}

// Deliberate: the tags of these two are shorter than their names.
unsigned strpairlist_setfirststring_at(strpairlist *list, const char *text, int index)
{
    const ManagerLock lock("strpairlist_setfirst_at");
    return to_c(set_part_at(lock.held(), list, index, kFirst, text));
}

unsigned strpairlist_setsecondstring_at(strpairlist *list, const char *text, int index)
{
    const ManagerLock lock("strpairlist_setsecond_at");
    return to_c(set_part_at(lock.held(), list, index, kSecond, text));
}

strpairlist *strpairlist_clone(strpairlist *list, int poolid)
{
    const ManagerLock lock("strpairlist_clone");
    return copy_shallow(lock.held(), list, poolid);
}

dynstr *strpairlist_getsecond_byfirststring(strpairlist *list, const char *text) { return second_by_first(list, text); }

const char *strpairlist_getsecondstring_byfirststring(strpairlist *list, const char *text)
{
    return dynstr_getstring(strpairlist_getsecond_byfirststring(list, text));
}
}
