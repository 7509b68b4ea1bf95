// What the models leave open: the sizes of a pool's parts, texts of the long form, values that are written, reports,
// and the name of each fault.
#include "dynstring/text_pool.h"
#include "support/recording_platform.h"

#include <arpa/inet.h>

using memm::strings::Ahead;
using memm::strings::TextPool;

const memm_pooloptions &hooks_of(unsigned pool) { return pool_at(pool).options; }

dynstr *make(unsigned pool, const std::string &text = "", unsigned max = 0)
{
    dynstr *const string = dynstr_calloc_maxsize(pool, max);
    EXPECT_EQ(dynstr_setstring(string, text.c_str()), 0U);
    return string;
}

TEST(string_pools, divide_their_bytes_into_records_buffers_and_reserve)
{
    make_pool("", 1);
    const auto made = [](int id) {
        const memm_pool &pool = pool_at(id);
        const std::string blocks = recorder().take_allocations();
        return text("%d + %zd:", pool.slot_count, pool.options.spare_count) + blocks.substr(blocks.find("DYNSTR"));
    };
    EXPECT_EQ(made(dynstr_initpool("", 50, 1001)), "55 + 5:DYNSTR 1 500;DYNSTR 1 500;");
    EXPECT_EQ(made(dynstr_initpool("", 51, 8)), "71 + 20:DYNSTR 1 4;DYNSTR 1 4;");
    EXPECT_EQ(made(dynstr_initpool("", 10000, 8)), "10020 + 20:DYNSTR 1 4;DYNSTR 1 4;");
    EXPECT_EQ(made(dynstr_initpool("", 10001, 11)), "10021 + 20:DYNSTR 1 2;DYNSTR 1 2;DYNSTR 1 2;DYNSTR 1 2;");
    EXPECT_EQ(made(dynstr_initpool2("one", 1, 77, 1)), "6 + 5:DYNSTR 1 77;");
    EXPECT_EQ(made(dynstr_initpool2("", 7, 2, 3)), "12 + 5:DYNSTR 1 0;DYNSTR 1 0;DYNSTR 1 0;");
    EXPECT_EQ(recorder().take_errors(), "");
    EXPECT_EQ(made(dynstr_initpool2("", 7, 83, 5)), "12 + 5:DYNSTR 1 20;DYNSTR 1 20;DYNSTR 1 20;DYNSTR 1 20;");
    EXPECT_EQ(recorder().take_errors(), "0x10007 2 DYNSTR dynstring: dynstr_initpool(): poolcount exceeds maximum\n");
    EXPECT_EQ(dynstr_initpool2("none", 7, 83, 0), -1);
    EXPECT_EQ(dynstr_initpool2("one", 7, 83, 2), -1) << "the name is taken";
}

// Sizes of the short and the long form, of the longest text, and one more.
TEST(long_texts, are_held_up_to_134217727_bytes)
{
    constexpr unsigned kLong = 1U << 29, kMost = 134217727, kNoMemory = MEMM_E_NO_MEMORY;
    const unsigned pool = make_strings(kMost + 200000, 1, 20);
    const std::string most(kMost, 'x'), complaint = "[DYNSTR] loc_setstrsize with invalid size\r\n";
    const auto info_of = [](unsigned size) { return size > 65535 ? kLong | size : size; };
    for (const unsigned size : {65534U, 65535U, 65536U, 65537U, kMost}) {
        const char *const written = most.c_str() + (kMost - (size - 1));
        const bool is_longest = size == kMost;
        dynstr *const d = dynstr_fromstring(pool, written);
        ASSERT_NE(d, nullptr) << size;
        EXPECT_EQ(d->info, info_of(size));
        EXPECT_TRUE(dynstr_strlen(d) == size - 1 && dynstr_strcmp2(d, written) == 0);
        EXPECT_EQ(dynstr_addstring(d, "y"), is_longest ? kNoMemory : 0U) << "in place";
        EXPECT_EQ(d->info, is_longest ? 1U << 31 : info_of(size + 1));
        EXPECT_EQ(recorder().take_trace(), is_longest ? complaint : "");
        if (size == 65537) {
            EXPECT_TRUE(dynstr_setmaxsize(d, 65536) == 0 && d->info == (kLong | 65536)) << "has no limit";
            EXPECT_TRUE(dynstr_setmaxsize(d, 100) == 0 && d->info == (100U << 16 | 100U));
        }
        memm_free(d);
        hooks_of(pool).gc_cb(hooks_of(pool).cookie, 0, 0);
    }
    EXPECT_TRUE(dynstr_fromstring(pool, most.c_str()) == nullptr && dynstr_fromliteral(pool, most.c_str()) == nullptr);
    EXPECT_EQ(recorder().take_trace(), complaint + complaint);
}

TEST(values, are_written_as_their_readers_want_them)
{
    constexpr unsigned char kBytes[] = {0x01, 0xff, 0x2a, 0x00, 0xB2, 0x60};
    const unsigned id = make_strings();
    dynstr *const dates[] = {make(id), make(id)}, *const cut = make(id, "", 8), *string = nullptr, *part = nullptr;
    EXPECT_EQ(dynstr_setutcdatetime(dates[0], 0) + dynstr_setutcdatetime(dates[1], UINT_MAX) +
                  dynstr_sethexstring(cut, kBytes, 5),
              0U);
    EXPECT_STREQ(dynstr_fromprintf(id, "%ls", L"\x1234")->str, "") << "no such character";
    _dynstr_ex_fromprintf(id, &string, "%d %s", "file", 1, 7, "seven");
    _dynstr_ex_fromsubstring(id, &part, "abcd", 1, 2, "file", 1);
    std::string written;
    for (dynstr *const made :
         {dates[0], dates[1], string, part, dynstr_fromulong(id, UINT_MAX), dynstr_fromlong(id, INT_MIN),
          dynstr_fromipaddr(id, inet_addr("1.2.3.4")), dynstr_frommacaddr(id, kBytes),
          dynstr_hexstringfromdata(id, kBytes, 2), dynstr_hexstringfromdata(id, nullptr, 5), cut})
        written += dynstr_getstring(made) + std::string(";");
    EXPECT_EQ(written, "0001-01-01T00:00:00Z;2106-02-07T06:28:15Z;7 seven;bc;4294967295;-2147483648;1.2.3.4;"
                       "01:ff:2a:00:b2:60;01ff;;01ff2a;");
}

TEST(string_reports, show_every_record_and_buffer)
{
    const unsigned pool = make_strings(400);
    const std::string text47(47, 'x');
    std::string expected = "Checking dynstr pool ''\r\n + alloc-list buffer 0: ";
    const auto add = [&](dynstr *record, const std::string &shown) {
        expected += text("\r\n%08lx - bnr=0, maxsize=", address(record->str)) + shown;
        return record;
    };
    add(make(pool, "abc", 9), "9, size=4, data='abc'");
    add(make(pool, text47), "0, size=48, data='" + text47 + "'");
    add(make(pool, text47 + "y"), "0, size=49, data='" + text47 + "...'");
    dynstr *const deleted = add(make(pool, "xyz"), "0, size=4, deleted, data='xyz'");
    memm_free(deleted);
    EXPECT_EQ(dynstr_integrity_check(pool, 1), 1);
    EXPECT_EQ(recorder().take_debug(),
              expected + "--> cnt=4, delcnt=1\r\n + alloc-list buffer 1: --> cnt=0, delcnt=0\r\n");
    const memm_pooloptions hooks = hooks_of(pool);
    hooks.print_cb(make(pool));
    hooks.print_cb(dynstr_fromliteral(pool, "lit"));
    EXPECT_EQ(recorder().take_debug(), " - bnr=-1, maxsize=0, size=0, literal, data=''"
                                       " - bnr=-1, maxsize=0, size=4, literal, data='lit'");
    EXPECT_TRUE(hooks.filter_cb(deleted, 3) == 1 && hooks.filter_cb(deleted, 4) == 0);

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

TEST(string_pools, refuse_what_is_not_theirs_and_what_finds_no_record)
{
    const unsigned pool = make_strings(400, 1, 3);
    dynstr *const string = make(pool, "text"), *const last = make(pool, "last");
    void *last_record = nullptr;
    while (void *const record = memm_calloc_nolock_nogc(pool))
        last_record = record;
    const auto *const bytes = reinterpret_cast<const unsigned char *>("ab");
    for (const unsigned result :
         {dynstr_setstring(string, "n"), dynstr_setsubdynstr(string, last, 0, 1), dynstr_setulong(string, 1),
          dynstr_sethexstring(string, bytes, 2), dynstr_sprintf(string, "%d", 1), dynstr_reset(string),
          dynstr_addstring(string, "n"), dynstr_setmaxsize(string, 2)})
        EXPECT_EQ(result, unsigned{MEMM_E_NO_MEMORY});
    EXPECT_STREQ(dynstr_getstring(string), "text");
    EXPECT_TRUE(dynstr_addstring(last, ".") == 0 && dynstr_strcmp2(last, "last.") == 0) << "needs no record";
    EXPECT_TRUE(memm_free(last_record) == 0 && dynstr_hexstringfromdata(pool, bytes, 2) != nullptr) << "needs one";

    const memm_pooloptions hooks = hooks_of(pool);
    recorder().forget();
    const std::vector answers{hooks.release_cb(nullptr), hooks.release_cb(memm_calloc(make_pool("", 1))),
                              hooks.release_cb(string), hooks.release_cb(string)};
    EXPECT_EQ(answers, (std::vector<int>{MEMM_E_INVALID, MEMM_E_INVALID, MEMM_KEPT, MEMM_E_INVALID}));
    EXPECT_EQ(recorder().take_trace(), "[DYNSTR] \"Failed to get buffer nr\"\r\n"
                                       "[DYNSTR] \"loc_dynstr_free_ex invalid param\"\r\n"
                                       "[DYNSTR] \"loc_dynstr_free_ex invalid param\"\r\n"
                                       "[DYNSTR] loc_dynstr_free_ex: dynstr is already freed\r\n");
    EXPECT_TRUE(hooks.filter_cb(nullptr, 3) == 1 && hooks.filter_cb(nullptr, 4) == 0 &&
                hooks.gc_cb(nullptr, 0, 0) == 0);
    memm_set_trace(0);
    EXPECT_TRUE(dynstr_setstring(string, "n") + dynstr_reset(string) == 2 * MEMM_E_INVALID) << "it is released";
    EXPECT_EQ(hooks.release_cb(nullptr) == MEMM_E_INVALID ? recorder().take_trace() : "none", "");

    const memm_pooloptions cookie_alone{.cookie = hooks.cookie};
    const auto small = static_cast<unsigned>(memm_initpool("small", 4, sizeof(dynstr) / 2, &cookie_alone));
    EXPECT_TRUE(dynstr_fromliteral(small, "text") == nullptr && dynstr_fromstring(small, "text") == nullptr)
        << "no record fits";
}

struct Damaged {
    TextPool &pool;
    dynstr &one, &two;
};

// For good, whether the old text lies in a buffer or with the caller.
TEST(an_append_that_finds_no_block, leaves_the_old_text_with_the_stand_by_record)
{
    const unsigned pool = make_strings(400, 1, 20);
    dynstr *const own = make(pool, "own"), *const literal = dynstr_fromliteral(pool, "literal");
    const std::string long_text(500, 'x');
    for (dynstr *const d : {own, literal}) {
        const int used = pool_at(pool).cur_count;
        recorder().fail_nth(Op::getmem, 1);
        EXPECT_EQ(dynstr_addstring(d, long_text.c_str()), unsigned{MEMM_E_NO_MEMORY});
        EXPECT_EQ(std::exchange(fault, nullptr)(Op::getmem), 0);
        EXPECT_STREQ(dynstr_getstring(d), "");
        EXPECT_EQ(pool_at(pool).cur_count, used + 1);
    }
}

// One record in each word of an index whose slots are all in use, and texts of the long form behind released ones.
TEST(compaction, gives_back_the_records_of_a_large_pool_and_keeps_long_texts)
{
    const unsigned pool = make_strings(400'000, 1, 600);
    const memm_pool &records = pool_at(pool);
    const auto text_of = [](std::size_t i) {
        return std::string(i == 69 || i == 136 ? 70'000 : 30, static_cast<char>('a' + i % 26));
    };
    std::vector<dynstr *> strings, released;
    while (records.last_used < records.last_normal - records.slot_size)
        strings.push_back(make(pool, text_of(strings.size())));
    for (std::size_t i = 1; i < 500; i += 67)
        memm_free(released.emplace_back(strings[i]));
    make(pool, std::string(static_cast<TextPool *>(records.options.cookie)->room(), 'x'));  // one byte too long
    for (std::size_t i = 0; i < released.size() - 1; ++i)
        ASSERT_EQ(dynstr_fromstring(pool, text_of(1 + 67 * i).c_str()), released[i]) << "the lowest free one";
    for (std::size_t i = 0; i < 67 * (released.size() - 1); ++i)
        ASSERT_EQ(dynstr_getstring(strings[i]), text_of(i)) << i;
    EXPECT_EQ(dynstr_integrity_check(pool, 0), 1);
}

// What a record tells is only fetched, so nothing else would show that it is of no use.
TEST(compaction, makes_each_record_tell_of_a_later_one)
{
    const unsigned pool = make_strings(10'000, 1, 600);
    const TextPool &texts = *static_cast<TextPool *>(pool_at(pool).options.cookie);
    while (texts.room() >= 30)
        make(pool, "a text of twenty-eight bytes.");
    for (dynstr *record = texts.first[0]; record != nullptr;
         record = record->next == nullptr ? nullptr : record->next->next)
        memm_free(record);  // as many runs as there can be
    make(pool, std::string(1'000, 'x'));
    for (int i = 0; i < 20; ++i)
        make(pool, "behind the compacted ones");
    EXPECT_EQ(dynstr_integrity_check(pool, 0), 1);
    std::vector<dynstr *> strings;
    for (dynstr *record = texts.first[0]; record != nullptr; record = record->next)
        strings.push_back(record);
    for (std::size_t i = 64; Ahead::kHasRoom && i < strings.size() - Ahead::kPlaces; ++i) {
        std::int32_t distance;
        std::memcpy(&distance, &strings[i]->info + 1, sizeof distance);
        ASSERT_EQ(reinterpret_cast<char *>(strings[i]) + distance,
                  reinterpret_cast<char *>(strings[i + Ahead::kPlaces]))
            << i;
    }
}

TEST(compaction, names_what_it_finds_wrong_and_goes_on)
{
    const std::string bytes = "WARNING: loc_dynstr_gc fixed wrong total gc'd bytes (99->11).\r\n",
                      records = "WARNING: loc_dynstr_gc fixed wrong total gc'd dynstr (9->2).\r\n";
    const std::pair<void (*)(dynstr &, TextPool &), std::string> faults[] = {
        {[](dynstr &, TextPool &) {}, ""},
        {[](dynstr &d, TextPool &) { d.info ^= 1U << 31; },
         "loc_dynstr_gc next_dynstr has wrong buffernr.\r\nloc_dynstr_gc curr_dynstr has wrong buffernr.\r\n"},
        {[](dynstr &d, TextPool &) { d.str[1] = '\0'; }, "loc_dynstr_gc strlen+1 != dynstr_size.\r\n"},
        {[](dynstr &d, TextPool &) { d.str -= 8; },
         "loc_dynstr_gc dynstr->str sort error.\r\nloc_dynstr_gc strlen+1 != dynstr_size.\r\n"},
        {[](dynstr &d, TextPool &) { d.str[--d.info - 1] = '\0'; },
         "WARNING: loc_dynstr_gc fixed wrong stringsize.\r\n"},
        {[](dynstr &, TextPool &pool) { pool.bufdelbytes[0] = 99, pool.bufdelcnt[0] = 9; }, bytes + records}};
    for (const auto &[damage, expected] : faults)
        for (const int level : {0, 1}) {
            memm_set_trace(level);
            const unsigned pool = make_strings(100, 1, 10);
            dynstr *const gone = make(pool, "gone");
            const dynstr *const first = make(pool, "first");
            dynstr *const second = make(pool, "second"), *const third = make(pool, "third");
            memm_free(gone), memm_free(third);
            damage(*second, *static_cast<TextPool *>(hooks_of(pool).cookie));
            recorder().forget();
            make(pool, std::string(84, 'x'));  // finds room where the others were
            std::string found = recorder().take_trace();
            for (const std::string mark = "[DYNSTR] "; found.find(mark) != found.npos;)
                found.erase(found.find(mark), mark.size());
            EXPECT_EQ(found, level == 0 ? "" : expected);
            EXPECT_STREQ(first->str, "first");
        }
}

TEST(integrity_check, names_every_fault)
{
    const std::string order = "\r\n  - E: next->str >= curr->str, ", no_next = "\r\n  - E: !next && last != curr, ",
                      elsewhere = "\r\n  - E: curr has wrong buffernr, ",
                      literal = elsewhere + "\r\n  - E: literal pstr found, ";
    const std::pair<void (*)(Damaged), std::string> cases[] = {
        {[](Damaged d) { d.pool.first[0] = nullptr; }, "\r\n  - E: buffer 0 has no first dynstr but has used bytes, "},
        {[](Damaged d) { d.pool.last[0] = nullptr; },
         "\r\n  - E: buffer 0 has no last dynstr but has used bytes, " + no_next},
        {[](Damaged d) { ++d.pool.used[0]; }, "\r\n  - E: buffer 0 used bytes doesn't match last dynstr, "},
        {[](Damaged d) { d.one.prev = &d.two; }, "\r\n  - E: first has nonzero prev, "},
        {[](Damaged d) { d.one.info |= 2U << 16; }, "\r\n  - E: DYNSTR_MAXSIZE(2) < DYNSTR_SIZE(4), "},
        {[](Damaged d) { d.two.info += 5; }, "\r\n  - E: DYNSTR_SIZE(9) != strlen+1(4, 'two'), "},
        {[](Damaged d) { d.two.prev = nullptr; }, "\r\n  - E: next->prev != curr, "},
        {[](Damaged d) { d.two.info |= 1U << 27; }, elsewhere},
        {[](Damaged d) { d.two.info |= 1U << 31; }, literal},
        {[](Damaged d) { d.two.str = nullptr; }, order + "\r\n  - E: DYNSTR_SIZE(4) != strlen+1(0, ''), " + literal},
        {[](Damaged d) { d.one.next = nullptr; }, no_next},
    };
    for (const auto &[damage, expected] : cases) {
        const unsigned pool = make_strings();
        dynstr *const one = make(pool, "one"), *const two = make(pool, "two");
        make(pool, "six");
        damage({*static_cast<TextPool *>(hooks_of(pool).cookie), *one, *two});
        EXPECT_EQ(dynstr_integrity_check(pool, 0), 0);
        EXPECT_EQ(recorder().take_debug(), expected);
        memm_print_stats("of no name");
        EXPECT_NE(recorder().take_debug().find("[MEMM] dynstr integrity check failed: \r\n"), expected.npos);
    }
}
