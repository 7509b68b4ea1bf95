#include "dynstring/text_pool.h"
#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/dyndata.h>
#include <memmanager/strlist.h>

#include <functional>

namespace {

using Tags = std::vector<std::string>;

struct Call {
    std::string text;
    std::function<void()> make;
    Tags tags;
};

// Tags are what an application sees in its own P(): the call's own name, none (""), or those of what does its work.
#define CALL(call, ...) Call({#call, [&] { call; }, {__VA_ARGS__}})

TEST(calls, take_the_lock_under_their_tags)
{
    recorder().allow_reports();
    const unsigned objects = make_pool("", 2), id = static_cast<unsigned>(dynstr_initpool("", 90, 20000));
    dyndata_init(2);
    const auto area = static_cast<unsigned>(dyndata_initpool("", 9, 100));
    const int n = llist_initpool("", 90, sizeof(llist), nullptr), s = static_cast<int>(id);
    dynstr *const d = dynstr_fromstring(id, "7");
    dynstr *const seven = dynstr_fromliteral(id, "7");
    dyndata *const b = dyndata_fromdata(area, "7", 1);
    llist *list = nullptr, *no = nullptr;
    strlist_addstring(&list, "1", n, s);
    const auto compare = [](void *, void *) { return 0; };
    const auto visit = [](void *, void *) { return 1; };
    int index = 0;
    void *cursor = nullptr;
    unsigned number = 0;
    unsigned char bytes[40] = {};
    char text[] = "a=b";
    const char *array[] = {nullptr};
    const Call calls[] = {
        // strings
        CALL(dynstr_setstring(d, "1")), CALL(dynstr_setdynstr(d, d)), CALL(dynstr_addstring(d, ""), ""),
        CALL(dynstr_addstring(d, "1"), "dynstr_addstring_size"), CALL(dynstr_addstring_size(d, "1", 1)),
        CALL(dynstr_setsubstring(d, "1", 0, 1)), CALL(dynstr_setsubdynstr(d, d, 0, 1), "dynstr_setsubstring"),
        CALL(dynstr_reset(d)), CALL(dynstr_setmaxsize(d, 9)), CALL(dynstr_getstring(d)), CALL(dynstr_strcmp(d, d)),
        CALL(dynstr_strcmp2(d, "")), CALL(dynstr_strncpy(text, d, 1)), CALL(dynstr_sprintf(d, "%d", 7)),
        CALL(dynstr_sethexstring(d, bytes, 0)), CALL(dynstr_fromdynstr(d)), CALL(dynstr_fromsubdynstr(d, 0, 1)),
        CALL(dynstr_fromstring(id, "1")), CALL(dynstr_fromliteral(id, "1")), CALL(dynstr_fromliteral(id, nullptr), ""),
        CALL(dynstr_fromsubstring(id, "1", 0, 1)), CALL(dynstr_fromprintf(id, "1")),
        CALL(dynstr_hexstringfromdata(id, bytes, 1)), CALL(dynstr_getulong(seven, &number)),
        CALL(dynstr_getbool(seven, &number)), CALL(dynstr_getipaddr(seven, &number)),
        CALL(dynstr_getmacaddr(nullptr, bytes), ""),
        CALL(dynstr_getutcdatetime(seven, &number), "dynstr_strcmp2", "dynstr_getutcdatetime"),
        CALL(dynstr_gethexstring(seven, bytes, 40)),
        // lists
        CALL(llist_addobject(&no, nullptr, n)), CALL(llist_addref(&no, nullptr, n)),
        CALL(llist_pushobject(&no, nullptr, n), "llist_insert_at"), CALL(llist_popobject(&no), "llist_cut_at"),
        CALL(llist_getlength(list)), CALL(llist_get_first(list)), CALL(llist_get_next(list)),
        CALL(llist_get_at(list, 0)), CALL(llist_getobject_at(list, 0)), CALL(llist_getobject_this(list)),
        CALL(llist_setobject_at(no, nullptr, 0)), CALL(llist_searchobject(list, nullptr, compare)),
        CALL(llist_search_byobject(list, nullptr)), CALL(llist_getindex_byobject(list, nullptr)),
        CALL(llist_delete_at(&no, 9)), CALL(llist_delete_byobject(&no, d)), CALL(llist_remove_at(&no, 9)),
        CALL(llist_remove_byobject(&no, d)), CALL(llist_unlink_at(&no, 9)), CALL(llist_unlink_byobject(&no, d)),
        CALL(llist_free_plist(&no)), CALL(llist_sort(&list, compare)), CALL(llist_sort(&list, nullptr), ""),
        CALL(llist_reverse(&no)), CALL(llist_insert_sorted(&no, nullptr, n, compare)),
        CALL(llist_insert_at(&no, nullptr, 0, n)), CALL(llist_insert_list_at(&no, nullptr, 0)),
        CALL(llist_addlist(&no, nullptr), "llist_add"), CALL(llist_split_at(&no, 9)), CALL(llist_refalloc(nullptr, n)),
        CALL(llist_move_byobject(&no, &list, d)), CALL(llist_clone(&no, nullptr, n), "llist_refalloc"),
        CALL(llist_get_bytype(list, id, 0)), CALL(llist_enumcb_bytype(list, id, visit, nullptr)),
        CALL(llist_enum_bytype(list, id, &index, &cursor)), CALL(llist_enum_dynstr(list, &index, &cursor)),
        CALL(strlist_enum_dynstr(list, &index, &cursor)),
        // lists of strings
        CALL(dynstr_fromstrlist(objects, list, ""), ""), CALL(strlist_addstring(&list, "2", n, s)),
        CALL(strlist_getdynstr_at(list, 0), "llist_getobject_at"), CALL(strlist_getstring_at(list, 0)),
        CALL(strlist_fromstring("", ",", n, s)), CALL(strlist_fromstring_escaped(text, ',', '\\', n, s)),
        CALL(strlist_fromdynstr(d, ",", n)), CALL(strlist_fromstringarr(array, n, s)),
        CALL(dyndata_adddata(b, nullptr, 3), ""), CALL(dyndata_initpool("", 1, 1)), CALL(dyndata_getdata(nullptr)),
        CALL(dyndata_setdata(b, "x", 1)), CALL(dyndata_adddata(b, "x", 1)), CALL(dyndata_fromdata(area, "x", 1))};
    for (const Call &call : calls) {
        recorder().take_tags();
        call.make();
        const Tags own{call.text.substr(0, call.text.find('('))}, none;
        EXPECT_EQ(recorder().take_tags(), call.tags.empty()       ? own
                                          : call.tags == Tags{""} ? none
                                                                  : call.tags)
            << call.text;
    }
}

}  // namespace
