// What models and gates leave open: start and layouts, texts of failures, tags, callbacks that do what they should not.
#include "support/recording_platform.h"

namespace {

constexpr unsigned kWord = sizeof(memm_word), kLead = kWord - 4;  // in front of the first header

unsigned slot_bytes(unsigned object_size) { return (object_size + 4 + kWord - 1) / kWord * kWord; }

std::string failure_of(const char *pool, int count, unsigned size)
{
    return text("[MEMM] Failed to allocate %s buffer (cnt=%d, objsize=%u)\r\n", pool, count, size);
}

TEST(pools, start_once_and_not_with_impossible_numbers)
{
    EXPECT_EQ(memm_initpool("early", 2, 9, nullptr), -1);
    EXPECT_EQ(recorder().take_errors(), "0x10007 2 MEMM memmanager: memm_initpool() called before mem_init()\n");
    EXPECT_EQ(recorder().take_trace(), failure_of("early", 2, 9));
    for (const unsigned count : {0U, 0x800000U, UINT_MAX})
        EXPECT_EQ(memm_init(count, 4), MEMM_E_INVALID);
    EXPECT_TRUE(memm_calloc(0) == nullptr && recorder().take_allocations() == "");
    EXPECT_TRUE(memm_init(5, 4) == 0 && memm_init(5, 4) == MEMM_E_STARTED);
    for (int next = pool_at(0).cur_count; next < 5; ++next)
        EXPECT_EQ(memm_initpool("", 1, 1, nullptr), next);
    EXPECT_EQ(memm_initpool("one more", 3, 1, nullptr), -1);
    EXPECT_EQ(recorder().take_trace(), "memm_init() may only be called once per process!"
                                       "memm_calloc() failed for pool 'memm_pooldesc' (pool depleted)" +
                                           failure_of("one more", 3, slot_bytes(1)));
    recorder().forget();
}

TEST(pools, that_cannot_be_made_leave_nothing_but_a_trace)
{
    make_pool("twin", 1);
    recorder().forget();
    const std::tuple<const char *, int, int> impossible[] = {{"a", 0, 8},        {"a", 3, 0},       {"twin", 3, 8},
                                                             {"a", 3, -8},       {"a", 1, INT_MAX}, {"a", INT_MAX, 1},
                                                             {"<no_name>", 3, 8}};
    for (const auto &[name, count, size] : impossible) {
        EXPECT_EQ(memm_initpool(*name == '<' ? nullptr : name, count, size, nullptr), -1);
        EXPECT_TRUE(recorder().take_trace().starts_with(text("[MEMM] Failed to allocate %s buffer", name)));
    }
    EXPECT_EQ(recorder().take_allocations(), "");
    recorder().fail_nth(Op::alloc, 1);
    EXPECT_EQ(memm_initpool("bare", 4, 8, nullptr), -1);
    const auto bare = static_cast<unsigned>(pool_at(0).max_count - 1);
    void *const object = memm_calloc(make_pool("bare", 4));  // the name is not taken
    header_of(object) = bare;
    EXPECT_TRUE(memm_getindex(object) == 0 && memm_getnext(object) == nullptr && memm_getfirst(bare) == nullptr &&
                memm_getobject_byindex(bare, 0) == nullptr && memm_calloc(bare) == nullptr);
    recorder().forget();
}

TEST(pools, are_laid_out_as_documented_and_answer_by_object_and_by_id)
{
    make_pool("first", 1);
    for (const unsigned size : {1U, 5U, 12U, 13U, 40U, 64U, 100U, 120U, 4000U})
        for (const unsigned slots : {1U, 256U, 257U}) {
            recorder().forget();
            const unsigned id = make_pool("", static_cast<int>(slots), static_cast<int>(size));
            const memm_pool &pool = pool_at(id);
            EXPECT_EQ(pool.slot_size, slot_bytes(size));
            EXPECT_EQ(pool.last_item, pool.slots + (slots - 1) * pool.slot_size);
            const std::string blocks = recorder().take_allocations();
            const std::string slot_block = text(" 1 %u;", slots * pool.slot_size + kLead);
            EXPECT_TRUE(blocks.starts_with(slot_block) && (slots > 256) == (blocks != slot_block)) << "an index";
            for (unsigned left = slots; left > 0; --left) {
                auto *const object = static_cast<unsigned char *>(memm_calloc(id));
                ASSERT_TRUE(address(object) % kWord == 0 && header_of(object) == id);
                EXPECT_EQ(std::count(object, object + size, 0), size);
                std::memset(object, 0xff, size);  // neither a neighbour's header nor beyond the block
            }
        }
    const unsigned pool = make_pool("named", 2);
    void *const object = memm_calloc(pool);
    header_of(object) |= 0x02800000;  // tag and references are not part of the id
    EXPECT_STREQ(memm_get_poolname(object), "named");
    EXPECT_TRUE(memm_get_poolid(object) == static_cast<int>(pool) && memm_get_poolid(nullptr) == -1);
    EXPECT_TRUE(memm_instanceof_no_ori(object, pool) == 1 && memm_instanceof_no_ori(object, pool - 1) == 0);
}

TEST(pools, report_what_a_release_callback_should_not_do)
{
    static bool releases_itself = true;
    const auto release2 = [](void *object, memm_release_fn release) {
        return std::exchange(releases_itself, false) ? release(object) : *static_cast<int *>(object);
    };
    const unsigned id = make_pool("pool", 2, 8, {.release2_cb = release2});
    void *object = memm_calloc(id);
    EXPECT_EQ(memm_free(object), 0);  // Deliberate: reported, and the slot freed twice
    EXPECT_TRUE(recorder().take_trace().starts_with("[MEMM] memm_free: Recursive release detected: 0x"));
    EXPECT_TRUE(pool_at(id).cur_count == -1 && pool_at(id).free_count == 2 && header_of(object) == ~0U);
    object = memm_calloc(id);
    *static_cast<int *>(object) = MEMM_KEPT;
    EXPECT_EQ(memm_free(object), MEMM_E_SETUP);
    EXPECT_TRUE(recorder().take_trace().starts_with("[MEMM] memm_free: free2_ex failed for: 0x"));
}

}  // namespace
