#include "support/recording_platform.h"

#include "small_pool.h"

#include <memmanager/platform.h>
#include <arpa/inet.h>
#include <climits>
#include <cstring>

namespace {

constexpr unsigned kInvalid = MEMM_E_INVALID, kNoMemory = MEMM_E_NO_MEMORY;
constexpr unsigned char kBytes[] = {0x01, 0xff, 0x2a, 0x00, 0xB2, 0x60};
const std::string kBadSize = "[DYNSTR] loc_setstrsize with invalid size\r\n";
bool locked_while_asked = false;

}  // namespace

// The one calendar operation that is replaced: it sees whether the lock is held.
unsigned xtm_getdaylightsaving(int *flag)
{
    locked_while_asked |= recorder().manager_lock_depth() != 0;
    *flag = 0;
    return 0;
}

namespace {

// Sizes of the short and the long form, of the longest text, and one more.
TEST(long_texts, are_held_up_to_134217727_bytes)
{
    constexpr unsigned kLong = 1U << 29, kMost = 134217727;
    const SmallPool pool(kMost + 200000, 1, 20);
    const std::string most(kMost, 'x');
    const auto end_with = [&most](unsigned size) { return most.c_str() + (kMost - (size - 1)); };
    for (const unsigned size : {65534U, 65535U, 65536U, 65537U, kMost}) {
        dynstr *const d = dynstr_fromstring(pool.id(), end_with(size));
        ASSERT_NE(d, nullptr) << size;
        EXPECT_EQ(dynstr_strlen(d), size - 1);
        EXPECT_EQ(d->info, size > 65535 ? kLong | size : size);
        EXPECT_EQ(dynstr_strcmp2(d, end_with(size)), 0);
        const unsigned longer = size + 1;
        EXPECT_EQ(dynstr_addstring(d, "y"), size == kMost ? kNoMemory : 0U) << "in place";
        EXPECT_EQ(d->info, size == kMost ? 1U << 31 : longer > 65535 ? kLong | longer : longer);
        EXPECT_EQ(recorder().take_trace(), size == kMost ? kBadSize : "");
        if (size == 65537) {
            EXPECT_EQ(dynstr_setmaxsize(d, 65536), 0U);
            EXPECT_EQ(d->info, kLong | 65536) << "no limit in the long form";
            EXPECT_EQ(dynstr_setmaxsize(d, 100), 0U);
            EXPECT_EQ(d->info, 100U << 16 | 100U);
        }
        memm_free(d);
        const memm_pooloptions &hooks = memm_get_pool_nolock(pool.id())->options;
        hooks.gc_cb(hooks.cookie, 0, 0);
        EXPECT_EQ(pool.control().usedbytes, 0U);
    }
    EXPECT_EQ(dynstr_fromstring(pool.id(), most.c_str()), nullptr);
    EXPECT_EQ(dynstr_fromliteral(pool.id(), most.c_str()), nullptr);
    EXPECT_EQ(dynstr_addstring(dynstr_fromliteral(pool.id(), end_with(kMost)), "y"), kNoMemory);
    EXPECT_EQ(dynstr_sprintf(pool.make(), "%*s", static_cast<int>(kMost), ""), kNoMemory);
    for (const int count : {0x4000000, 0x3fffffff, INT_MAX}) {
        EXPECT_EQ(dynstr_sethexstring(pool.make(), kBytes, count), kNoMemory);
        EXPECT_EQ(dynstr_sethexstring(pool.make(nullptr, 6), kBytes, count), 0U) << "the limit cuts first";
    }
    std::string complaints;
    for (int i = 0; i < 7; ++i)
        complaints += kBadSize;
    EXPECT_EQ(recorder().take_trace(), complaints);
    dynstr *const d = pool.make();
    EXPECT_EQ(dynstr_addstring_size(d, "abc", INT_MAX), 0U) << "what counts is the rest of the text";
    EXPECT_STREQ(dynstr_getstring(d), "abc");
}

TEST(appends, know_their_buffer_by_its_number)
{
    const SmallPool pool(64, 2, 20);
    static char side_by_side[64];
    auto &control = const_cast<memm::strings::TextPool &>(pool.control());
    control.buf[0] = side_by_side;
    control.buf[1] = side_by_side + 32;
    dynstr *const full = pool.make("0123456789012345678901234567890");
    control.curbuf = 1;
    EXPECT_EQ(dynstr_addstring(full, "!"), kNoMemory) << "33 bytes fit nowhere";
    EXPECT_TRUE(pool.is_sound());
}

TEST(outside_blocks, that_cannot_be_given_back_are_reported)
{
    const SmallPool pool(10, 1, 20);
    memm_free(pool.make("012345"));
    recorder().fail_nth(Op::retmem, 1);
    EXPECT_STREQ(dynstr_getstring(dynstr_fromstring(pool.id(), "abcdef")), "abcdef");
    EXPECT_EQ(recorder().take_trace(), "[DYNSTR] ERROR: loc_dynstr_updatepool failed to release dynamic memory\r\n");
    EXPECT_EQ(recorder().outside_blocks(), 0U);
}

TEST(formatted_text, may_fail_or_ask_for_the_characters_printed_so_far)
{
    constexpr wchar_t kNotInThisLocale[] = {L'\x1234', L'\0'};
    char format[] = "ab%nc";  // in writable memory, as a format that was put together is
    for (const unsigned room : {40U, 6U, 3U, 1U}) {
        const SmallPool pool(room, 1);
        dynstr *const string = pool.make(nullptr, 3);
        EXPECT_EQ(dynstr_sprintf(string, "abc%ls", kNotInThisLocale), 0U);
        EXPECT_EQ(string->info & 0xffffU, 1U) << "not a text of its terminating zero alone";
        EXPECT_TRUE(pool.is_sound());
        int printed = 0;
        dynstr_sprintf(string, format, &printed);
        EXPECT_EQ(printed, 2);
    }
    const char *const no_format = nullptr;
    EXPECT_EQ(dynstr_sprintf(SmallPool().make(), no_format), kInvalid);
}

TEST(hexadecimal, goes_both_ways_at_every_length)
{
    const SmallPool pool(400000, 2);
    dynstr *const string = pool.make();
    for (const unsigned count : {0U, 32766U, 32767U, 32768U, 70000U}) {
        std::string bytes(count, 'u'), back(count + 1, 'b');
        EXPECT_EQ(dynstr_sethexstring(string, reinterpret_cast<unsigned char *>(bytes.data()), static_cast<int>(count)),
                  0U);
        EXPECT_EQ(dynstr_strlen(string), 2 * count);
        auto *const to = reinterpret_cast<unsigned char *>(back.data());
        EXPECT_EQ(dynstr_gethexstring(string, to, static_cast<int>(count) - 1), unsigned{MEMM_E_TOO_SMALL});
        EXPECT_EQ(dynstr_gethexstring(string, to, static_cast<int>(count)), 0U);
        EXPECT_EQ(back, bytes + 'b');
        EXPECT_TRUE(pool.is_sound()) << count;
    }
}

TEST(values, are_written_as_their_readers_want_them)
{
    const SmallPool pool;
    const unsigned id = pool.id(), host = inet_addr("192.168.1.2");
    dynstr *const d = pool.make(), *const dates[] = {pool.make(), pool.make(), pool.make()};
    EXPECT_EQ(dynstr_setlong(d, INT_MIN) + dynstr_setutcdatetime(dates[0], 0), 0U);
    EXPECT_EQ(dynstr_setutcdatetime(dates[1], 1735689598) + dynstr_setutcdatetime(dates[2], UINT_MAX), 0U);
    const std::pair<dynstr *, const char *> texts[] = {{d, "-2147483648"},
                                                       {dates[0], "0001-01-01T00:00:00Z"},
                                                       {dates[1], "2024-12-31T23:59:58Z"},
                                                       {dates[2], "2106-02-07T06:28:15Z"},
                                                       {dynstr_fromulong(id, UINT_MAX), "4294967295"},
                                                       {dynstr_fromlong(id, -7), "-7"},
                                                       {dynstr_fromipaddr(id, host), "192.168.1.2"},
                                                       {dynstr_frommacaddr(id, kBytes), "01:ff:2a:00:b2:60"},
                                                       {dynstr_hexstringfromdata(id, kBytes, 2), "01ff"},
                                                       {dynstr_hexstringfromdata(id, nullptr, 5), ""},
                                                       {dynstr_hexstringfromdata(id, kBytes, INT_MIN), ""}};
    for (const auto &[string, expected] : texts)
        EXPECT_STREQ(dynstr_getstring(string), expected);
    dynstr *string = nullptr;
    _dynstr_ex_fromprintf(id, &string, "%d %s", "file", 1, 7, "seven");
    EXPECT_STREQ(dynstr_getstring(string), "7 seven");
    _dynstr_ex_fromsubstring(id, &string, "abcd", 1, 2, "file", 1);
    EXPECT_STREQ(dynstr_getstring(string), "bc");
    unsigned seconds = 0;
    EXPECT_EQ(dynstr_getutcdatetime(dates[1], &seconds), 0U);
    EXPECT_FALSE(locked_while_asked);
    EXPECT_EQ(dynstr_setmacaddr(d, nullptr), kInvalid);
    EXPECT_EQ(dynstr_frommacaddr(id, nullptr), nullptr);
}

TEST(calls, name_themselves_when_they_refuse)
{
    const SmallPool pool;
    dynstr *const d = pool.make("1");
    memm_free(d);
    unsigned out = 0;
    unsigned char bytes[6];
    const auto refuses = [](const char *name, unsigned code) {
        EXPECT_EQ(code, kInvalid) << name;
        EXPECT_EQ(recorder().take_trace(), text("[DYNSTR] %s: invalid dynstring passed\r\n", name));
    };
    const auto makes_none = [](const char *name, const dynstr *made) {
        EXPECT_EQ(made, nullptr);
        EXPECT_EQ(recorder().take_trace(), text("[DYNSTR] %s: invalid poolid passed\r\n", name));
    };
    refuses("dynstr_getulong", dynstr_getulong(d, &out));
    refuses("dynstr_getlong", dynstr_getlong(d, reinterpret_cast<int *>(&out)));
    refuses("dynstr_getbool", dynstr_getbool(d, &out));
    refuses("dynstr_getipaddr", dynstr_getipaddr(d, &out));
    refuses("dynstr_getmacaddr", dynstr_getmacaddr(d, bytes));
    refuses("dynstr_getutcdatetime", dynstr_getutcdatetime(d, &out));
    refuses("dynstr_gethexstring", dynstr_gethexstring(d, bytes, 2));
    const auto other = static_cast<unsigned>(memm_initpool("", 1, 64, nullptr));
    auto **const stranger = static_cast<unsigned char **>(memm_calloc(other));
    EXPECT_EQ(dynstr_getulong(reinterpret_cast<dynstr *>(stranger), &out), kInvalid);
    EXPECT_EQ(recorder().take_trace(), "") << "no word about no text";
    *stranger = bytes;
    refuses("dynstr_getulong", dynstr_getulong(reinterpret_cast<dynstr *>(stranger), &out));
    makes_none("dynstr_fromstring_nolock", dynstr_fromstring(other, ""));
    makes_none("dynstr_fromsubstring", dynstr_fromsubstring(0, "", 0, 0));
    makes_none("dynstr_fromliteral", dynstr_fromliteral(1, ""));
    makes_none("dynstr_fromprintf", dynstr_fromprintf(99, "%d", 7));
    makes_none("dynstr_hexstringfromdata", dynstr_hexstringfromdata(UINT_MAX, bytes, 1));
    memm_set_trace(1);
    EXPECT_EQ(dynstr_getulong(d, &out), kInvalid);
    EXPECT_EQ(dynstr_sethexstring(d, bytes, 1), kInvalid);
    EXPECT_EQ(recorder().take_trace(), "");
}

}  // namespace
