#include "support/recording_platform.h"

#include "small_pool.h"

#include <climits>
#include <cstdio>
#include <random>

namespace {

constexpr unsigned kInvalid = MEMM_E_INVALID, kNoMemory = MEMM_E_NO_MEMORY;
constexpr unsigned char kBytes[] = {0x01, 0xff, 0x2a, 0x00, 0x9b, 0x10, 0x7f, 0x80, 0xc3, 0x5d, 0x66, 0xe8,
                                    0x90, 0x0a, 0xb7, 0x44, 0x33, 0x22, 0x11, 0xfe, 0xdc, 0xba, 0x98, 0x76};

const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";

// Leaves that much room in the pool's only buffer. What was there is released.
void leave_room(const SmallPool &pool, unsigned room)
{
    static dynstr *filler = nullptr;
    memm_free(filler);
    compact(memm::Held::by_caller(), *memm::strings::text_pool(memm::PoolId{pool.id()}),
            memm::strings::Reason::balance);
    const unsigned size = pool.control().bufsize - room;
    filler = size == 0 ? nullptr : dynstr_fromprintf(pool.id(), "%.*s", static_cast<int>(size) - 1, kLetters);
    ASSERT_EQ(pool.control().used[0], size);
}

// One kind of text at every length, as it is printed, with zeros.
struct Kind {
    const char *name;
    bool is_hex;
    unsigned (*write)(dynstr *, unsigned length);
    std::string (*printed)(unsigned length);
};

const char *letters(unsigned length) { return std::end(kLetters) - 1 - length; }

std::string hex_of(unsigned length)
{
    std::string digits;
    for (unsigned i = 0; i < length / 2; ++i)
        digits += text("%02x", kBytes[i]);
    return digits;
}

constexpr Kind kKinds[] = {
    {"a text", false, [](auto *d, unsigned length) { return dynstr_sprintf(d, "%s", letters(length)); },
     [](unsigned length) { return std::string(letters(length)); }},
    {"a text that the C library prints", false,
     [](auto *d, unsigned length) { return dynstr_sprintf(d, "%#x%.*s", 0, static_cast<int>(length), kLetters); },
     [](unsigned length) { return "0" + std::string(kLetters, length); }},
    {"a text with a zero in its midst", false,
     [](auto *d, unsigned length) { return dynstr_sprintf(d, "%s%c%s", letters(length / 2), 0, letters(length)); },
     [](unsigned length) { return letters(length / 2) + std::string(1, '\0') + letters(length); }},
    {"bytes", true, [](auto *d, unsigned size) { return dynstr_sethexstring(d, kBytes, static_cast<int>(size / 2)); },
     hex_of},
};

TEST(written_text, is_whole_or_cut_at_its_limit_whatever_room_there_is)
{
    const SmallPool pool(40, 1);
    const auto check = [&pool](const Kind &kind, unsigned room, unsigned length, unsigned max, bool has_blocks) {
        SCOPED_TRACE(text("%s: room %u, length %u, max %u", kind.name, room, length, max));
        leave_room(pool, room);
        dynstr *const string = pool.make(nullptr, max);
        const std::string printed = kind.printed(length);
        auto size = static_cast<unsigned>(printed.size()) + 1;
        if (max != 0 && max < size)
            size = kind.is_hex ? (max - 1) / 2 * 2 + 1 : max;
        const std::string expected = printed.substr(0, size - 1).c_str();
        const unsigned judged = kind.is_hex && printed.empty() ? 0 : size, before = recorder().calls(Op::getmem);
        const bool fits = judged <= room || (has_blocks && expected.size() < room);
        recorder().fail_nth(Op::getmem, has_blocks ? 0 : 1, 7, Fault::null_block);
        ASSERT_EQ(kind.write(string, length), fits ? 0 : kNoMemory);
        ASSERT_STREQ(dynstr_getstring(string), fits ? expected.c_str() : "");
        ASSERT_EQ(dynstr_strlen(string), fits ? expected.size() : 0);
        ASSERT_EQ(string->str == nullptr, !fits || judged == 0);
        ASSERT_EQ(dynstr_getmaxsize(string), max);
        ASSERT_EQ(recorder().calls(Op::getmem) - before, judged > room ? 1U : 0U);
        ASSERT_TRUE(pool.is_sound());
        memm_free(string);
    };
    for (const Kind &kind : kKinds)
        for (unsigned room = 0; room <= 40; ++room)
            for (unsigned length = 0; length <= 44; ++length)
                for (const unsigned max : {0U, 1U, 2U, 7U, 8U, 40U})
                    for (const bool has_blocks : {true, false})
                        ASSERT_NO_FATAL_FAILURE(check(kind, room, length, max, has_blocks));
    EXPECT_EQ(recorder().outside_blocks(), 0U);
}

TEST(written_text, may_be_made_of_the_text_that_it_replaces)
{
    const SmallPool pool(40, 1);
    for (unsigned room = 0; room < 30; ++room) {
        for (const bool is_hex : {false, true}) {
            leave_room(pool, room + 4);
            dynstr *const string = pool.make("abc");
            const char *const old = dynstr_getstring(string);
            const bool fits = room >= (is_hex ? 7 : 8);
            EXPECT_EQ(is_hex ? dynstr_sethexstring(string, reinterpret_cast<const unsigned char *>(old), 3)
                             : dynstr_sprintf(string, "%s-%s", old, old),
                      fits ? 0 : kNoMemory);
            EXPECT_STREQ(dynstr_getstring(string), !fits ? "" : is_hex ? "616263" : "abc-abc");
            EXPECT_TRUE(pool.is_sound());
            memm_free(string);
        }
    }
}

// Flags, widths, lengths and letters in any mixture, also such as mean nothing.
TEST(formatted_text, is_what_the_c_library_prints)
{
    const SmallPool pool(5000, 1);
    dynstr *const string = pool.make();
    std::mt19937 random(11);
    const auto any_of = [&random](const auto &choices) { return choices[random() % std::size(choices)]; };
    const char *const flags[] = {"", "", "0", "-", "00", "-0", "+", " ", "#"};
    const char *const widths[] = {"", "", "1", "7", "12", "40", "1000", ".3", "9.5", "."};
    const char *const lengths[] = {"", "", "l", "ll", "h", "hh", "z", "j"};
    const char *const words[] = {"", "ab", "a longer word than most", nullptr};
    const char letters[] = {'d', 'i', 'u', 'x', 'd', 'x', 'X', 'o', 'c', '%'};
    const long long values[] = {0, 1, -1, 42, -100, 65, INT_MAX, INT_MIN, 4294967295, 4294967296, LLONG_MAX, LLONG_MIN};
    for (int round = scaled(50000); round > 0; --round) {
        const char letter = any_of(letters);
        const std::string length = letter == 'c' || letter == '%' ? "" : any_of(lengths);
        const std::string format = text("<%%%%> %%%s%ss|%%%s%s%s%c", random() % 2 == 0 ? "-" : "", any_of(widths),
                                        any_of(flags), any_of(widths), length.c_str(), letter);
        const char *const word = any_of(words);
        const unsigned max = random() % 2 == 0 ? 0 : static_cast<unsigned>(random() % 50);
        const auto check = [&](auto value) {
            char printed[2100];
            std::snprintf(printed, sizeof printed, format.c_str(), word, value);
            ASSERT_EQ(dynstr_setmaxsize(string, max), 0U);
            ASSERT_EQ(dynstr_sprintf(string, format.c_str(), word, value), 0U) << format;
            ASSERT_EQ(dynstr_getstring(string), std::string(printed).substr(0, max - 1U)) << format;
        };
        const long long value = any_of(values);
        length == "ll" || length == "j"  ? check(value)
        : length == "l" || length == "z" ? check(static_cast<long>(value))
                                         : check(static_cast<int>(value));
        ASSERT_TRUE(pool.is_sound()) << format;
    }
}

TEST(formatted_text, may_fail_or_ask_for_the_characters_printed_so_far)
{
    const SmallPool pool(40, 1);
    constexpr wchar_t kNotInThisLocale[] = {L'\x1234', L'\0'};
    char format[] = "ab%nc";  // in writable memory, as a format that was put together is
    for (const unsigned room : {40U, 6U, 3U, 1U}) {
        for (const unsigned max : {0U, 3U}) {
            leave_room(pool, room);
            dynstr *const string = pool.make(nullptr, max);
            EXPECT_EQ(dynstr_sprintf(string, "abc%ls", kNotInThisLocale), 0U);
            EXPECT_EQ(string->info & 0xffffU, 1U) << "not a text of its terminating zero alone";
            EXPECT_TRUE(pool.is_sound());
            int printed = 0;
            dynstr_sprintf(string, format, &printed);
            EXPECT_EQ(printed, 2);
            memm_free(string);
        }
    }
}

TEST(written_text, that_no_record_can_hold_leaves_an_empty_string_and_one_line)
{
    const SmallPool pool(100, 1);
    dynstr *const string = pool.make();
    const auto refused = [string](auto write) {
        EXPECT_EQ(dynstr_setmaxsize(string, 0) + dynstr_setstring(string, "old"), 0U);
        EXPECT_EQ(write(), kNoMemory);
        EXPECT_STREQ(dynstr_getstring(string), "");
        EXPECT_EQ(recorder().take_trace(), "[DYNSTR] loc_setstrsize with invalid size\r\n");
    };
    for (const int count : {0x4000000, 0x3fffffff, 0x40000000, INT_MAX}) {
        refused([=] { return dynstr_sethexstring(string, kBytes, count); });
        EXPECT_EQ(dynstr_setmaxsize(string, 6), 0U);
        EXPECT_EQ(dynstr_sethexstring(string, kBytes, count), 0U) << "the limit cuts first";
        EXPECT_STREQ(dynstr_getstring(string), "01ff");
    }
    refused([=] { return dynstr_sprintf(string, "%*s", 0x7ffffff, ""); });
    EXPECT_TRUE(pool.is_sound());
}

// --- the way in ---

dynstr *from_list(unsigned pool, const char *format)
{
    dynstr *string = nullptr;
    _dynstr_ex_fromprintf(pool, &string, format, "f", 1, 7);
    return string;
}

TEST(formatted_output, refuses_what_is_no_string_and_no_string_pool)
{
    const SmallPool pool, full(1, 1);
    const auto other = static_cast<unsigned>(memm_initpool("", 2, 64, nullptr));
    const char *const no_format = nullptr;
    dynstr *const deleted = pool.make("1");
    memm_free(deleted);
    EXPECT_EQ(dynstr_sprintf(nullptr, "x"), kInvalid);
    EXPECT_EQ(dynstr_sprintf(pool.make(), no_format), kInvalid);
    EXPECT_EQ(recorder().take_trace(), "");
    for (void *const bad : {static_cast<void *>(deleted), memm_calloc(other), static_cast<void *>(&recorder())}) {
        recorder().take_tags();
        EXPECT_EQ(dynstr_sprintf(static_cast<dynstr *>(bad), "x"), kInvalid);
        EXPECT_EQ(recorder().take_trace(), "[DYNSTR] dynstr_sprintf: invalid dynstr passed\r\n");
        EXPECT_EQ(dynstr_sethexstring(static_cast<dynstr *>(bad), kBytes, 1), kInvalid);
        EXPECT_EQ(recorder().take_tags(), Texts{"dynstr_sethexstring"});  // deliberate: without a word, but locked
    }
    EXPECT_EQ(dynstr_sethexstring(nullptr, kBytes, 1), kInvalid);

    const std::pair<const char *, dynstr *(*)(unsigned)> constructors[] = {
        {"dynstr_fromprintf", [](unsigned id) { return dynstr_fromprintf(id, "%d", 7); }},
        {"dynstr_fromvprintf", [](unsigned id) { return from_list(id, "%d"); }},
        {"dynstr_hexstringfromdata", [](unsigned id) { return dynstr_hexstringfromdata(id, kBytes, 1); }},
    };
    recorder().take_tags();
    for (const auto &[name, create] : constructors) {
        for (const unsigned bad : {0U, 1U, other, 63U, 0x7fffffU, 0xffffffffU}) {
            EXPECT_EQ(create(bad), nullptr);
            EXPECT_EQ(recorder().take_trace(), text("[DYNSTR] %s: invalid poolid passed\r\n", name));
        }
        EXPECT_EQ(create(full.id()), nullptr);
        EXPECT_EQ(*full.control().pcurcnt, 1) << "the record was not given back";
        EXPECT_NE(create(pool.id()), nullptr);
        EXPECT_EQ(recorder().take_tags(), (Texts{name, name}));
    }
    EXPECT_EQ(dynstr_fromprintf(pool.id(), no_format), nullptr);
    EXPECT_EQ(from_list(pool.id(), nullptr), nullptr);
    for (const int count : {0, -1, INT_MIN})
        EXPECT_STREQ(dynstr_getstring(dynstr_hexstringfromdata(pool.id(), kBytes, count)), "");
    EXPECT_STREQ(dynstr_getstring(dynstr_hexstringfromdata(pool.id(), nullptr, 5)), "");
}

dynstr *shared = nullptr;
unsigned the_pool = 0;

void call_with_list(dynstr **slot, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    _dynstr_ex_fromvprintf(the_pool, slot, format, arguments, "f", 1);
    va_end(arguments);
}

#define FOR_POOL(function, ...) [](dynstr **slot) { _dynstr_ex_##function(the_pool, slot, __VA_ARGS__, "f", 1); }

TEST(caller_information, creates_what_the_plain_call_creates)
{
    const SmallPool pool;
    the_pool = pool.id();
    shared = pool.make("shared");
    struct Case {
        std::string tag, expected;
        void (*create)(dynstr **);
        unsigned max = 0;
    };
    for (const Case &test : {Case{"memm_calloc", "", [](auto slot) { _dynstr_ex_calloc(the_pool, slot, "f", 1); }},
                             {"memm_calloc", "", FOR_POOL(calloc_maxsize, 9), 9},
                             {"memm_calloc", "", FOR_POOL(calloc_maxlen, 9), 10},
                             {"memm_refalloc", "shared", [](auto slot) { _dynstr_ex_refalloc(shared, slot, "f", 1); }},
                             {"dynstr_fromstring", "abc", FOR_POOL(fromstring, "abc")},
                             {"dynstr_fromliteral", "abc", FOR_POOL(fromliteral, "abc")},
                             {"dynstr_fromprintf", "4294967295", FOR_POOL(fromulong, UINT_MAX)},
                             {"dynstr_fromprintf", "-7", FOR_POOL(fromlong, -7)},
                             {"dynstr_fromprintf", "0.0.0.0", FOR_POOL(fromipaddr, 0)},
                             {"dynstr_fromprintf", "01:ff:2a:00:9b:10", FOR_POOL(frommacaddr, kBytes)},
                             {"dynstr_fromvprintf", "7 x",
                              [](auto slot) { _dynstr_ex_fromprintf(the_pool, slot, "%d %s", "f", 1, 7, "x"); }},
                             {"dynstr_fromvprintf", "7 x", [](auto slot) { call_with_list(slot, "%d %s", 7, "x"); }},
                             {"dynstr_fromsubstring", "bc", FOR_POOL(fromsubstring, "abcd", 1, 2)},
                             {"dynstr_hexstringfromdata", "01ff", FOR_POOL(hexstringfromdata, kBytes, 2)}}) {
        recorder().take_tags();
        dynstr *made = nullptr;
        test.create(nullptr);
        test.create(&made);
        EXPECT_EQ(recorder().take_tags(), Texts{test.tag}) << test.expected;
        EXPECT_EQ(dynstr_getstring(made), test.expected);
        EXPECT_EQ(dynstr_getmaxsize(made), test.max);
    }
    _dynstr_ex_fromstring(0, &shared, "abc", "f", 1);
    EXPECT_EQ(shared, nullptr);
    EXPECT_EQ(recorder().take_trace(), "[DYNSTR] dynstr_fromstring_nolock: invalid poolid passed\r\n");
}

}  // namespace
