#include "support/recording_platform.h"

#include "small_pool.h"

#include <memmanager/platform.h>
#include <cstring>

namespace {

using memm::strings::TextPool;

TextPool &control_of(const SmallPool &pool) { return const_cast<TextPool &>(pool.control()); }

memm_pooloptions hooks_of(const SmallPool &pool) { return memm_get_pool_nolock(pool.id())->options; }

std::string checked(const SmallPool &pool, int verbose, int expected)
{
    EXPECT_EQ(dynstr_integrity_check(pool.id(), verbose), expected);
    return recorder().take_debug();
}

#define DAMAGE(statement)                                                                                              \
    []([[maybe_unused]] TextPool &pool, [[maybe_unused]] dynstr &one, [[maybe_unused]] dynstr &two,                    \
       [[maybe_unused]] dynstr &three) { statement; }
struct Damage {
    void (*make)(TextPool &pool, dynstr &one, dynstr &two, dynstr &three);
    std::string expected;
};

std::string address(const dynstr *record) { return text("%08lx", reinterpret_cast<unsigned long>(record->str)); }

TEST(print_hook, shows_fields_and_the_first_47_characters)
{
    const SmallPool pool;
    const std::string text47(47, 'x');
    dynstr *const emptied = pool.make("gone"), *const deleted = pool.make("xyz");
    dynstr_setstring(emptied, "");
    memm_free(deleted);
    const std::pair<dynstr *, std::string> cases[] = {
        {pool.make(), " - bnr=-1, maxsize=0, size=0, literal, data=''"},
        {pool.make("abc", 9), " - bnr=0, maxsize=9, size=4, data='abc'"},
        {emptied, " - bnr=-1, maxsize=0, size=0, literal, data=''"},
        {dynstr_fromliteral(pool.id(), "lit"), " - bnr=-1, maxsize=0, size=4, literal, data='lit'"},
        {deleted, " - bnr=0, maxsize=0, size=4, deleted, data='xyz'"},
        {pool.make(text47.c_str()), " - bnr=0, maxsize=0, size=48, data='" + text47 + "'"},
        {pool.make((text47 + "y").c_str()), " - bnr=0, maxsize=0, size=49, data='" + text47 + "...'"},
    };
    for (const auto &[record, expected] : cases) {
        hooks_of(pool).print_cb(record);
        EXPECT_EQ(recorder().take_debug(), expected);
    }
    const memm_filter_fn filter = hooks_of(pool).filter_cb;
    for (int level = 0; level < 8; ++level) {
        EXPECT_EQ(filter(cases[1].first, level), 1);
        EXPECT_EQ(filter(deleted, level), level < 4 ? 1 : 0);
        EXPECT_EQ(filter(nullptr, level), level < 4 ? 1 : 0);
    }
}

TEST(statistics_hook, prints_both_layouts_and_adds_to_the_totals)
{
    const memm_stats_fn print = hooks_of(SmallPool()).stats_cb;
    dynstr third{}, second{.str = nullptr, .info = 0, .prev = nullptr, .next = &third};
    TextPool nothing{}, numbers{};
    nothing.bufcnt = 1;
    numbers.bufcnt = 2;
    numbers.gccnt = 7;
    numbers.gctotcnt = 4000000000U;
    numbers.gctotbytes = 69;
    numbers.gcmaxcnt = 20;
    numbers.gcmaxbytes = 33;
    numbers.gcreason[0][0] = 1;
    numbers.gcreason[1][1] = 4;
    numbers.gcreason[1][2] = 2;
    numbers.curbuf = 1;
    numbers.bufsize = 500000000;
    numbers.usedbytes = 600000100;
    numbers.delbytes = 100;
    numbers.peakbytes = 700000000;
    numbers.first[1] = &second;
    numbers.used[1] = 400000000;
    numbers.peak[1] = 450000000;
    numbers.cnt[1] = 9;
    numbers.bufdelcnt[1] = 1;
    numbers.bufdelbytes[1] = 100000000;
    int live = 5, peak = 6, capacity = 7;
    print(&nothing, nullptr, nullptr, nullptr, dbg_printf);
    print(&numbers, nullptr, nullptr, nullptr, dbg_printf);
    print(&nothing, &live, &peak, &capacity, dbg_printf);
    print(&numbers, &live, &peak, &capacity, dbg_printf);
    EXPECT_EQ(std::tuple(live, peak, capacity), std::tuple(600000005, 700000006, 1000000007));
    numbers.flags = 0x40000000U;
    print(&numbers, &live, &peak, &capacity, dbg_printf);
    const std::string buffers =
        " curr: 60%\r\n  - string buffer 1,  # used/del:      0,     0        0,     0,500000000  (   0%)   curr:  0% "
        "- 0"
        "\r\n  ->string buffer 2,  # used/del:      1,     1   300000000,450000000,500000000  (  90%)   curr: 60% - 9";
    const std::string gc = "\r\n  - 2 buffers             gc cnt:             7   600000000,700000000,1000000000  (";
    EXPECT_EQ(recorder().take_debug(),
              "                            gc_cnt:0, tot/avg/max:0/0/0 dynstr, 0/0/0 bytes\r\n"
              "                            gc_cnt:7, tot/avg/max:4000000000/571428571/20 dynstr, 69/9/33 bytes\r\n"
              "  - string buffer 1, gc reason ctx_balance/ctx_depleted/buffer_full:  14%/  0%/  0%\r\n"
              "  - string buffer 2, gc reason ctx_balance/ctx_depleted/buffer_full:   0%/ 57%/ 28%\r\n"
              "\r\n  - 1 buffers             gc cnt:             0        0,     0,     0  (   0%)   curr:  0%"
              "\r\n  ->string buffer 1,  # used/del:      0,     0        0,     0,     0  (   0%)   curr:  0% - 0" +
                  gc + "  70%)  " + buffers + gc + ">100%)  " + buffers);
}

TEST(integrity_check, lists_every_record_when_asked)
{
    const SmallPool pool;
    dynstr *const one = pool.make("one"), *const two = pool.make("two");
    memm_free(two);
    EXPECT_EQ(checked(pool, 0, 1), "");
    EXPECT_EQ(checked(pool, 1, 1), "Checking dynstr pool ''\r\n + alloc-list buffer 0: \r\n" + address(one) +
                                       " - bnr=0, maxsize=0, size=4, data='one'\r\n" + address(two) +
                                       " - bnr=0, maxsize=0, size=4, deleted, data='two'--> cnt=2, delcnt=1\r\n"
                                       " + alloc-list buffer 1: --> cnt=0, delcnt=0\r\n");
    one->info |= 2U << 16;
    EXPECT_EQ(checked(pool, 1, 0), "Checking dynstr pool ''\r\n + alloc-list buffer 0: \r\n" + address(one) +
                                       " - bnr=0, maxsize=2, size=4, data='one'"
                                       "\r\n  - E: DYNSTR_MAXSIZE(2) < DYNSTR_SIZE(4), \r\n" +
                                       address(two) +
                                       " - bnr=0, maxsize=0, size=4, deleted, data='two'\r\n  --> cnt=2, delcnt=1\r\n"
                                       " + alloc-list buffer 1: --> cnt=0, delcnt=0\r\n");
    memm_print_stats("no such pool");
    EXPECT_EQ(recorder().take_debug(), "\r\n  - E: DYNSTR_MAXSIZE(2) < DYNSTR_SIZE(4), "
                                       "[MEMM] dynstr integrity check failed: \r\n\r\n");

    const SmallPool unused;
    memm_free(unused.control().spare);
    for (const unsigned id : {unused.id(), 0U, 9999U})
        EXPECT_EQ(dynstr_integrity_check(id, 1), 1);
    EXPECT_EQ(recorder().take_debug(), "");
}

TEST(integrity_check, names_every_fault)
{
    const std::string order = "\r\n  - E: next->str >= curr->str, ", no_next = "\r\n  - E: !next && last != curr, ",
                      used = "\r\n  - E: buffer 0 used bytes doesn't match last dynstr, ",
                      literal = "\r\n  - E: literal pstr found, ";
    const Damage cases[] = {
        {DAMAGE(pool.first[0] = nullptr), "\r\n  - E: buffer 0 has no first dynstr but has used bytes, "},
        {DAMAGE(pool.last[0] = nullptr), "\r\n  - E: buffer 0 has no last dynstr but has used bytes, " + no_next},
        {DAMAGE(++pool.used[0]), used},
        {DAMAGE(pool.used[0] = 0), used},
        {DAMAGE(one.prev = &two), "\r\n  - E: first has nonzero prev, "},
        {DAMAGE(two.info += 5), "\r\n  - E: DYNSTR_SIZE(9) != strlen+1(4, 'two'), "},
        {DAMAGE(--three.info), used + "\r\n  - E: DYNSTR_SIZE(3) != strlen+1(4, '*DELETED_DYNSTR*'), "},
        {DAMAGE(two.prev = nullptr), "\r\n  - E: next->prev != curr, "},
        {DAMAGE(two.info |= 1U << 27), "\r\n  - E: curr has wrong buffernr, "},
        {DAMAGE(two.info |= 1U << 31), literal},
        {DAMAGE(two.str = nullptr), order + "\r\n  - E: DYNSTR_SIZE(4) != strlen+1(0, ''), " + literal},
        {DAMAGE(one.str = two.str), order},
        {DAMAGE(one.next = nullptr), no_next},
    };
    for (const Damage &damage : cases) {
        const SmallPool pool;
        dynstr *const one = pool.make("one"), *const two = pool.make("two"), *const six = pool.make("six");
        memm_free(six);
        damage.make(control_of(pool), *one, *two, *six);
        EXPECT_EQ(checked(pool, 0, 0), damage.expected);
    }
}

TEST(compaction, traces_what_does_not_add_up_and_goes_on)
{
    const std::string size = "[DYNSTR] loc_dynstr_gc strlen+1 != dynstr_size.\r\n",
                      fixed = "[DYNSTR] WARNING: loc_dynstr_gc fixed wrong ";
    const Damage cases[] = {
        {DAMAGE(), ""},
        {DAMAGE(two.info |= 1U << 27), "[DYNSTR] loc_dynstr_gc next_dynstr has wrong buffernr.\r\n"
                                       "[DYNSTR] loc_dynstr_gc curr_dynstr has wrong buffernr.\r\n"},
        {DAMAGE(two.info += 2), size + fixed + "stringsize.\r\n"},
        {DAMAGE(pool.bufdelbytes[0] = 99), fixed + "total gc'd bytes (99->6).\r\n"},
        {DAMAGE(pool.bufdelcnt[0] = 7), fixed + "total gc'd dynstr (7->2).\r\n"},
        {DAMAGE(one.info -= 2; three.str -= 4),
         size + "[DYNSTR] loc_dynstr_gc dynstr->str sort error.\r\n" + size + fixed + "total gc'd bytes (6->8).\r\n"},
    };
    for (const Damage &damage : cases) {
        for (const int level : {1, 0}) {
            const SmallPool pool(100, 1);
            dynstr *const a = pool.make("aa"), *const b = pool.make("bb"), *const c = pool.make("cc");
            dynstr *const d = pool.make("dd");
            memm_free(a);
            memm_free(c);
            damage.make(control_of(pool), *a, *b, *d);
            memm_set_trace(level);
            EXPECT_EQ(hooks_of(pool).gc_cb(&control_of(pool), 0, 0), 1);
            EXPECT_EQ(recorder().take_trace(), level == 1 ? damage.expected : "");
            EXPECT_EQ(hooks_of(pool).gc_cb(&control_of(pool), 1, 0), 0) << "each buffer once";
            EXPECT_EQ(pool.control().gctotcnt, 2U);
        }
    }
}

TEST(release_hook, explains_what_it_refuses)
{
    const SmallPool pool;
    int stranger = 0;
    EXPECT_EQ(hooks_of(pool).release_cb(nullptr), MEMM_E_INVALID);
    EXPECT_EQ(hooks_of(pool).release_cb(&stranger), MEMM_E_INVALID);
    EXPECT_EQ(recorder().take_trace(), "[DYNSTR] \"Failed to get buffer nr\"\r\n"
                                       "[DYNSTR] \"loc_dynstr_free_ex invalid param\"\r\n"
                                       "[DYNSTR] \"loc_dynstr_free_ex invalid param\"\r\n");
}

}  // namespace
