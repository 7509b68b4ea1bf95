#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/strpair.h>

#include <algorithm>
#include <functional>
#include <numeric>
#include <random>

namespace {

using Texts = std::vector<std::string>;

struct Pools {
    unsigned objects = make_pool("objects", 8, sizeof(int));
    int nodes = llist_initpool("nodes", 40, sizeof(llist), nullptr);
    int strings = dynstr_initpool("strings", 40, 20000);

    int live_strings() const
    {
        const memm_pool &pool = pool_at(static_cast<unsigned>(strings));
        return pool.cur_count - *pool.count_base;
    }
};

// --- sorting ---

struct Item {
    int key, place;
};

int three_way(void *placed, void *ordered)
{
    const int a = static_cast<Item *>(placed)->key, b = static_cast<Item *>(ordered)->key;
    return a < b ? -1 : a > b ? 1 : 0;
}
int greater(void *placed, void *ordered) { return three_way(placed, ordered) > 0 ? 1 : 0; }

std::mt19937 random_numbers(271);
int at_random(void *, void *) { return static_cast<int>(random_numbers() % 3) - 1; }

std::vector<Item *> items_of(llist *list)
{
    std::vector<Item *> items;
    for (; list != nullptr; list = list->next)
        items.push_back(static_cast<Item *>(list->obj));
    return items;
}

TEST(sorting, gives_the_order_of_the_written_insertion)
{
    make_pool("objects", 1);
    const int nodes = llist_initpool("nodes", 700, sizeof(llist), nullptr);
    using Arrange = std::function<void(std::vector<Item> &)>;
    const auto by_key = [](const Item &a, const Item &b) { return a.key < b.key; };
    const Arrange arrangements[] = {
        [](auto &items) { std::shuffle(items.begin(), items.end(), random_numbers); },
        [&](auto &items) { std::stable_sort(items.begin(), items.end(), by_key); },
        [&](auto &items) { std::stable_sort(items.rbegin(), items.rend(), by_key); },
        [&](auto &items) {
            std::stable_sort(items.begin(), items.end(), by_key);
            std::swap(items.front(), items[items.size() / 2]);
        },
    };
    for (const int count : {1, 2, 3, 4, 7, 25, 64, 65, 128, 129, 300, 513, 700}) {
        for (const int keys : {1, 3, 1000}) {
            for (const Arrange &arrange : arrangements) {
                std::vector<Item> items(static_cast<unsigned>(count));
                for (Item &item : items)
                    item.key = static_cast<int>(random_numbers() % static_cast<unsigned>(keys));
                arrange(items);
                std::vector<Item *> expected;
                for (Item &item : items) {
                    const auto before = [](const Item *a, const Item *b) { return a->key < b->key; };
                    expected.insert(std::lower_bound(expected.begin(), expected.end(), &item, before), &item);
                }
                for (const llist_compare_fn compare : {three_way, greater, at_random}) {
                    llist *list = nullptr;
                    for (auto item = items.rbegin(); item != items.rend(); ++item)
                        llist_pushobject(&list, &*item, nodes);
                    ASSERT_EQ(llist_sort(&list, compare), 0U);
                    std::vector<Item *> sorted = items_of(list);
                    if (compare == at_random) {  // nonsense, but no node is lost
                        ASSERT_TRUE(
                            std::is_permutation(sorted.begin(), sorted.end(), expected.begin(), expected.end()));
                    } else {
                        ASSERT_EQ(sorted, expected) << count << " of " << keys;
                    }
                    for (llist *node = list; node != nullptr; node = node->next)
                        node->obj = nullptr;
                    ASSERT_EQ(llist_free_plist(&list), 0U);
                }
            }
        }
    }
}

// --- release ---

const char *deepest;

int note_stack(void *)
{
    const char *const here = static_cast<const char *>(__builtin_frame_address(0));
    deepest = std::min(deepest, here);
    return 0;
}

TEST(lists, of_1000000_nodes_are_released_in_little_stack)
{
    memm_pooloptions options{};
    options.release_cb = note_stack;
    const unsigned objects = make_pool("objects", 2, 8, options);
    const int nodes = llist_initpool("nodes", 1000000, sizeof(llist), nullptr);
    llist *list = nullptr;
    for (int i = 0; i < 1000000; ++i)
        ASSERT_EQ(llist_pushobject(&list, i == 0 || i == 999999 ? memm_calloc(objects) : nullptr, nodes), 0U);
    const char *const here = deepest = static_cast<const char *>(__builtin_frame_address(0));
    EXPECT_EQ(llist_free_plist(&list), 0U);
    EXPECT_NE(deepest, here);
    EXPECT_LT(here - deepest, 64 * 1024);
    EXPECT_EQ(pool_at(objects).cur_count + pool_at(static_cast<unsigned>(nodes)).cur_count, 0);
}

TEST(lists, print_what_a_node_leads_to)
{
    const Pools pools;
    llist *list = nullptr;
    void *const object = memm_calloc(pools.objects);
    llist_addobject(&list, object, pools.nodes);
    llist_addobject(&list, nullptr, pools.nodes);
    recorder().forget();
    memm_printobject(list, 1);
    memm_printobject(list->next, 1);
    const auto shown = [](const char *name, int number, const void *at) {
        return text("%d.%s.%d.0x%08lx", memm_get_poolid(at), name, number, reinterpret_cast<unsigned long>(at));
    };
    EXPECT_EQ(recorder().take_debug(), shown("nodes", 0, list) + ", next=" + shown("nodes", 1, list->next) +
                                           ", obj=" + shown("objects", 0, object) + shown("nodes", 1, list->next) +
                                           ", next=0x0: null, obj=0x0: null");

    // The caller's print function stays, its release function does not.
    memm_pooloptions options{};
    options.print_cb = [](void *) {};
    options.release_cb = [](void *) { return 1; };
    const int other = llist_initpool("other", 1, 1, &options);
    const memm_pool &pool = pool_at(static_cast<unsigned>(other));
    EXPECT_TRUE(pool.options.print_cb == options.print_cb && pool.options.release_cb != options.release_cb);
    EXPECT_GE(pool.slot_size, sizeof(llist) + 4);
    EXPECT_EQ(llist_free_plist(&list), 0U);
}

// --- lock ---

TEST(lists, take_the_lock_under_their_tags)
{
    const Pools pools;
    const int n = pools.nodes, s = pools.strings;
    const auto pool = static_cast<unsigned>(s);
    llist *list = nullptr, *pairs = nullptr, *none = nullptr;
    strlist_addstring(&list, "1", n, s);
    strpairlist_addstrings(&pairs, "k", "v", n, s);
    strpair *const pair = strpairlist_getpair_at(pairs, 0);
    const auto compare = [](void *, void *) { return 0; };
    int index = 0;
    void *cursor = nullptr;
    unsigned value = 0;
    char text[] = "a=b";
    const char *array[] = {nullptr};
    dynstr *slot = nullptr;
    const std::pair<std::function<void()>, Texts> cases[] = {
        {[&] { llist_addobject(&none, nullptr, n); }, {"llist_addobject"}},
        {[&] { llist_addobject_nolock(&none, nullptr, n); }, {}},
        {[&] { llist_addref(&none, nullptr, n); }, {"llist_addref"}},
        {[&] { llist_pushobject(&none, nullptr, n); }, {"llist_insert_at"}},
        {[&] { llist_popobject(&none); }, {"llist_cut_at"}},
        {[&] { llist_getlength(list); }, {"llist_getlength"}},
        {[&] { llist_get_first(list); }, {"llist_get_first"}},
        {[&] { llist_get_next(list); }, {"llist_get_next"}},
        {[&] { llist_get_at(list, 0); }, {"llist_get_at"}},
        {[&] { llist_get_at_nolock(list, 0); }, {}},
        {[&] { llist_getobject_at(list, 0); }, {"llist_getobject_at"}},
        {[&] { llist_getobject_this(list); }, {"llist_getobject_this"}},
        {[&] { llist_setobject_at(none, nullptr, 0); }, {"llist_setobject_at"}},
        {[&] { llist_searchobject(list, nullptr, compare); }, {"llist_searchobject"}},
        {[&] { llist_search_byobject(list, nullptr); }, {"llist_search_byobject"}},
        {[&] { llist_getindex_byobject(list, nullptr); }, {"llist_getindex_byobject"}},
        {[&] { llist_inlist(list, nullptr); }, {"llist_searchobject"}},
        {[&] { llist_delete_at(&none, 9); }, {"llist_delete_at"}},
        {[&] { llist_delete_byobject(&none, &value); }, {"llist_delete_byobject"}},
        {[&] { llist_remove_at(&none, 9); }, {"llist_remove_at"}},
        {[&] { llist_remove_byobject(&none, &value); }, {"llist_remove_byobject"}},
        {[&] { llist_unlink_at(&none, 9); }, {"llist_unlink_at"}},
        {[&] { llist_unlink_byobject(&none, &value); }, {"llist_unlink_byobject"}},
        {[&] { llist_getandremove_at(&none, 9); }, {"llist_cut_at"}},
        {[&] { llist_getandunlink_at(&none, 9); }, {"llist_cut_at"}},
        {[&] { llist_getandunlink_byobject(&none, &value); }, {"llist_cut_byobject"}},
        {[&] { llist_free_plist(&none); }, {"llist_free_plist"}},
        {[&] { llist_sort(&list, compare); }, {"llist_sort"}},
        {[&] { llist_sort(&list, nullptr); }, {}},
        {[&] { llist_insert_sorted(&none, nullptr, n, compare); }, {"llist_insert_sorted"}},
        {[&] { llist_reverse(&none); }, {"llist_reverse"}},
        {[&] { llist_insert_at(&none, nullptr, 0, n); }, {"llist_insert_at"}},
        {[&] { llist_insert_list_at(&none, nullptr, 0); }, {"llist_insert_list_at"}},
        {[&] { llist_addlist(&none, nullptr); }, {"llist_add"}},
        {[&] { llist_split_at(&none, 9); }, {"llist_split_at"}},
        {[&] { llist_refalloc(nullptr, n); }, {"llist_refalloc"}},
        {[&] { llist_clone(&none, nullptr, n); }, {"llist_refalloc"}},
        {[&] { llist_move_byobject(&none, &list, &value); }, {"llist_move_byobject"}},
        {[&] { llist_get_bytype(list, pool, 0); }, {"llist_get_bytype"}},
        {[&] {
             llist_enumcb_bytype(
                 pair, pool, [](void *, void *) { return 1; }, nullptr);
         },
         {"llist_enumcb_bytype", "llist_enumcb_bytype"}},
        {[&] { llist_enum_bytype(list, pool, &index, &cursor); }, {"llist_enum_bytype"}},
        {[&] { llist_enum_bytype_nolock(list, pool, &index, &cursor); }, {}},
        {[&] { llist_enum_dynstr(list, &index, &cursor); }, {"llist_enum_dynstr"}},
        {[&] { strlist_enum_dynstr(list, &index, &cursor); }, {"strlist_enum_dynstr"}},
        {[&] { strlist_todynstr(list, "", s); }, {"dynstr_fromstrlist"}},
        {[&] { strlist_partialtodynstr(list, "", s, 0, 1); }, {"dynstr_frompartialstrlist"}},
        {[&] { dynstr_fromstrlist_escaped(pool, list, "", '\\'); }, {"dynstr_fromstrlist_escaped"}},
        {[&] { _dynstr_ex_fromstrlist(pool, &slot, list, "", "", 1); }, {"dynstr_fromstrlist"}},
        {[&] { _dynstr_ex_fromstrlist_escaped(pool, &slot, list, "", '\\', "", 1); }, {"dynstr_fromstrlist_escaped"}},
        {[&] { _dynstr_ex_frompartialstrlist(pool, &slot, list, "", 0, 1, "", 1); }, {"dynstr_frompartialstrlist"}},
        {[&] { _dynstr_ex_fromstrlist(pool, nullptr, list, "", "", 1); }, {}},
        {[&] { dynstr_fromstrlist(0, list, ""); }, {}},
        {[&] { strlist_addstring(&list, "2", n, s); }, {"strlist_addstring"}},
        {[&] { strlist_addstring_nolock(&list, "2", n, s); }, {}},
        {[&] { strlist_addulong(&list, 2, n, s); }, {"dynstr_fromprintf", "llist_addobject"}},
        {[&] { strlist_getdynstr_at(list, 0); }, {"llist_getobject_at"}},
        {[&] { strlist_getstring_at(list, 0); }, {"strlist_getstring_at"}},
        {[&] { strlist_getulong_at(list, &value, 0); }, {"llist_getobject_at", "dynstr_getulong"}},
        {[&] { strlist_setstring_at(list, "3", 0); }, {"llist_get_at"}},
        {[&] { strlist_fromstring("", ",", n, s); }, {"strlist_fromstring"}},
        {[&] { strlist_fromstring_escaped(text, ',', '\\', n, s); }, {"strlist_fromstring_escaped"}},
        {[&] { strlist_fromdynstr(slot, ",", n); }, {"strlist_fromdynstr"}},
        {[&] { strlist_fromstringarr(array, n, s); }, {"strlist_fromstringarr"}},
        {[&] { strlist_clone(none, n, s); }, {"strlist_fromstringarr"}},
        {[&] { strpair_fromstrings("", "", n, s); }, {"strpair_fromstring"}},
        {[&] { strpair_fromstring(text, "=", n, s); }, {"strpair_fromstring"}},
        {[&] { strpair_setsecondstring(pair, "w"); }, {"llist_get_at"}},
        {[&] { strpairlist_addstrings(&none, nullptr, nullptr, n, s); }, {"strpairlist_add"}},
        {[&] { strpairlist_addstrings(nullptr, "", "", n, s); }, {}},
        {[&] { strpairlist_getfirst_at(pairs, 0); }, {"strpairlist_getfirst_at"}},
        {[&] { strpairlist_getsecond_at(pairs, 0); }, {"strpairlist_getsecond_at"}},
        {[&] { strpairlist_getfirststring_at(pairs, 0); }, {"strpairlist_getfirststring_at"}},
        {[&] { strpairlist_getsecondstring_at(pairs, 0); }, {"strpairlist_getsecondstring_at"}},
        {[&] { strpairlist_setfirststring_at(pairs, "k", 0); }, {"strpairlist_setfirst_at"}},
        {[&] { strpairlist_setsecondstring_at(pairs, "v", 0); }, {"strpairlist_setsecond_at"}},
        {[&] { strpairlist_clone(none, n); }, {"strpairlist_clone"}},
        {[&] { strpairlist_getsecondstring_byfirststring(pairs, "k"); },
         {"strlist_getstring_at", "llist_getobject_at", "dynstr_getstring"}},
    };
    recorder().allow_reports();
    for (const auto &[call, tags] : cases) {
        recorder().forget();
        call();
        EXPECT_EQ(recorder().take_tags(), tags) << &call - &cases[0].first;
    }
}

// --- what cannot be done ---

TEST(lists, refuse_what_is_no_list_and_change_nothing)
{
    const Pools pools;
    recorder().allow_reports();
    const int data_like = dynstr_initpool("other strings", 2, 100);
    llist *list = nullptr;
    llist_addobject(&list, memm_calloc(pools.objects), pools.nodes);
    dynstr *const string = dynstr_fromstring(static_cast<unsigned>(pools.strings), "text");
    const int strings_before = pools.live_strings();
    llist outside{};
    const auto compare = [](void *, void *) { return 0; };
    int index = 0;
    void *cursor = nullptr;
    for (void *const bad : {static_cast<void *>(string), static_cast<void *>(&outside), list->obj,
                            static_cast<void *>(memm_get_pool_nolock(1)), reinterpret_cast<void *>(8)}) {
        llist *no_list = static_cast<llist *>(bad);
        EXPECT_EQ(llist_addref(&no_list, list->obj, pools.nodes), MEMM_E_INVALID);
        EXPECT_EQ(llist_sort(&no_list, compare), MEMM_E_INVALID);
        EXPECT_EQ(llist_insert_sorted(&no_list, list->obj, pools.nodes, compare), 0U);
        EXPECT_EQ(llist_reverse(&no_list), MEMM_E_INVALID);
        EXPECT_EQ(llist_addlist(&no_list, list), MEMM_E_INVALID);
        EXPECT_EQ(llist_addlist(&list, no_list), MEMM_E_INVALID);
        EXPECT_EQ(llist_insert_list_at(&list, no_list, 0), MEMM_E_INVALID);
        EXPECT_EQ(llist_clone(&no_list, list, pools.nodes), MEMM_E_INVALID);
        EXPECT_EQ(llist_clone(&list, no_list, pools.nodes), MEMM_E_INVALID);
        EXPECT_EQ(llist_delete_at(&no_list, 0), MEMM_E_INVALID);
        EXPECT_EQ(llist_remove_byobject(&no_list, nullptr), MEMM_E_INVALID);
        EXPECT_EQ(llist_move_byobject(&no_list, &list, nullptr), MEMM_E_INVALID);
        EXPECT_EQ(llist_setobject_at(no_list, nullptr, 0), MEMM_E_INVALID);
        EXPECT_EQ(llist_split_at(&no_list, 0), nullptr);
        EXPECT_EQ(llist_get_first(no_list), nullptr);
        EXPECT_EQ(llist_get_next(no_list), nullptr);
        EXPECT_EQ(llist_getlength(no_list), 0);
        EXPECT_EQ(llist_getandunlink_at(&no_list, 0), nullptr);
        EXPECT_EQ(llist_refalloc(no_list, pools.nodes), nullptr);
        EXPECT_EQ(llist_enum_bytype(no_list, 0xffffffff, &index, &cursor), nullptr);
        EXPECT_EQ(llist_enumcb_bytype(
                      no_list, 1, [](void *, void *) { return 1; }, nullptr),
                  0);
        EXPECT_EQ(dynstr_fromstrlist(static_cast<unsigned>(pools.strings), no_list, ","), nullptr);
        EXPECT_EQ(strpairlist_getsecond_byfirststring(no_list, "text"), nullptr);
        EXPECT_EQ(no_list, bad);
    }
    for (const int pool : {-1, 0, 99, data_like, static_cast<int>(make_pool("small", 1, 4))}) {
        EXPECT_EQ(llist_addref(&list, list->obj, pool), MEMM_E_NO_MEMORY);
        EXPECT_EQ(llist_insert_at(&list, list->obj, 0, pool), MEMM_E_NO_MEMORY);
    }
    for (const unsigned result :
         {llist_addref(nullptr, list->obj, pools.nodes), llist_free_plist(nullptr), llist_addlist(nullptr, list),
          llist_delete_at(nullptr, 0), llist_reverse(nullptr), llist_sort(nullptr, compare), llist_addlist(&list, list),
          llist_addlist(&list->next, list), llist_insert_list_at(&list, list, 1),
          llist_insert_list_at(nullptr, list, -1), strlist_addstring(nullptr, "text", pools.nodes, pools.strings),
          strlist_setstring_at(list, "text", 0), strlist_addulong(nullptr, 5, pools.nodes, pools.strings),
          strpairlist_setfirststring_at(list, "text", 0)})
        EXPECT_EQ(result, MEMM_E_INVALID);
    EXPECT_EQ(strlist_fromstring("a", "", pools.nodes, pools.strings), nullptr);
    EXPECT_EQ(strlist_fromstring(nullptr, ",", pools.nodes, pools.strings), nullptr);
    EXPECT_EQ(strlist_fromdynstr(string, nullptr, pools.nodes), nullptr);
    EXPECT_EQ(header_of(list->obj), pools.objects);
    EXPECT_EQ(header_of(string), static_cast<unsigned>(pools.strings));
    for (int i = 0; i < 254; ++i)
        memm_refalloc(list->obj);
    EXPECT_EQ(llist_addref(&list, list->obj, pools.nodes), MEMM_E_NO_MEMORY);
    EXPECT_EQ(pool_at(static_cast<unsigned>(pools.nodes)).cur_count, 1);
    EXPECT_EQ(pools.live_strings(), strings_before);
    EXPECT_EQ(llist_addobject(nullptr, string, pools.nodes),
              MEMM_E_INVALID);  // the node is released with what it holds
    EXPECT_EQ(dynstr_isdynstring(string), 0);
}

}  // namespace
