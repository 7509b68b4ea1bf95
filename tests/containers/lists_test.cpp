#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/strpair.h>

#include <algorithm>
#include <functional>
#include <numeric>
#include <random>

namespace {

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
    const unsigned objects = make_pool("objects", 1);
    const int nodes = llist_initpool("nodes", 2, sizeof(llist), nullptr);
    llist *list = nullptr;
    void *const object = memm_calloc(objects);
    llist_addobject(&list, object, nodes);
    llist_addobject(&list, nullptr, nodes);
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

// --- what cannot be done ---

TEST(lists, stay_whole_when_an_object_refuses_its_release)
{
    memm_pooloptions options{};
    options.release_cb = [](void *object) { return *static_cast<int *>(object); };
    const unsigned objects = make_pool("", 3, sizeof(int), options);
    const int nodes = llist_initpool("", 3, sizeof(llist), nullptr);
    int *held[3];
    llist *list = nullptr;
    for (int *&object : held)
        llist_addobject(&list, object = static_cast<int *>(memm_calloc(objects)), nodes);
    llist *const first = list;
    *held[2] = 1;
    EXPECT_EQ(llist_free_plist(&list), MEMM_E_SETUP);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(pool_at(objects).cur_count, 2) << "those before it are released";
    *held[0] = 1;
    EXPECT_EQ(llist_setobject_at(first, nullptr, 0), 0U);
    EXPECT_EQ(llist_getobject_this(first), nullptr);
    recorder().allow_reports();
}

TEST(lists, refuse_what_is_no_list_and_change_nothing)
{
    recorder().allow_reports();
    const unsigned objects = make_pool("", 8, sizeof(int));
    const int nodes = llist_initpool("", 40, sizeof(llist), nullptr), strings = dynstr_initpool("", 2, 100);
    llist outside{}, *list = nullptr;
    llist_addobject(&list, memm_calloc(objects), nodes);
    dynstr *const string = dynstr_fromstring(static_cast<unsigned>(strings), "text");
    int index = 0;
    void *cursor = nullptr;
    for (void *const bad : {static_cast<void *>(string), static_cast<void *>(&outside), list->obj,
                            static_cast<void *>(memm_get_pool_nolock(1)), reinterpret_cast<void *>(8)}) {
        llist *no_list = static_cast<llist *>(bad);
        for (const unsigned result :
             {llist_addref(&no_list, list->obj, nodes), llist_sort(&no_list, three_way), llist_reverse(&no_list),
              llist_addlist(&no_list, list), llist_addlist(&list, no_list), llist_insert_list_at(&list, no_list, 0),
              llist_clone(&no_list, list, nodes), llist_clone(&list, no_list, nodes), llist_delete_at(&no_list, 0),
              llist_remove_byobject(&no_list, nullptr), llist_move_byobject(&no_list, &list, nullptr),
              llist_setobject_at(no_list, nullptr, 0)})
            EXPECT_EQ(result, MEMM_E_INVALID);
        for (const void *result :
             {static_cast<void *>(llist_split_at(&no_list, 0)), static_cast<void *>(llist_get_next(no_list)),
              static_cast<void *>(llist_refalloc(no_list, nodes)),
              llist_enum_bytype(no_list, 0xffffffff, &index, &cursor),
              static_cast<void *>(dynstr_fromstrlist(static_cast<unsigned>(strings), no_list, ",")),
              static_cast<void *>(strpairlist_getsecond_byfirststring(no_list, "text"))})
            EXPECT_EQ(result, nullptr);
        EXPECT_EQ(llist_insert_sorted(&no_list, list->obj, nodes, three_way), 0U);
        EXPECT_EQ(llist_getlength(no_list), 0);
        EXPECT_EQ(no_list, bad);
    }
    for (const int pool : {0, strings})
        EXPECT_EQ(llist_addref(&list, list->obj, pool), MEMM_E_NO_MEMORY);
    for (const unsigned result :
         {llist_addref(nullptr, list->obj, nodes), llist_free_plist(nullptr), llist_addlist(&list->next, list),
          llist_insert_list_at(nullptr, list, -1), strlist_setstring_at(list, "text", 0),
          strlist_setstring_at(list, nullptr, 0), strlist_addstring(nullptr, "text", nodes, strings),
          strlist_addulong(nullptr, 5, nodes, strings)})
        EXPECT_EQ(result, MEMM_E_INVALID);
    EXPECT_EQ(llist_insert_at(&list, nullptr, 2, nodes), MEMM_E_INVALID);
    EXPECT_EQ(pool_at(static_cast<unsigned>(nodes)).cur_count, 2) << "the new node is lost";
    EXPECT_EQ(strlist_fromstring("a", "", nodes, strings), nullptr);
    EXPECT_EQ(strlist_fromdynstr(string, nullptr, nodes), nullptr);
    EXPECT_EQ(header_of(list->obj), objects);
    for (int i = 0; i < 254; ++i)
        memm_refalloc(list->obj);
    EXPECT_EQ(llist_addref(&list, list->obj, nodes), MEMM_E_NO_MEMORY);
    EXPECT_EQ(llist_getlength(list), 1);
    EXPECT_EQ(llist_addobject(nullptr, string, nodes), MEMM_E_INVALID);
    EXPECT_EQ(dynstr_isdynstring(string), 0) << "the node is released with what it holds";
}

}  // namespace
