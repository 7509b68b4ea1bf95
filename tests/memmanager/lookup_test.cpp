#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/memmanager.h>
#include <gtest/gtest.h>
#include <random>

namespace {

using Objects = std::vector<void *>;
using Strings = std::vector<std::string>;

int collect(void *object, void *objects)
{
    static_cast<Objects *>(objects)->push_back(object);
    return 1;
}

TEST(lookup, walks_agree_with_the_objects_in_use_with_and_without_an_index)
{
    for (const int count : {1, 256, 257, 5000}) {
        const unsigned pool = make_pool("", count);
        Objects by_index(static_cast<std::size_t>(count));
        std::mt19937 random(static_cast<unsigned>(count));
        for (const double wanted : {1.0, 0.01, 0.6, 0.0, 0.001, 0.3}) {
            for (auto &object : by_index)
                if (object != nullptr && static_cast<double>(random()) >= wanted * 4294967296.0) {
                    memm_free(object);
                    object = nullptr;
                }
            while (pool_at(pool).cur_count < static_cast<int>(wanted * count)) {
                void *object = memm_calloc(pool);
                by_index[static_cast<std::size_t>(memm_getindex(object))] = object;
            }
            Objects expected, seen, by_next;
            for (int i = 0; void *object : by_index) {
                ASSERT_EQ(memm_getobject_byindex(pool, i++), object);
                if (object != nullptr)
                    expected.push_back(object);
            }
            EXPECT_EQ(memm_enum_objects(pool, collect, &seen), static_cast<int>(expected.size()));
            EXPECT_EQ(seen, expected);
            for (void *object = memm_getfirst(pool); object != nullptr; object = memm_getnext(object))
                by_next.push_back(object);
            EXPECT_EQ(by_next, expected);
            EXPECT_EQ(memm_enum_objects(pool, nullptr, nullptr), expected.empty() ? 0 : 1);
        }
    }
}

// Each visitor changes the pool under the walk: what lies behind the walk is not seen, what lies ahead is.
TEST(lookup, walks_follow_what_their_callbacks_do)
{
    static unsigned pool;
    static Objects o, seen;
    for (const int count : {8, 300}) {
        pool = make_pool(count == 8 ? "few" : "many", count);
        o.clear(), seen.clear();
        for (int i = 0; i < 6; ++i)
            o.push_back(memm_calloc(pool));
        const auto visit = [](void *object, void *) {
            seen.push_back(object);
            memm_free_nolock(object);  // itself
            if (object == o[1]) {
                memm_free_nolock(o[2]);    // the next one
                memm_calloc_nolock(pool);  // takes slot 0, behind
            } else if (object == o[3]) {
                memm_free_nolock(o[5]);  // the last one: last_used moves down
            }
            for (int i = 0; object == o[4] && i < 6; ++i)
                memm_calloc_nolock(pool);  // up to slot 6
            return static_cast<int>(memm_getindex(object) < 6);
        };
        EXPECT_EQ(memm_enum_objects_nolock(pool, visit, nullptr), 6);
        void *const after_last = static_cast<char *>(o[5]) + pool_at(pool).slot_size;
        EXPECT_EQ(seen, (Objects{o[0], o[1], o[3], o[4], o[5], after_last}));
    }
}

int matches_index(void *object, int wanted) { return memm_getindex(object) == wanted; }

TEST(lookup, search_stops_at_the_match_and_every_call_has_its_tag)
{
    const unsigned pool = make_pool("search", 3);
    void *const first = memm_calloc(pool), *const second = memm_calloc(pool), *const third = memm_calloc(pool);
    memm_free(second);
    EXPECT_EQ(memm_search(pool, 2, matches_index), third);
    EXPECT_EQ(memm_search(pool, 1, matches_index), nullptr);
    EXPECT_EQ(memm_search(pool, 7, [](void *, int wanted) { return wanted; }), first);
    recorder().take_tags();
    EXPECT_EQ(memm_search(pool, 0, nullptr), nullptr);
    memm_getfirst(pool);
    memm_getnext(first);
    memm_enum_objects(pool, nullptr, nullptr);
    memm_enum_objects_nolock(pool, nullptr, nullptr);
    memm_getindex(first);
    memm_getobject_byindex(pool, 0);
    memm_isvalidobj(first);
    memm_isvalidobj_nolock(first);
    EXPECT_EQ(recorder().take_tags(),
              (Strings{"memm_search", "memm_getfirst", "memm_getnext", "memm_enum_objects", "memm_getindex"}));
}

TEST(lookup, no_pointer_and_no_id_passes_for_an_object)
{
    EXPECT_EQ(memm_isvalidobj("before the start"), 0);
    EXPECT_EQ(memm_getfirst(0), nullptr);
    const unsigned pool = make_pool("strict", 4), other = make_pool("other", 4), bare = other + 1;
    recorder().fail_nth(Op::alloc, 1);
    EXPECT_EQ(memm_initpool("no slots", 4, 8, nullptr), -1);
    recorder().take_trace();
    const auto take = [pool] { return static_cast<unsigned char *>(memm_calloc(pool)); };
    auto *const object = take(), *const released = take();
    void *const foreign = memm_calloc(other);
    memm_free(released);
    unsigned stack[4] = {pool, pool, bare, 0};  // as if objects of these pools stood here
    static unsigned below_the_heap[2] = {pool};
    for (void *const pointer : Objects{nullptr, released, released + 24, object + 1, object + 6, &stack[1], &stack[2],
                                       &stack[3], &below_the_heap[1]}) {
        EXPECT_EQ(memm_isvalidobj(pointer), 0) << pointer;
        EXPECT_EQ(memm_getnext(pointer), nullptr) << pointer;
        memm_getindex(pointer);
    }
    EXPECT_EQ(memm_getindex(nullptr) | memm_getindex(&stack[3]), 0) << "the pool has no slots";
    // Deliberate: neither the slot's boundary nor its use is looked at. A walk does not go on from there.
    reinterpret_cast<unsigned *>(object)[1] = pool;
    memm_calloc(pool);
    void *const third = memm_calloc(pool);
    EXPECT_EQ(memm_isvalidobj(object + 8), 1);
    EXPECT_EQ(memm_getnext(object + 8), nullptr);
    EXPECT_NE(memm_getnext(object), nullptr);
    EXPECT_EQ(memm_getnext(foreign), nullptr) << "not one of another pool";

    header_of(object) |= 0x05800000;  // tag and references
    EXPECT_EQ(memm_getobject_byindex(pool, 0), object);
    header_of(third) = other;
    for (const int index : {2, 4, -1})
        EXPECT_EQ(memm_getobject_byindex(pool, index), nullptr);
    for (const unsigned id : {bare, bare + 1, 0x7fffffU, 0xffffffffU}) {
        for (void *none : {memm_getfirst(id), memm_getobject_byindex(id, 0), memm_search(id, 0, matches_index)})
            EXPECT_EQ(none, nullptr);
        EXPECT_EQ(memm_enum_objects(id, nullptr, nullptr), 0);
    }
}

TEST(lookup, tagging_marks_the_objects_of_selected_pools_and_nothing_else)
{
    const unsigned first = make_pool("tag.a", 4), empty = make_pool("tag.b", 400), other = make_pool("Tag", 4);
    void *const plain = memm_calloc(first), *const shared = memm_calloc(first), *const untouched = memm_calloc(other);
    memm_refalloc(shared);
    int mark = 0;
    recorder().take_tags();
    memm_tag_objects("tag", &mark);
    EXPECT_EQ(recorder().take_tags(), Strings{"memm_tag_objects"});
    EXPECT_EQ(recorder().take_debug(), "tagged 2 object(s) in pool tag.a\r\ntagged 0 object(s) in pool tag.b\r\n");
    EXPECT_EQ(header_of(plain), 0x800000U | first);
    EXPECT_EQ(header_of(shared), 0x1800000U | first);
    EXPECT_EQ(header_of(untouched), other);
    memm_calloc(empty);
    memm_tag_objects("tag", nullptr);
    EXPECT_EQ(recorder().take_debug(), "untagged 2 object(s) in pool tag.a\r\nuntagged 1 object(s) in pool tag.b\r\n");
    EXPECT_EQ(header_of(plain), first);
    EXPECT_EQ(header_of(shared), 0x1000000U | first);
    memm_tag_objects(nullptr, &mark);
    const std::string all = recorder().take_debug();
    EXPECT_EQ(all.find(text("tagged %d object(s) in pool memm_pooldesc\r\n", pool_at(0).cur_count)), 0U);
    EXPECT_NE(all.find("tagged 1 object(s) in pool Tag\r\n"), std::string::npos);
}

}  // namespace
