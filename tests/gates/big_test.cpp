// Pools and requests at the limits of what a machine can address.
#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/llist.h>
#include <climits>

namespace {

TEST(big, requests_beyond_32_bits_are_refused_without_asking_the_platform)
{
    recorder().allow_reports();
    make_pool("", 1);
    recorder().take_allocations();
    for (const auto &[count, size] :
         {std::pair{INT_MAX, INT_MAX}, {1, INT_MAX}, {3, INT_MAX - 64}, {0x20000000, 4}, {INT_MAX, 1}}) {
        EXPECT_EQ(memm_initpool("big", count, size, nullptr), -1);
        EXPECT_EQ(llist_initpool("big", count, size, nullptr), -1);
    }
    EXPECT_TRUE(recorder().take_allocations().empty());
}

int count_object(void *, void *count) { return ++*static_cast<int *>(count); }

TEST(big, a_pool_of_16_million_slots_is_used_from_end_to_end)
{
    const int slots = sizeof(void *) == 8 ? scaled(16000000) : 1000000;
    const unsigned pool = make_pool("huge", slots, 4);
    auto *const first = static_cast<unsigned char *>(memm_calloc(pool));
    for (int i = 1; i < slots; ++i)
        ASSERT_NE(memm_calloc_nolock(pool), nullptr);
    const memm_pool &big = pool_at(pool);
    void *const last = first + std::size_t{big.slot_size} * static_cast<unsigned>(slots - 1);
    EXPECT_EQ(memm_getobject_byindex(pool, slots - 1), last);
    EXPECT_EQ(memm_getindex(last), slots - 1);
    int visited = 0;
    EXPECT_EQ(memm_enum_objects(pool, count_object, &visited), slots);
    EXPECT_EQ(visited, slots);
    for (int i = 1; i < slots; ++i)
        ASSERT_EQ(memm_free(first + std::size_t{big.slot_size} * static_cast<unsigned>(i)), 0);
    EXPECT_TRUE(big.cur_count == 1 && big.last_used == first - 4 && big.first_free == first - 4 + big.slot_size);
    memm_print_stats("huge");
    EXPECT_NE(recorder().take_debug().find("100%"), std::string::npos);
}

}  // namespace
