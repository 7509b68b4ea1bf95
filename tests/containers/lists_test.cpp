// What the models leave open: long lists, pools that are full.
#include "support/recording_platform.h"

std::mt19937 dice(271);

int by_value(void *placed, void *ordered) { return *static_cast<int *>(placed) - *static_cast<int *>(ordered); }
int is_behind(void *placed, void *ordered) { return by_value(placed, ordered) > 0 ? 1 : 0; }
int by_chance(void *, void *) { return static_cast<int>(dice() % 3) - 1; }

TEST(sorting, gives_the_order_of_the_written_insertion_and_loses_no_node_by_a_comparison_that_contradicts_itself)
{
    const int nodes = make_nodes(700);
    for (const std::size_t count : {1, 25, 64, 65, 129, 700})
        for (int arrangement = 0; arrangement < 7; ++arrangement) {
            std::vector<int> items(count);
            for (int &item : items)
                item = static_cast<int>(dice() % (arrangement < 3 ? 3 : 1000));
            if (arrangement % 3 == 1)
                std::sort(items.begin(), items.end());
            if (arrangement % 3 == 2)
                std::sort(items.rbegin(), items.rend());
            llist *list = nullptr;
            std::vector<void *> expected, sorted;  // the last of equal ones is inserted before the others
            for (int &item : items) {
                llist_pushobject(&list, &item, nodes);
                expected.push_back(&item);
            }
            const bool is_chaos = arrangement == 6;
            if (!is_chaos)
                std::stable_sort(expected.begin(), expected.end(), [](void *a, void *b) { return by_value(a, b) < 0; });
            ASSERT_EQ(llist_sort(&list, is_chaos ? by_chance : arrangement % 2 == 0 ? by_value : is_behind), 0U);
            while (list != nullptr && sorted.size() <= count)
                sorted.push_back(llist_popobject(&list));
            if (is_chaos)
                std::sort(sorted.begin(), sorted.end());
            ASSERT_EQ(sorted, expected) << count << ", " << arrangement;
        }
}

TEST(lists, of_1000000_nodes_are_released_on_a_stack_of_64_KB)
{
    const int nodes = make_nodes(1000000);
    llist *list = nullptr;
    for (int i = 0; i < 1000000; ++i)
        ASSERT_EQ(llist_pushobject(&list, nullptr, nodes), 0U);
    pthread_attr_t small;
    pthread_attr_init(&small);
    ASSERT_EQ(pthread_attr_setstacksize(&small, std::max(64L << 10, sysconf(_SC_THREAD_STACK_MIN))), 0);
    const auto release = [](void *plist) -> void * { return llist_free_plist(static_cast<llist **>(plist)), nullptr; };
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &small, release, &list), 0);
    pthread_join(thread, nullptr);
    EXPECT_TRUE(list == nullptr && pool_at(nodes).cur_count == 0);
}

TEST(lists, are_cloned_by_reference_and_shown_with_what_they_hold)
{
    const unsigned objects = make_pool("o", 1, 4);
    for (const int asked : {1, 40})  // at least what a node needs
        EXPECT_EQ(pool_at(llist_initpool("", 1, asked, nullptr)).slot_size,
                  pool_at(make_pool("", 1, std::max(asked, static_cast<int>(sizeof(llist))))).slot_size);
    const int nodes = llist_initpool("n", 4, sizeof(llist), nullptr);
    void *const object = memm_calloc(objects);
    llist *list = nullptr, *copy = nullptr;
    llist_addobject(&list, object, nodes);
    int index = -2;
    void *cursor = &index;  // in no list
    EXPECT_TRUE(llist_enum_bytype(list, objects, &index, &cursor) == &index && index == -1);
    EXPECT_EQ(llist_clone(&copy, static_cast<llist *>(object), nodes), unsigned{MEMM_E_INVALID});
    EXPECT_TRUE(llist_clone(&copy, list, nodes) == 0 && llist_clone(&list, list, nodes) == 0);
    EXPECT_EQ(std::tuple(llist_getlength(copy), llist_getlength(list), header_of(object)),
              std::tuple(1, 2, 2U << 24 | objects));
    recorder().forget();
    memm_print_objects("n");
    const std::string shown = recorder().take_debug(),
                      held = text(", obj=%u.o.0.0x%08lx.[3 refs]\r\n", objects, address(object));
    const std::string first =
        text(" %d.n.0.0x%08lx, next=%d.n.2.0x%08lx", nodes, address(list), nodes, address(list->next));
    EXPECT_NE(shown.find(first + held), shown.npos) << shown;
    EXPECT_NE(shown.find(", next=0x0: null" + held), shown.npos) << shown;
    EXPECT_TRUE(llist_move_byobject(&list, &copy, object) == 0 && llist_getlength(copy) == 2);
    header_of(object) = 0xfe000000 | objects;  // no more holders
    auto *const no_node = static_cast<llist *>(object);
    EXPECT_EQ(llist_addref(&list, object, nodes), unsigned{MEMM_E_NO_MEMORY});
    EXPECT_EQ(llist_move_byobject(&copy, const_cast<llist **>(&no_node), object), unsigned{MEMM_E_INVALID});
}

TEST(string_lists, leave_out_what_finds_no_place)
{
    const int nodes = make_nodes(6), strings = static_cast<int>(make_strings(200, 2, 6));
    EXPECT_EQ(taken(strlist_fromstring("i,i,i,i,i,i,i,i,i", ",", nodes, strings)), Texts(6, "i"));
    // No room for the text: an empty item before a separator and in the escaped form, left out as the last one.
    const int narrow = static_cast<int>(make_strings(40, 2, 20));
    std::string text = std::string(30, 'a') + ",b," + std::string(30, 'c');
    EXPECT_EQ(taken(strlist_fromstring(text.c_str(), ",", nodes, narrow)), (Texts{"", "b"}));
    EXPECT_EQ(taken(strlist_fromstring_escaped(text.data(), ',', '\\', nodes, narrow)), (Texts{"", "b", ""}));
}

TEST(string_lists, are_joined_from_strings_of_any_pool_and_kind)
{
    const int nodes = make_nodes(20);
    const unsigned pool = make_strings(4000, 2, 30), other = make_strings();
    const std::string text(60, 't');
    strlist *list = nullptr;
    std::string expected;
    const auto add = [&](dynstr *item, const std::string &shown) {
        ASSERT_EQ(llist_addobject(&list, item, nodes), 0U);
        expected += (list->next == nullptr ? "" : ",") + shown;
        dynstr *const all = dynstr_fromstrlist(pool, list, ",");
        EXPECT_TRUE(all != nullptr && dynstr_getstring(all) == expected && all->str[expected.size() + 1] == '\0');
        memm_free(all);
    };
    add(dynstr_fromstring(pool, "short"), "short");
    add(dynstr_fromstring(pool, text.c_str()), text);
    add(dynstr_fromstring(other, "elsewhere"), "elsewhere");
    add(dynstr_calloc_maxsize(pool, 0), "");
    add(dynstr_fromliteral(pool, "literal"), "literal");
    EXPECT_EQ(dynstr_fromstrlist(make_strings(20, 1, 20), list, ","), nullptr) << "no room";
    memm_refalloc(list->obj), memm_free(list->obj), memm_free(list->obj);
    EXPECT_EQ(dynstr_fromstrlist(pool, list, ","), nullptr) << "one is deleted";
    EXPECT_EQ(dynstr_getstring(dynstr_fromstrlist(pool, list->next, "; ")), text + "; elsewhere; ; literal");
}
