#include "dynstring/text_pool.h"
#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/dyndata.h>
#include <memmanager/strpair.h>

#include <functional>

namespace {

using Tags = std::vector<std::string>;

struct Call {
    const char *name;
    Tags tags;
    std::function<void()> make;
};

// Tags are what an application sees in its own P(): some calls have those of the call that does their work.
#define OWN(function, ...)                                                                                             \
    Call                                                                                                               \
    {                                                                                                                  \
#function, {#function }, [&] { function(__VA_ARGS__); }                                                        \
    }
#define NONE(function, ...)                                                                                            \
    Call                                                                                                               \
    {                                                                                                                  \
#function, {}, [&] { function(__VA_ARGS__); }                                                                  \
    }
#define AS(tag, function, ...)                                                                                         \
    Call                                                                                                               \
    {                                                                                                                  \
#function, {tag }, [&] { function(__VA_ARGS__); }                                                              \
    }
#define AS2(first, second, function, ...)                                                                              \
    Call                                                                                                               \
    {                                                                                                                  \
#function, {first, second }, [&] { function(__VA_ARGS__); }                                                    \
    }

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
    llist *list = nullptr, *pairs = nullptr, *no = nullptr;
    strlist_addstring(&list, "1", n, s);
    strpairlist_addstrings(&pairs, "k", "v", n, s);
    strpair *const pair = strpairlist_getpair_at(pairs, 0);
    const auto compare = [](void *, void *) { return 0; };
    const auto visit = [](void *, void *) { return 1; };
    int index = 0;
    void *cursor = nullptr;
    unsigned number = 0;
    unsigned char bytes[40] = {};
    char text[] = "a=b";
    const char *array[] = {nullptr};
    dynstr *slot = nullptr;
    const Call calls[] = {
        // strings
        OWN(dynstr_setstring, d, "1"), NONE(dynstr_setstring_nolock, d, "1"), OWN(dynstr_setdynstr, d, d),
        AS("dynstr_setstring", dynstr_setbool, d, 1), NONE(dynstr_addstring, d, ""),
        AS("dynstr_addstring_size", dynstr_addstring, d, "1"), OWN(dynstr_addstring_size, d, "1", 1),
        OWN(dynstr_setsubstring, d, "1", 0, 1), AS("dynstr_setsubstring", dynstr_setsubdynstr, d, d, 0, 1),
        OWN(dynstr_reset, d), OWN(dynstr_setmaxsize, d, 9), NONE(dynstr_getmaxsize, d), NONE(dynstr_isdynstring, d),
        NONE(dynstr_strlen, d), OWN(dynstr_getstring, d), OWN(dynstr_strcmp, d, d), OWN(dynstr_strcmp2, d, ""),
        OWN(dynstr_strncpy, text, d, 1), OWN(dynstr_sprintf, d, "%d", 7), AS("dynstr_sprintf", dynstr_setulong, d, 7),
        AS("dynstr_sprintf", dynstr_setmacaddr, d, bytes), OWN(dynstr_sethexstring, d, bytes, 0),
        OWN(dynstr_fromdynstr, d), NONE(dynstr_fromdynstr_nolock, d), OWN(dynstr_fromsubdynstr, d, 0, 1),
        OWN(dynstr_fromstring, id, "1"), NONE(dynstr_fromstring_nolock, id, "1"), OWN(dynstr_fromliteral, id, "1"),
        NONE(dynstr_fromliteral, id, nullptr), OWN(dynstr_fromsubstring, id, "1", 0, 1),
        OWN(dynstr_fromprintf, id, "1"), AS("dynstr_fromprintf", dynstr_fromulong, id, 7),
        AS("dynstr_fromprintf", dynstr_frommacaddr, id, bytes), OWN(dynstr_hexstringfromdata, id, bytes, 1),
        AS("memm_calloc", dynstr_calloc_maxlen, id, 7), AS("memm_refalloc", dynstr_refalloc, d),
        AS("dynstr_initpool", dynstr_initpool2, "", 1, 1, 1), OWN(dynstr_getulong, seven, &number),
        AS("dynstr_getulong", dynstr_getlong, seven, &index), OWN(dynstr_getbool, seven, &number),
        OWN(dynstr_getipaddr, seven, &number), NONE(dynstr_getmacaddr, nullptr, bytes),
        AS2("dynstr_strcmp2", "dynstr_getutcdatetime", dynstr_getutcdatetime, seven, &number),
        OWN(dynstr_gethexstring, seven, bytes, 40),
        // as for tools that track allocations
        AS("memm_calloc", _dynstr_ex_calloc, id, &slot, "", 1),
        AS("memm_calloc", _dynstr_ex_calloc_maxsize, id, &slot, 9, "", 1),
        AS("memm_calloc", _dynstr_ex_calloc_maxlen, id, &slot, 9, "", 1),
        AS("memm_refalloc", _dynstr_ex_refalloc, d, &slot, "", 1),
        AS("dynstr_fromstring", _dynstr_ex_fromstring, id, &slot, "1", "", 1),
        AS("dynstr_fromliteral", _dynstr_ex_fromliteral, id, &slot, "1", "", 1),
        AS("dynstr_fromprintf", _dynstr_ex_fromulong, id, &slot, 7, "", 1),
        AS("dynstr_fromprintf", _dynstr_ex_fromlong, id, &slot, 7, "", 1),
        AS("dynstr_fromprintf", _dynstr_ex_fromipaddr, id, &slot, 7, "", 1),
        AS("dynstr_fromprintf", _dynstr_ex_frommacaddr, id, &slot, bytes, "", 1),
        AS("dynstr_fromvprintf", _dynstr_ex_fromprintf, id, &slot, "%d", "", 1, 7),
        AS("dynstr_fromsubstring", _dynstr_ex_fromsubstring, id, &slot, "1", 0, 1, "", 1),
        AS("dynstr_hexstringfromdata", _dynstr_ex_hexstringfromdata, id, &slot, bytes, 1, "", 1),
        AS("dynstr_fromstrlist", _dynstr_ex_fromstrlist, id, &slot, list, "", "", 1),
        AS("dynstr_fromstrlist_escaped", _dynstr_ex_fromstrlist_escaped, id, &slot, list, "", '\\', "", 1),
        AS("dynstr_frompartialstrlist", _dynstr_ex_frompartialstrlist, id, &slot, list, "", 0, 1, "", 1),
        // lists
        OWN(llist_addobject, &no, nullptr, n), NONE(llist_addobject_nolock, &no, nullptr, n),
        OWN(llist_addref, &no, nullptr, n), AS("llist_insert_at", llist_pushobject, &no, nullptr, n),
        AS("llist_cut_at", llist_popobject, &no), OWN(llist_getlength, list), OWN(llist_get_first, list),
        OWN(llist_get_next, list), OWN(llist_get_at, list, 0), NONE(llist_get_at_nolock, list, 0),
        OWN(llist_getobject_at, list, 0), OWN(llist_getobject_this, list), OWN(llist_setobject_at, no, nullptr, 0),
        OWN(llist_searchobject, list, nullptr, compare), OWN(llist_search_byobject, list, nullptr),
        OWN(llist_getindex_byobject, list, nullptr), AS("llist_searchobject", llist_inlist, list, nullptr),
        OWN(llist_delete_at, &no, 9), OWN(llist_delete_byobject, &no, d), OWN(llist_remove_at, &no, 9),
        OWN(llist_remove_byobject, &no, d), OWN(llist_unlink_at, &no, 9), OWN(llist_unlink_byobject, &no, d),
        AS("llist_cut_at", llist_getandremove_at, &no, 9), AS("llist_cut_at", llist_getandunlink_at, &no, 9),
        AS("llist_cut_byobject", llist_getandunlink_byobject, &no, d), OWN(llist_free_plist, &no),
        OWN(llist_sort, &list, compare), NONE(llist_sort, &list, nullptr), OWN(llist_reverse, &no),
        OWN(llist_insert_sorted, &no, nullptr, n, compare), OWN(llist_insert_at, &no, nullptr, 0, n),
        OWN(llist_insert_list_at, &no, nullptr, 0), AS("llist_add", llist_addlist, &no, nullptr),
        OWN(llist_split_at, &no, 9), OWN(llist_refalloc, nullptr, n), OWN(llist_move_byobject, &no, &list, d),
        AS("llist_refalloc", llist_clone, &no, nullptr, n), OWN(llist_get_bytype, list, id, 0),
        AS2("llist_enumcb_bytype", "llist_enumcb_bytype", llist_enumcb_bytype, pair, id, visit, nullptr),
        OWN(llist_enum_bytype, list, id, &index, &cursor), NONE(llist_enum_bytype_nolock, list, id, &index, &cursor),
        OWN(llist_enum_dynstr, list, &index, &cursor), OWN(strlist_enum_dynstr, list, &index, &cursor),
        // lists of strings and pairs
        AS("dynstr_fromstrlist", strlist_todynstr, list, "", s),
        AS("dynstr_frompartialstrlist", strlist_partialtodynstr, list, "", s, 0, 1),
        NONE(dynstr_fromstrlist, objects, list, ""), OWN(strlist_addstring, &list, "2", n, s),
        NONE(strlist_addstring_nolock, &list, "2", n, s),
        AS2("dynstr_fromprintf", "llist_addobject", strlist_addulong, &list, 2, n, s),
        AS("llist_getobject_at", strlist_getdynstr_at, list, 0), OWN(strlist_getstring_at, list, 0),
        AS2("llist_getobject_at", "dynstr_getulong", strlist_getulong_at, list, &number, 0),
        AS("llist_get_at", strlist_setstring_at, list, "3", 0), OWN(strlist_fromstring, "", ",", n, s),
        OWN(strlist_fromstring_escaped, text, ',', '\\', n, s), OWN(strlist_fromdynstr, d, ",", n),
        OWN(strlist_fromstringarr, array, n, s), AS("strlist_fromstringarr", strlist_clone, no, n, s),
        AS("strpair_fromstring", strpair_fromstrings, "", "", n, s), OWN(strpair_fromstring, text, "=", n, s),
        AS("llist_get_at", strpair_setsecondstring, pair, "w"), NONE(strpairlist_addstrings, nullptr, "", "", n, s),
        AS("strpairlist_add", strpairlist_addstrings, &no, nullptr, nullptr, n, s),
        OWN(strpairlist_getfirst_at, pairs, 0), OWN(strpairlist_getsecond_at, pairs, 0),
        OWN(strpairlist_getfirststring_at, pairs, 0), OWN(strpairlist_getsecondstring_at, pairs, 0),
        AS("strpairlist_setfirst_at", strpairlist_setfirststring_at, pairs, "k", 0),
        AS("strpairlist_setsecond_at", strpairlist_setsecondstring_at, pairs, "v", 0), OWN(strpairlist_clone, no, n),
        AS2("strlist_getstring_at", "llist_getobject_at", strpairlist_getsecond_byfirststring, pairs, "k"),
        // data buffers
        NONE(dyndata_isdyndata, b), NONE(dyndata_getmaxsize, b), NONE(dyndata_setmaxsize, b, 50),
        NONE(dyndata_getdatasize, b), NONE(dyndata_isdyndata_equal, b, b), NONE(dyndata_isdyndata_equal2, b, "7", 1),
        NONE(dyndata_adddata, b, nullptr, 3), OWN(dyndata_initpool, "", 1, 1), OWN(dyndata_getdata, nullptr),
        AS("memm_calloc", dyndata_calloc_maxsize, area, 5), AS("memm_refalloc", dyndata_refalloc, b),
        OWN(dyndata_setdata, b, "x", 1), OWN(dyndata_adddata, b, "x", 1), OWN(dyndata_fromdata, area, "x", 1),
        AS("memm_free", dyndata_free, b)};
    for (const Call &call : calls) {
        recorder().take_tags();
        call.make();
        EXPECT_EQ(recorder().take_tags(), call.tags) << call.name;
    }
}

}  // namespace
