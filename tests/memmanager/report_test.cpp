#include "support/pools.h"
#include "support/recording_platform.h"

#include <memmanager/memmanager.h>
#include <memmanager/platform.h>
#include <gtest/gtest.h>

namespace {

constexpr const char *kHeader =
    " pool name                 count: cur,max,avail   bytes: cur,max,avail  (max.%)   ref cur,max,avail \r\n"
    " ---------                 --------------------   -----------------------------   ----------------- \r\n";
constexpr const char *kTotalLine =
    " ----------------------                           ----------------------------  \r\n";

// Slots of 16 bytes for both word sizes.
unsigned make_small_pool(const char *name, int count, const memm_pooloptions &options = {})
{
    return make_pool(name, count, 12, options);
}

// "id.name.index.address", as every report names an object.
std::string identity(void *object)
{
    return text("%d.%s.%d.0x%08lx", memm_get_poolid(object), memm_get_poolname(object), memm_getindex(object),
                reinterpret_cast<unsigned long>(object));
}

std::string statistics_of(const char *prefix)
{
    recorder().take_debug();
    memm_print_stats(prefix);
    return recorder().take_debug();
}

std::string objects_of(const char *prefix, int level = 0)
{
    recorder().take_debug();
    memm_print_objects2(prefix, level);
    return recorder().take_debug();
}

void add_outside_bytes(void *cookie, int *a, int *b, int *c, memm_printf_fn print)
{
    *a += 1000;
    *b += 2000;
    *c += 4000;
    print("+%s", static_cast<const char *>(cookie));
}

TEST(statistics, rows_and_totals_to_the_last_character)
{
    static char cookie[] = "cookie";
    memm_pooloptions options{};
    options.stats_cb = add_outside_bytes;
    options.cookie = cookie;
    const unsigned plain = make_small_pool("r_plain", 10), full = make_small_pool("r_full", 2, options),
                   based = make_small_pool("r_based", 20);
    make_small_pool("a name that is longer than any column", 1);
    void *const shared = memm_calloc(plain);
    memm_free(memm_calloc(plain));
    for (int i = 0; i < 3; ++i) {
        memm_refalloc(shared);
    }
    memm_free(shared);
    void *const first = memm_calloc(full);
    memm_calloc(full);
    EXPECT_EQ(memm_calloc(full), nullptr);
    EXPECT_EQ(recorder().take_errors(),
              "0x10002 2 memm memmanager: memm_calloc() failed for pool 'r_full' (pool depleted)\n");
    EXPECT_EQ(recorder().take_trace(), "memm_calloc() failed for pool 'r_full' (pool depleted)");
    memm_free(first);
    int base = 10;
    memm_get_currentcount_ptr(based, &base, nullptr);
    for (int i = 0; i < 12; ++i) {
        memm_calloc(based);
    }
    memm_free(memm_calloc(based));

    recorder().take_tags();
    EXPECT_EQ(
        statistics_of("r_"),
        std::string(kHeader) +
            " r_plain                        1,     2,    10       16,    32,   160  (  20%)       2,    3,    -  \r\n"
            " r_full                         1,     2,     2       16,    32,    32  (>100%)       0,    0,    -  "
            "+cookie\r\n"
            " r_based                        2,     3,    20       32,    48,   320  (  15%)       0,    0,    -  "
            "\r\n" +
            kTotalLine +
            " Total usage                                        1064,  2112,  4512  (  46%)\r\n"
            "\r\n");
    EXPECT_EQ(statistics_of("a name"),
              std::string(kHeader) +
                  " a name that is longer than any column      0,     0,     1        0,     0,    16  (   0%)       "
                  "0,    0,    -  \r\n" +
                  kTotalLine +
                  " Total usage                                           0,     0,    16  (   0%)\r\n\r\n");
    EXPECT_EQ(statistics_of("no such pool"), "\r\n");
    EXPECT_EQ(recorder().take_tags(), (std::vector<std::string>(3, "memm_print_stats")));

    const memm_pool &table = pool_at(0);
    const int count = table.cur_count, bytes = static_cast<int>(table.slot_size);
    const int used = count * bytes, all = 40 * bytes, percent = count * 100 / 40;
    EXPECT_EQ(statistics_of("memm_pooldesc"),
              kHeader +
                  text(" memm_pooldesc             %6d,%6d,    40   %6d,%6d,%6d  ( %3d%%)     obj:    3,  255  ", count,
                       count, used, used, all, percent) +
                  "\r\n" + kTotalLine +
                  text(" Total usage                                      %6d,%6d,%6d  ( %3d%%)\r\n\r\n", used, used,
                       all, percent));
}

TEST(statistics, products_are_cut_to_32_bits_and_nothing_is_divided_by_zero)
{
    const unsigned id = make_small_pool("wide", 10);
    memm_pool &pool = pool_at(id);
    int base = -1;
    memm_get_currentcount_ptr(id, &base, nullptr);
    pool.max_count_rel = 2000000000;
    const std::string report = statistics_of("wide");
    EXPECT_NE(report.find(
                  " wide                           1,2000000000,    10       16,1935228928,   160  ( -1474836480%)   "),
              std::string::npos)
        << report;
    EXPECT_NE(report.find("    16,1935228928,   160  ( 1209518080%)\r\n"), std::string::npos) << report;
}

TEST(statistics, go_to_the_callers_print_function)
{
    make_small_pool("own", 1);
    const std::string expected = statistics_of("own");
    memm_print_stats2("own", trc_def_printf);
    EXPECT_EQ(recorder().take_trace(), expected);
    EXPECT_EQ(recorder().take_debug(), "");
    recorder().take_tags();
    memm_print_stats2("own", nullptr);
    EXPECT_EQ(recorder().take_tags(), std::vector<std::string>{});
    recorder().fail_nth(Op::alloc, 1);
    EXPECT_EQ(memm_initpool("gone", 1, 8, nullptr), -1);
    recorder().take_trace();
    EXPECT_EQ(statistics_of("gone"), "\r\n") << "a pool without slots has no row";
    EXPECT_EQ(statistics_of("").find("null"), std::string::npos);
    EXPECT_NE(objects_of("").find(" - '(null)'\r\n\r\n"), std::string::npos) << "only its descriptor is listed";
}

void print_value(void *object) { dbg_printf(" = %d", *static_cast<int *>(object)); }

int is_even_or_level_4(void *object, int level) { return *static_cast<int *>(object) % 2 == 0 || level == 4; }

TEST(object_listing, shows_what_level_and_filter_let_through)
{
    memm_pooloptions options{};
    options.print_cb = print_value;
    options.filter_cb = is_even_or_level_4;
    options.stats_cb = add_outside_bytes;
    static char cookie[] = " more";
    options.cookie = cookie;
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

    const std::string title = "l_pool....................usage cur/max/avail (max.%): 3/4/8 (50%)+ more\r\n";
    const std::string others = "l_a name of twenty-seven chusage cur/max/avail (max.%): 0/0/1 (0%)\r\n\r\n"
                               "l_a name of twenty-five c.usage cur/max/avail (max.%): 0/0/1 (0%)\r\n\r\n\r\n";
    const std::string even = " " + identity(objects[0]) + " = 0\r\n", odd = " " + identity(objects[3]) + " = 3\r\n";
    const std::string tagged = " " + identity(objects[2]) + ".[3 refs].[tagged] = 2\r\n";
    recorder().take_tags();
    EXPECT_EQ(objects_of("l_"), title + even + "\r\n" + others);
    EXPECT_EQ(objects_of("l_", 4), title + even + odd + "\r\n" + others);
    EXPECT_EQ(objects_of("l_", 2), title + tagged + "\r\n" + others);
    EXPECT_EQ(objects_of("l_", 6), title + tagged + "\r\n" + others);
    EXPECT_EQ(recorder().take_tags(), std::vector<std::string>(4, "memm_print_objects"));
    memm_print_objects("no such pool");
    EXPECT_EQ(recorder().take_debug(), "\r\n");

    pool_at(pool).cur_count = 7;
    EXPECT_EQ(objects_of("l_pool"),
              "l_pool....................usage cur/max/avail (max.%): 7/4/8 (50%)+ more\r\n" + even +
                  "\r\n[MEMM] ERROR: actual object count (3) differs from pool count (7)\r\n\r\n");
}

TEST(printed_object, is_named_whatever_the_pointer_is)
{
    memm_pooloptions options{};
    options.print_cb = print_value;
    const unsigned pool = make_small_pool("p", 8, options);
    auto *const object = static_cast<int *>(memm_calloc(pool));
    auto *const released = static_cast<int *>(memm_calloc(pool));
    memm_free(released);
    *object = 42;
    const auto print = [](void *pointer, int contents) {
        memm_printobject(pointer, contents);
        return recorder().take_debug();
    };
    const std::string name = identity(object);
    recorder().take_tags();
    EXPECT_EQ(print(object, 0), name);
    EXPECT_EQ(print(object, 1), name + " = 42");
    EXPECT_EQ(recorder().take_tags(), std::vector<std::string>(2, "memm_printobject"));
    memm_refalloc(object);
    EXPECT_EQ(print(object, 0), name + ".[2 refs]");
    EXPECT_EQ(print(nullptr, 1), "0x0: null");
    EXPECT_EQ(print(reinterpret_cast<void *>(5), 1), "?.?.?.0x00000005: invalid object");
    EXPECT_EQ(print(released, 1), text("?.?.?.0x%08lx: invalid object", reinterpret_cast<unsigned long>(released)));
}

TEST(integrity, findings_are_traced_slot_by_slot_and_change_nothing)
{
    const unsigned pool_id = make_small_pool("i_pool", 5);
    memm_pool &pool = pool_at(pool_id);
    void *objects[3];
    for (void *&object : objects) {
        object = memm_calloc(pool_id);
    }
    const auto traced = [] {
        memm_print_stats("none");
        return recorder().take_trace();
    };
    EXPECT_EQ(traced(), "");

    const std::string above = "[MEMM] pool 'i_pool' has item in use > ppool>last_use\r\n";
    const std::string below = "[MEMM] pool 'i_pool' has free item < ppool->first_free\r\n";
    const std::string beyond = "[MEMM] pool 'i_pool' has last_used > last_item\r\n";
    unsigned char *const last_used = pool.last_used;
    pool.last_used = pool.slots;
    EXPECT_EQ(traced(), above + above);
    pool.last_used = last_used;
    pool.first_free = pool.last_item + pool.slot_size;
    EXPECT_EQ(traced(), below + below);
    pool.first_free = pool.slots;
    pool.last_used = pool.last_item + 1;
    EXPECT_EQ(traced(), beyond + beyond + beyond + beyond + beyond);
    memm_set_trace(1);
    EXPECT_EQ(traced(), "");
    memm_set_trace(2);

    // The first wrong header ends the check; the slot's own other findings are not traced.
    header_of(objects[1]) ^= 1;
    const std::string wrong = text("[MEMM] integrity check failed: invalid poolid: %u.i_pool.1.0x%08lx\r\n", pool_id,
                                   reinterpret_cast<unsigned long>(&header_of(objects[1])));
    EXPECT_EQ(traced(), beyond + wrong);
    memm_set_trace(1);
    EXPECT_EQ(traced(), wrong);
    memm_set_trace(0);
    EXPECT_EQ(traced(), "");
    header_of(objects[1]) ^= 1;
    pool.last_used = last_used;

    // References and the tag are not part of a pool's id.
    header_of(objects[0]) |= 0x81800000;
    memm_set_trace(2);
    EXPECT_EQ(traced(), "");
}

}  // namespace
