#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/strlist.h>

#include <algorithm>
#include <random>

namespace {

int three_way(void *placed, void *ordered) { return *static_cast<int *>(placed) - *static_cast<int *>(ordered); }

std::mt19937 random_numbers(271);

// Runs of every kind, longer than the model's lists.
TEST(sorting, gives_the_order_of_the_written_insertion)
{
    make_pool("objects", 1);
    const int nodes = llist_initpool("nodes", 700, sizeof(llist), nullptr);
    for (const int count : {1, 25, 64, 65, 129, 700}) {
        for (int arrangement = 0; arrangement < 6; ++arrangement) {
            std::vector<int> items(static_cast<unsigned>(count));
            for (int &item : items)
                item = static_cast<int>(random_numbers() % (arrangement < 3 ? 3 : 1000));
            if (arrangement % 3 != 0)
                std::sort(items.begin(), items.end());
            if (arrangement % 3 == 1)
                std::reverse(items.begin(), items.end());
            std::vector<void *> expected, sorted;
            for (int &item : items) {
                const auto before = [](void *a, void *b) { return three_way(a, b) < 0; };
                expected.insert(std::lower_bound(expected.begin(), expected.end(), &item, before), &item);
            }
            llist *list = nullptr;
            for (auto item = items.rbegin(); item != items.rend(); ++item)
                llist_pushobject(&list, &*item, nodes);
            ASSERT_EQ(llist_sort(&list, three_way), 0U);
            while (list != nullptr)
                sorted.push_back(llist_popobject(&list));
            ASSERT_EQ(sorted, expected) << count << ", " << arrangement;
        }
    }
}

TEST(sorting, loses_no_node_by_a_comparison_that_contradicts_itself)
{
    make_pool("objects", 1);
    const int nodes = llist_initpool("nodes", 700, sizeof(llist), nullptr);
    std::vector<char> items(700);
    llist *list = nullptr;
    for (char &item : items)
        llist_pushobject(&list, &item, nodes);
    llist_sort(&list, [](void *, void *) { return static_cast<int>(random_numbers() % 3) - 1; });
    std::vector<void *> sorted;
    while (list != nullptr && sorted.size() <= items.size())
        sorted.push_back(llist_popobject(&list));
    std::sort(sorted.begin(), sorted.end());
    ASSERT_EQ(sorted.size(), items.size());
    for (std::size_t i = 0; i < items.size(); ++i)
        ASSERT_EQ(sorted[i], &items[i]);
}

TEST(lists, of_1000000_nodes_are_released_in_little_stack)
{
    make_pool("objects", 1);
    const int nodes = llist_initpool("nodes", 1000000, sizeof(llist), nullptr);
    llist *list = nullptr;
    for (int i = 0; i < 1000000; ++i)
        ASSERT_EQ(llist_pushobject(&list, nullptr, nodes), 0U);
    EXPECT_EQ(llist_free_plist(&list), 0U);
    EXPECT_EQ(pool_at(static_cast<unsigned>(nodes)).cur_count, 0);
}

TEST(lists, stay_whole_when_an_object_refuses)
{
    recorder().allow_reports();
    memm_pooloptions options{};
    options.release_cb = [](void *object) { return *static_cast<int *>(object); };
    const unsigned objects = make_pool("", 3, sizeof(int), options);
    const int nodes = llist_initpool("", 5, sizeof(llist), nullptr);
    int *held[3];
    llist *list = nullptr;
    for (int *&object : held)
        llist_addobject(&list, object = static_cast<int *>(memm_calloc(objects)), nodes);
    *held[0] = *held[2] = 1;
    EXPECT_EQ(llist_free_plist(&list), MEMM_E_SETUP);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(pool_at(objects).cur_count, 2) << "those before it are released";
}

}  // namespace
