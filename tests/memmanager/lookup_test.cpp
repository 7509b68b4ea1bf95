#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/memmanager.h>
#include <memmanager/platform.h>
#include <csignal>
#include <gtest/gtest.h>
#include <random>
#include <sys/mman.h>

namespace {

using Objects = std::vector<void *>;
using Strings = std::vector<std::string>;

// A pool whose slot array could not be had: its id, valid without slots.
unsigned make_pool_without_slots(unsigned next_id)
{
    recorder().fail_nth(Op::alloc, 1);
    EXPECT_EQ(memm_initpool("no slots", 4, 8, nullptr), -1);
    EXPECT_NE(memm_get_pool_nolock(next_id), nullptr);
    recorder().take_trace();
    return next_id;
}

int collect(void *object, void *objects)
{
    static_cast<Objects *>(objects)->push_back(object);
    return 1;
}

Objects walk_by_enum(unsigned pool)
{
    Objects seen;
    const int count = memm_enum_objects(pool, collect, &seen);
    EXPECT_EQ(count, static_cast<int>(seen.size()));
    return seen;
}

Objects walk_by_next(unsigned pool)
{
    Objects seen;
    for (void *object = memm_getfirst(pool); object != nullptr; object = memm_getnext(object)) {
        seen.push_back(object);
    }
    return seen;
}

TEST(lookup, walks_agree_with_the_objects_in_use_with_and_without_an_index)
{
    for (const int count : {1, 256, 257, 5000}) {
        const unsigned pool = make_pool("", count);
        Objects by_index(static_cast<std::size_t>(count));
        std::mt19937 random(static_cast<unsigned>(count));
        for (const double wanted : {1.0, 0.01, 0.6, 0.0, 0.001, 0.3}) {
            for (auto &object : by_index) {
                const bool keep = static_cast<double>(random()) < wanted * 4294967296.0;
                if (!keep && object != nullptr) {
                    memm_free(object);
                    object = nullptr;
                }
            }
            while (pool_at(pool).cur_count < static_cast<int>(wanted * count)) {
                void *object = memm_calloc(pool);
                by_index[static_cast<std::size_t>(memm_getindex(object))] = object;
            }
            Objects expected;
            for (std::size_t i = 0; i < by_index.size(); ++i) {
                if (by_index[i] != nullptr) {
                    expected.push_back(by_index[i]);
                }
                ASSERT_EQ(memm_getobject_byindex(pool, static_cast<int>(i)), by_index[i]);
            }
            EXPECT_EQ(walk_by_enum(pool), expected);
            EXPECT_EQ(walk_by_next(pool), expected);
            EXPECT_EQ(memm_enum_objects(pool, nullptr, nullptr), expected.empty() ? 0 : 1);
        }
    }
}

// Each visitor changes the pool under the walk: what lies behind the walk is not seen, what lies ahead is.
TEST(lookup, walks_follow_what_their_callbacks_do)
{
    static unsigned pool;
    for (const int count : {8, 300}) {
        pool = make_pool(count == 8 ? "few" : "many", count);
        Objects o;
        for (int i = 0; i < 6; ++i) {
            o.push_back(memm_calloc(pool));
        }
        static Objects seen;
        seen.clear();
        const auto visit = [](void *object, void *all) {
            const Objects &objects = *static_cast<Objects *>(all);
            seen.push_back(object);
            memm_free_nolock(object);  // itself
            if (object == objects[1]) {
                memm_free_nolock(objects[2]);  // the next one
                memm_calloc_nolock(pool);      // takes slot 0, behind
            } else if (object == objects[3]) {
                memm_free_nolock(objects[5]);  // the last one: last_used moves down
            } else if (object == objects[4]) {
                for (int i = 0; i < 6; ++i) {
                    memm_calloc_nolock(pool);  // up to slot 6
                }
            }
            return static_cast<int>(memm_getindex(object) < 6);
        };
        EXPECT_EQ(memm_enum_objects_nolock(pool, visit, &o), 6);
        void *const after_last = static_cast<char *>(o[5]) + pool_at(pool).slot_size;
        EXPECT_EQ(seen, (Objects{o[0], o[1], o[3], o[4], o[5], after_last}));
    }
}

int matches_index(void *object, int wanted) { return memm_getindex(object) == wanted; }

TEST(lookup, search_and_enumeration_stop_where_the_callback_says)
{
    const unsigned pool = make_pool("search", 5);
    Objects o;
    for (int i = 0; i < 5; ++i) {
        o.push_back(memm_calloc(pool));
    }
    memm_free(o[1]);
    EXPECT_EQ(memm_search(pool, 3, matches_index), o[3]);
    EXPECT_EQ(memm_search(pool, 1, matches_index), nullptr);
    int left = 3;
    const auto stop_at_third = [](void *, void *counter) { return --*static_cast<int *>(counter); };
    EXPECT_EQ(memm_enum_objects(pool, stop_at_third, &left), 3);
    recorder().take_tags();
    memm_search(pool, 0, nullptr);
    memm_getfirst(pool);
    memm_getnext(o[0]);
    memm_enum_objects(pool, nullptr, nullptr);
    memm_enum_objects_nolock(pool, nullptr, nullptr);
    memm_getindex(o[0]);
    memm_getobject_byindex(pool, 0);
    memm_isvalidobj(o[0]);
    memm_isvalidobj_nolock(o[0]);
    EXPECT_EQ(recorder().take_tags(),
              (Strings{"memm_search", "memm_getfirst", "memm_getnext", "memm_enum_objects", "memm_getindex"}));
}

TEST(lookup, no_pointer_and_no_id_crashes_or_passes_for_an_object)
{
    EXPECT_EQ(memm_isvalidobj("before the start"), 0);
    EXPECT_EQ(memm_getfirst(0), nullptr);
    const unsigned pool = make_pool("strict", 4), other = make_pool("other", 4);
    const unsigned bare = make_pool_without_slots(other + 1);
    const auto take = [pool] { return static_cast<unsigned char *>(memm_calloc(pool)); };
    auto *const object = take(), *const released = take();
    void *const foreign = memm_calloc(other);
    memm_free(released);
    auto *const guarded =
        static_cast<unsigned char *>(mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    unsigned stack[4] = {pool, pool, bare, 0};  // as if objects of these pools stood here
    static unsigned below_the_heap[2];
    below_the_heap[0] = pool;

    Objects bad = {nullptr, released, released + 24, object + 1, object + 6, guarded, guarded + 4, guarded + 4096};
    bad.insert(bad.end(), {&below_the_heap[1], &stack[1], &stack[2], &stack[3], reinterpret_cast<void *>(&raise)});
    bad.push_back(reinterpret_cast<void *>(~std::uintptr_t{0}));
    for (std::uintptr_t small = 1; small <= 8; ++small) {
        bad.push_back(reinterpret_cast<void *>(small));
    }
    for (void *pointer : bad) {
        EXPECT_EQ(memm_isvalidobj(pointer), 0) << pointer;
        EXPECT_EQ(memm_getnext(pointer), nullptr) << pointer;
        memm_getindex(pointer);
    }
    EXPECT_EQ(memm_getindex(nullptr), 0);
    EXPECT_EQ(memm_getindex(&stack[3]), 0) << "the pool has no slots";
    // Deliberate: neither the slot's boundary nor its use is looked at. A walk does not go on from there.
    reinterpret_cast<unsigned *>(object)[1] = pool;
    memm_calloc(pool);
    void *const third = memm_calloc(pool);
    EXPECT_EQ(memm_isvalidobj(object + 8), 1);
    EXPECT_EQ(memm_getnext(object + 8), nullptr);
    EXPECT_NE(memm_getnext(object), nullptr);
    EXPECT_EQ(memm_getnext(foreign), nullptr) << "not one of another pool";

    EXPECT_EQ(memm_getobject_byindex(pool, 4), nullptr);
    EXPECT_EQ(memm_getobject_byindex(pool, -1), nullptr);
    header_of(object) |= 0x05800000;  // tag and references
    EXPECT_EQ(memm_getobject_byindex(pool, 0), object);
    header_of(third) = other;
    EXPECT_EQ(memm_getobject_byindex(pool, 2), nullptr);
    for (const unsigned id : {bare, bare + 1, 0x7fffffU, 0xffffffffU}) {
        EXPECT_EQ(memm_getfirst(id), nullptr);
        EXPECT_EQ(memm_getobject_byindex(id, 0), nullptr);
        EXPECT_EQ(memm_search(id, 0, matches_index), nullptr);
        EXPECT_EQ(memm_enum_objects(id, nullptr, nullptr), 0);
    }
    munmap(guarded, 4096);
}

TEST(lookup, tagging_marks_the_objects_of_selected_pools_and_nothing_else)
{
    const unsigned first = make_pool("tag.a", 4), empty = make_pool("tag.b", 400), other = make_pool("Tag", 4);
    make_pool_without_slots(other + 1);
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
    void *const late = memm_calloc(empty);
    memm_tag_objects("tag", nullptr);
    EXPECT_EQ(recorder().take_debug(), "untagged 2 object(s) in pool tag.a\r\nuntagged 1 object(s) in pool tag.b\r\n");
    EXPECT_EQ(header_of(plain), first);
    EXPECT_EQ(header_of(shared), 0x1000000U | first);
    EXPECT_EQ(header_of(late), empty);
    memm_tag_objects(nullptr, &mark);
    const std::string all = recorder().take_debug();
    EXPECT_EQ(all.find("tagged " + std::to_string(pool_at(0).cur_count) + " object(s) in pool memm_pooldesc\r\n"), 0U);
    EXPECT_NE(all.find("tagged 1 object(s) in pool Tag\r\n"), std::string::npos);
    memm_tag_objects("no such pool", &mark);
    EXPECT_EQ(recorder().take_debug(), "");
}

}  // namespace
