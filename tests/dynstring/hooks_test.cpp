#include "small_pool.h"

#include <memmanager/platform.h>

namespace {

using memm::strings::TextPool;

memm_pooloptions hooks_of(const SmallPool &pool) { return memm_get_pool_nolock(pool.id())->options; }

#define DAMAGE(statement)                                                                                              \
    []([[maybe_unused]] TextPool &pool, [[maybe_unused]] dynstr &one, [[maybe_unused]] dynstr &two) { statement; }
struct Damage {
    void (*make)(TextPool &pool, dynstr &one, dynstr &two);
    std::string expected;
};

TEST(reports, show_every_record_and_buffer)
{
    const SmallPool pool(400, 2);
    const std::string text47(47, 'x');
    std::string expected = "Checking dynstr pool ''\r\n + alloc-list buffer 0: ";
    const auto add = [&expected](const dynstr *record, const std::string &shown) {
        expected += text("\r\n%08lx - ", reinterpret_cast<unsigned long>(record->str)) + shown;
        return record;
    };
    add(pool.make("abc", 9), "bnr=0, maxsize=9, size=4, data='abc'");
    add(pool.make(text47.c_str()), "bnr=0, maxsize=0, size=48, data='" + text47 + "'");
    add(pool.make((text47 + "y").c_str()), "bnr=0, maxsize=0, size=49, data='" + text47 + "...'");
    dynstr *const deleted = pool.make("xyz");
    memm_free(const_cast<dynstr *>(add(deleted, "bnr=0, maxsize=0, size=4, deleted, data='xyz'")));
    EXPECT_EQ(dynstr_integrity_check(pool.id(), 1), 1);
    EXPECT_EQ(recorder().take_debug(),
              expected + "--> cnt=4, delcnt=1\r\n + alloc-list buffer 1: --> cnt=0, delcnt=0\r\n");
    const memm_pooloptions hooks = hooks_of(pool);
    hooks.print_cb(pool.make());
    hooks.print_cb(dynstr_fromliteral(pool.id(), "lit"));
    EXPECT_EQ(recorder().take_debug(), " - bnr=-1, maxsize=0, size=0, literal, data=''"
                                       " - bnr=-1, maxsize=0, size=4, literal, data='lit'");
    EXPECT_EQ(hooks.filter_cb(deleted, 3), 1);
    EXPECT_EQ(hooks.filter_cb(deleted, 4), 0);

    for (const int attempt : {0, 1})
        hooks.gc_cb(hooks.cookie, attempt, 0);
    int live = 5, peak = 6, capacity = 7;
    hooks.stats_cb(hooks.cookie, nullptr, nullptr, nullptr, dbg_printf);
    hooks.stats_cb(hooks.cookie, &live, &peak, &capacity, dbg_printf);
    EXPECT_EQ(std::tuple(live, peak, capacity), std::tuple(106, 111, 407));
    EXPECT_EQ(recorder().take_debug(),
              "                            gc_cnt:2, tot/avg/max:1/0/1 dynstr, 4/2/4 bytes\r\n"
              "  - string buffer 1, gc reason ctx_balance/ctx_depleted/buffer_full:   0%/ 50%/  0%\r\n"
              "  - string buffer 2, gc reason ctx_balance/ctx_depleted/buffer_full:   0%/ 50%/  0%\r\n"
              "\r\n  - 2 buffers             gc cnt:             2      101,   105,   400  (  26%)   curr: 25%"
              "\r\n  ->string buffer 1,  # used/del:      3,     0      101,   105,   200  (  52%)   curr: 50% - 3"
              "\r\n  - string buffer 2,  # used/del:      0,     0        0,     0,   200  (   0%)   curr:  0% - 0");
}

TEST(integrity_check, names_every_fault)
{
    const std::string order = "\r\n  - E: next->str >= curr->str, ", no_next = "\r\n  - E: !next && last != curr, ",
                      literal = "\r\n  - E: literal pstr found, ";
    const Damage cases[] = {
        {DAMAGE(pool.first[0] = nullptr), "\r\n  - E: buffer 0 has no first dynstr but has used bytes, "},
        {DAMAGE(pool.last[0] = nullptr), "\r\n  - E: buffer 0 has no last dynstr but has used bytes, " + no_next},
        {DAMAGE(++pool.used[0]), "\r\n  - E: buffer 0 used bytes doesn't match last dynstr, "},
        {DAMAGE(one.prev = &two), "\r\n  - E: first has nonzero prev, "},
        {DAMAGE(one.info |= 2U << 16), "\r\n  - E: DYNSTR_MAXSIZE(2) < DYNSTR_SIZE(4), "},
        {DAMAGE(two.info += 5), "\r\n  - E: DYNSTR_SIZE(9) != strlen+1(4, 'two'), "},
        {DAMAGE(two.prev = nullptr), "\r\n  - E: next->prev != curr, "},
        {DAMAGE(two.info |= 1U << 27), "\r\n  - E: curr has wrong buffernr, "},
        {DAMAGE(two.info |= 1U << 31), literal},
        {DAMAGE(two.str = nullptr), order + "\r\n  - E: DYNSTR_SIZE(4) != strlen+1(0, ''), " + literal},
        {DAMAGE(one.next = nullptr), no_next},
    };
    for (const Damage &damage : cases) {
        const SmallPool pool;
        dynstr *const one = pool.make("one"), *const two = pool.make("two");
        pool.make("six");
        damage.make(*static_cast<TextPool *>(hooks_of(pool).cookie), *one, *two);
        EXPECT_EQ(dynstr_integrity_check(pool.id(), 0), 0);
        EXPECT_EQ(recorder().take_debug(), damage.expected);
    }
}

}  // namespace
