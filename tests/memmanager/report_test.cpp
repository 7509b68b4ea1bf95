#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/memmanager.h>
#include <memmanager/platform.h>
#include <gtest/gtest.h>
#include <type_traits>

namespace {

// Slots of 16 bytes for both word sizes.
unsigned make_small_pool(const char *name, int count, const memm_pooloptions &options = {})
{
    return make_pool(name, count, 12, options);
}

unsigned long address(void *object) { return reinterpret_cast<unsigned long>(object); }

// "id.name.index.address", as every report names an object.
std::string identity(void *object)
{
    return text("%d.%s.%d.0x%08lx", memm_get_poolid(object), memm_get_poolname(object), memm_getindex(object),
                address(object));
}

template <class... Arguments> std::string printed(void (*report)(Arguments...), std::type_identity_t<Arguments>... of)
{
    recorder().forget();
    report(of...);
    return recorder().take_debug();
}

void add_outside_bytes(void *cookie, int *a, int *b, int *c, memm_printf_fn print)
{
    *a += 1000;
    *b += 2000;
    *c += 4000;
    print("+%s", static_cast<const char *>(cookie));
}

memm_pooloptions with_outside_bytes()
{
    static char cookie[] = "cookie";
    memm_pooloptions options{};
    options.stats_cb = add_outside_bytes;
    options.cookie = cookie;
    return options;
}

TEST(statistics, rows_and_totals_to_the_last_character)
{
    const unsigned plain = make_small_pool("r_plain", 10), full = make_small_pool("r_full", 2, with_outside_bytes()),
                   based = make_small_pool("r_based", 20), wide = make_small_pool("wide", 10);
    make_small_pool("r_a name longer than any column", 1);
    void *const shared = memm_calloc(plain), *const first = memm_calloc(full);
    memm_free(memm_calloc(plain));
    for (int i = 0; i < 3; ++i)
        memm_refalloc(shared);
    memm_free(shared);
    memm_calloc(full);
    EXPECT_EQ(memm_calloc(full), nullptr);
    memm_free(first);
    int base = 10, negative = -1;
    memm_get_currentcount_ptr(based, &base, nullptr);
    for (int i = 0; i < 12; ++i)
        memm_calloc(based);
    memm_free(memm_calloc(based));
    memm_get_currentcount_ptr(wide, &negative, nullptr);
    pool_at(wide).max_count_rel = 2000000000;  // products are cut to 32 bits

    EXPECT_EQ(printed(memm_print_stats, "r_"), lines(R"(
 pool name                 count: cur,max,avail   bytes: cur,max,avail  (max.%)   ref cur,max,avail |
 ---------                 --------------------   -----------------------------   ----------------- |
 r_plain                        1,     2,    10       16,    32,   160  (  20%)       2,    3,    -  |
 r_full                         1,     2,     2       16,    32,    32  (>100%)       0,    0,    -  +cookie|
 r_based                        2,     3,    20       32,    48,   320  (  15%)       0,    0,    -  |
 r_a name longer than any column      0,     0,     1        0,     0,    16  (   0%)       0,    0,    -  |
 ----------------------                           ----------------------------  |
 Total usage                                        1064,  2112,  4528  (  46%)|
|
)"));
    EXPECT_EQ(recorder().take_tags(), std::vector<std::string>{"memm_print_stats"});
    EXPECT_EQ(printed(memm_print_stats, "no such pool"), "\r\n");
    const memm_pool &table = pool_at(0);
    const int count = table.cur_count, size = static_cast<int>(table.slot_size);
    const int used = count * size, all = 40 * size, percent = count * 100 / 40;
    const std::string report = printed(memm_print_stats, nullptr);
    for (const std::string &row :
         {text(" memm_pooldesc             %6d,%6d,    40   %6d,%6d,%6d  ( %3d%%)     obj:    3,  255  \r\n", count,
               count, used, used, all, percent),
          std::string(" wide                           1,2000000000,    10       16,1935228928,   160  "
                      "( -1474836480%)       0,    0,    -  \r\n")})
        EXPECT_NE(report.find("\n" + row), std::string::npos) << report;
}

TEST(statistics, go_to_the_callers_print_function_without_pools_that_have_no_slots)
{
    make_small_pool("own", 1);
    recorder().fail_nth(Op::alloc, 1);
    EXPECT_EQ(memm_initpool("own gone", 1, 8, nullptr), -1);
    const std::string expected = printed(memm_print_stats, "own");
    memm_print_stats2("own", trc_def_printf);
    EXPECT_EQ(recorder().take_trace(), expected);
    memm_print_stats2("own", nullptr);
    EXPECT_EQ(recorder().take_tags(), std::vector<std::string>(2, "memm_print_stats"));
    EXPECT_EQ(expected.find("gone"), std::string::npos);
    EXPECT_EQ(printed(memm_print_stats, "").find("null"), std::string::npos);
    EXPECT_NE(printed(memm_print_objects, "").find(" - '(null)'\r\n\r\n"), std::string::npos) << "its descriptor";
}

void print_value(void *object) { dbg_printf(" = %d", *static_cast<int *>(object)); }

int is_even_or_level_4(void *object, int level) { return *static_cast<int *>(object) % 2 == 0 || level == 4; }

TEST(object_listing, shows_what_level_and_filter_let_through)
{
    memm_pooloptions options = with_outside_bytes();
    options.print_cb = print_value;
    options.filter_cb = is_even_or_level_4;
    const unsigned pool = make_small_pool("l_pool", 8, options);
    make_small_pool("l_a name of twenty-seven ch", 1);
    make_small_pool("l_a name of twenty-five c", 1);
    int *objects[4];
    for (int i = 0; i < 4; ++i) {
        objects[i] = static_cast<int *>(memm_calloc(pool));
        *objects[i] = i;
    }
    memm_refalloc(objects[2]);
    memm_refalloc(objects[2]);
    memm_free(objects[1]);
    header_of(objects[2]) |= 0x800000;

    const std::string even = " " + identity(objects[0]) + " = 0\r\n", odd = " " + identity(objects[3]) + " = 3\r\n";
    const std::string tagged = " " + identity(objects[2]) + ".[3 refs].[tagged] = 2\r\n";
    for (const auto &[level, listed] : {std::pair{0, even}, {4, even + odd}, {2, tagged}, {6, tagged}}) {
        EXPECT_EQ(printed(memm_print_objects2, "l_", level),
                  "l_pool....................usage cur/max/avail (max.%): 3/4/8 (50%)+cookie\r\n" + listed + lines(R"(
|
l_a name of twenty-seven chusage cur/max/avail (max.%): 0/0/1 (0%)|
|
l_a name of twenty-five c.usage cur/max/avail (max.%): 0/0/1 (0%)|
|
|
)"));
        EXPECT_EQ(recorder().take_tags(), std::vector<std::string>{"memm_print_objects"});
    }
    EXPECT_EQ(printed(memm_print_objects, "no such pool"), "\r\n");
    pool_at(pool).cur_count = 7;
    EXPECT_EQ(printed(memm_print_objects, "l_pool"),
              "l_pool....................usage cur/max/avail (max.%): 7/4/8 (50%)+cookie\r\n" + even +
                  "\r\n[MEMM] ERROR: actual object count (3) differs from pool count (7)\r\n\r\n");

    // One object is named whatever the pointer is.
    const std::string name = identity(objects[3]);
    memm_refalloc(objects[3]);
    EXPECT_EQ(printed(memm_printobject, objects[3], 0), name + ".[2 refs]");
    EXPECT_EQ(recorder().take_tags(), std::vector<std::string>{"memm_printobject"});
    EXPECT_EQ(printed(memm_printobject, objects[3], 1), name + ".[2 refs] = 3");
    EXPECT_EQ(printed(memm_printobject, nullptr, 1), "0x0: null");
    for (void *const bad : {reinterpret_cast<void *>(5), static_cast<void *>(objects[1])})
        EXPECT_EQ(printed(memm_printobject, bad, 1), text("?.?.?.0x%08lx: invalid object", address(bad)));
}

TEST(integrity, findings_are_traced_slot_by_slot_and_change_nothing)
{
    const unsigned id = make_small_pool("i_pool", 5);
    memm_pool &pool = pool_at(id);
    void *const objects[] = {memm_calloc(id), memm_calloc(id), memm_calloc(id)};
    const auto traced = [](int level = 2) {
        memm_set_trace(level);
        memm_print_stats("none");
        return recorder().take_trace();
    };
    header_of(objects[0]) |= 0x81800000;  // references and the tag are not part of a pool's id
    EXPECT_EQ(traced(), "");

    const std::string above = "[MEMM] pool 'i_pool' has item in use > ppool>last_use\r\n";
    const std::string below = "[MEMM] pool 'i_pool' has free item < ppool->first_free\r\n";
    const std::string beyond = "[MEMM] pool 'i_pool' has last_used > last_item\r\n";
    pool.last_used = pool.slots;
    EXPECT_EQ(traced(), above + above);
    pool.last_used = pool.slots + 2 * pool.slot_size;
    pool.first_free = pool.last_item + pool.slot_size;
    EXPECT_EQ(traced(), below + below);
    pool.first_free = pool.slots;
    pool.last_used = pool.last_item + 1;
    EXPECT_EQ(traced(), beyond + beyond + beyond + beyond + beyond);
    EXPECT_EQ(traced(1), "");

    // The first wrong header ends the check; the slot's own other findings are not traced.
    header_of(objects[1]) ^= 1;
    const std::string wrong = text("[MEMM] integrity check failed: invalid poolid: %u.i_pool.1.0x%08lx\r\n", id,
                                   address(&header_of(objects[1])));
    EXPECT_EQ(traced(), beyond + wrong);
    EXPECT_EQ(traced(1), wrong);
    EXPECT_EQ(traced(0), "");
    header_of(objects[1]) ^= 1;
    pool.last_used = pool.slots + 2 * pool.slot_size;
}

}  // namespace
