#include "support/recording_platform.h"

#include "small_pool.h"

#include <climits>
#include <cstdio>
#include <functional>
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
    if (filler != nullptr) {
        memm_free(filler);
    }
    compact(memm::Held::by_caller(), *memm::strings::text_pool(memm::PoolId{pool.id()}),
            memm::strings::Reason::balance);
    const unsigned size = pool.control().bufsize - room;
    filler = size == 0 ? nullptr : dynstr_fromprintf(pool.id(), "%.*s", static_cast<int>(size) - 1, kLetters);
    ASSERT_EQ(pool.control().used[0], size);
}

// One kind of text at every length: the size that is judged before it stands, and the text that then does.
struct Kind {
    const char *name;
    std::function<unsigned(dynstr *, unsigned length)> write;
    std::function<unsigned(unsigned length, unsigned max)> judged_size;
    std::function<std::string(unsigned length, unsigned max)> expected;
};

unsigned cut(unsigned size, unsigned max) { return max != 0 ? std::min(size, max) : size; }

unsigned hex_size(unsigned length, unsigned max) { return (cut(length / 2 * 2 + 1, max) - 1) / 2 * 2 + 1; }

std::string hex_of(unsigned length)
{
    std::string digits;
    for (unsigned i = 0; i < length / 2; ++i) {
        digits += text("%02x", kBytes[i]);
    }
    return digits;
}

const Kind kKinds[] = {
    {"a text", [](dynstr *d, unsigned length) { return dynstr_sprintf(d, "%.*s", static_cast<int>(length), kLetters); },
     [](unsigned length, unsigned max) { return cut(length + 1, max); },
     [](unsigned length, unsigned max) { return std::string(kLetters, cut(length + 1, max) - 1); }},
    {"a text with a zero in its midst",
     [](dynstr *d, unsigned length) {
         const int half = static_cast<int>(length / 2);
         return dynstr_sprintf(d, "%.*s%c%.*s", half, kLetters, 0, static_cast<int>(length) - half, kLetters);
     },
     [](unsigned length, unsigned max) { return cut(length + 2, max); },
     [](unsigned length, unsigned max) { return std::string(kLetters, cut(length / 2 + 1, max) - 1); }},
    {"bytes", [](dynstr *d, unsigned length) { return dynstr_sethexstring(d, kBytes, static_cast<int>(length / 2)); },
     [](unsigned length, unsigned max) { return length < 2 ? 0 : hex_size(length, max); },
     [](unsigned length, unsigned max) { return hex_of(length).substr(0, hex_size(length, max) - 1); }},
};

TEST(written_text, is_whole_or_cut_at_its_limit_whatever_room_there_is)
{
    const SmallPool pool(40, 1);
    for (const Kind &kind : kKinds) {
        for (unsigned room = 0; room <= 40; ++room) {
            for (unsigned length = 0; length <= 44; ++length) {
                for (const unsigned max : {0U, 1U, 2U, 7U, 8U, 40U}) {
                    for (const bool has_blocks : {true, false}) {
                        SCOPED_TRACE(text("%s: room %u, length %u, max %u", kind.name, room, length, max));
                        leave_room(pool, room);
                        dynstr *const string = pool.make(nullptr, max);
                        const unsigned judged = kind.judged_size(length, max), before = recorder().calls(Op::getmem);
                        const std::string expected = kind.expected(length, max);
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
                    }
                }
            }
        }
    }
    EXPECT_EQ(recorder().outside_blocks(), 0U);
}

TEST(written_text, may_be_made_of_the_text_that_it_replaces)
{
    const SmallPool pool(40, 1);
    for (unsigned room = 0; room < 30; ++room) {
        leave_room(pool, room + 4);
        dynstr *const string = pool.make("abc");
        const char *const old = dynstr_getstring(string);
        const unsigned result = dynstr_sprintf(string, "%s-%s", old, old);
        EXPECT_EQ(result, room >= 8 ? 0 : kNoMemory);
        EXPECT_STREQ(dynstr_getstring(string), room >= 8 ? "abc-abc" : "");
        memm_free(string);
        leave_room(pool, room + 4);
        dynstr *const hex = pool.make("abc");
        const auto *const bytes = reinterpret_cast<const unsigned char *>(dynstr_getstring(hex));
        EXPECT_EQ(dynstr_sethexstring(hex, bytes, 3), room >= 7 ? 0 : kNoMemory);
        EXPECT_STREQ(dynstr_getstring(hex), room >= 7 ? "616263" : "");
        EXPECT_TRUE(pool.is_sound());
        memm_free(hex);
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

TEST(formatted_text, is_empty_when_the_c_library_cannot_print_it)
{
    const SmallPool pool(40, 1);
    constexpr wchar_t kNotInThisLocale[] = {L'\x1234', L'\0'};
    for (const unsigned room : {40U, 6U, 3U, 1U}) {
        for (const unsigned max : {0U, 3U}) {
            leave_room(pool, room);
            dynstr *const string = pool.make(nullptr, max);
            EXPECT_EQ(dynstr_sprintf(string, "abc%ls", kNotInThisLocale), 0U);
            EXPECT_EQ(string->info & 0xffffU, 1U) << "not a text of its terminating zero alone";
            EXPECT_TRUE(pool.is_sound());
            memm_free(string);
        }
    }
}

TEST(formatted_text, may_ask_for_the_characters_printed_so_far)
{
    const SmallPool pool;
    dynstr *const string = pool.make();
    char format[] = "ab%nc";  // in writable memory, as a format that was put together is
    int printed = 0;
    EXPECT_EQ(dynstr_sprintf(string, format, &printed), 0U);
    EXPECT_STREQ(dynstr_getstring(string), "abc");
    EXPECT_EQ(printed, 2);
}

TEST(written_text, that_no_record_can_hold_leaves_an_empty_string_and_one_line)
{
    const SmallPool pool(100, 1);
    const int count = *pool.control().pcurcnt;
    const auto reported = [] { return recorder().take_trace() == "[DYNSTR] loc_setstrsize with invalid size\r\n"; };
    for (const int bytes : {0x4000000, 0x3fffffff, 0x40000000, INT_MAX}) {
        dynstr *const string = pool.make("old");
        EXPECT_EQ(dynstr_sethexstring(string, kBytes, bytes), kNoMemory);
        EXPECT_TRUE(reported()) << bytes;
        EXPECT_STREQ(dynstr_getstring(string), "");
        EXPECT_EQ(dynstr_setmaxsize(string, 6), 0U);
        EXPECT_EQ(dynstr_sethexstring(string, kBytes, bytes), 0U) << "the limit cuts first";
        EXPECT_STREQ(dynstr_getstring(string), "01ff");
        memm_free(string);
        EXPECT_EQ(dynstr_hexstringfromdata(pool.id(), kBytes, bytes), nullptr);
        EXPECT_TRUE(reported()) << bytes;
    }
    dynstr *const string = pool.make("old");
    EXPECT_EQ(dynstr_sprintf(string, "%*s", 0x7ffffff, ""), kNoMemory);
    EXPECT_TRUE(reported());
    EXPECT_STREQ(dynstr_getstring(string), "");
    memm_free(string);
    compact(memm::Held::by_caller(), *memm::strings::text_pool(memm::PoolId{pool.id()}),
            memm::strings::Reason::balance);
    EXPECT_EQ(*pool.control().pcurcnt, count);
    EXPECT_TRUE(pool.is_sound());
}

// --- the way in ---

dynstr *from_list(unsigned pool, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    dynstr *const string = dynstr_fromvprintf(pool, format, arguments);
    va_end(arguments);
    return string;
}

TEST(formatted_output, refuses_what_is_no_string_and_no_string_pool)
{
    const SmallPool pool, full(1, 1);
    const auto other = static_cast<unsigned>(memm_initpool("", 2, 64, nullptr));
    dynstr *const deleted = pool.make("1");
    memm_free(deleted);
    recorder().take_tags();
    EXPECT_EQ(dynstr_sprintf(nullptr, "x"), kInvalid);
    EXPECT_EQ(dynstr_sprintf(pool.make(), static_cast<const char *>(nullptr)), kInvalid);
    EXPECT_EQ(recorder().take_trace(), "");
    recorder().take_tags();
    for (void *const bad : {static_cast<void *>(deleted), memm_calloc(other), static_cast<void *>(&recorder())}) {
        recorder().take_tags();
        EXPECT_EQ(dynstr_sprintf(static_cast<dynstr *>(bad), "x"), kInvalid);
        EXPECT_EQ(recorder().take_trace(), "[DYNSTR] dynstr_sprintf: invalid dynstr passed\r\n");
        EXPECT_EQ(recorder().take_tags(), Texts());
        EXPECT_EQ(dynstr_sethexstring(static_cast<dynstr *>(bad), kBytes, 1), kInvalid);
        EXPECT_EQ(recorder().take_tags(), Texts{"dynstr_sethexstring"});  // deliberate: without a word, but locked
    }
    EXPECT_EQ(dynstr_sethexstring(nullptr, kBytes, 1), kInvalid);
    EXPECT_EQ(recorder().take_tags(), Texts{"dynstr_sethexstring"});

    struct Constructor {
        const char *name;
        std::function<dynstr *(unsigned pool)> call;
    };
    const Constructor kConstructors[] = {
        {"dynstr_fromprintf", [](unsigned id) { return dynstr_fromprintf(id, "%d", 7); }},
        {"dynstr_fromvprintf", [](unsigned id) { return from_list(id, "%d", 7); }},
        {"dynstr_hexstringfromdata", [](unsigned id) { return dynstr_hexstringfromdata(id, kBytes, 1); }},
    };
    for (const Constructor &constructor : kConstructors) {
        for (const unsigned bad : {0U, 1U, other, 63U, 0x7fffffU, 0xffffffffU}) {
            EXPECT_EQ(constructor.call(bad), nullptr);
            EXPECT_EQ(recorder().take_trace(), text("[DYNSTR] %s: invalid poolid passed\r\n", constructor.name));
            EXPECT_EQ(recorder().take_tags(), Texts());
        }
        EXPECT_EQ(constructor.call(full.id()), nullptr);
        EXPECT_EQ(*full.control().pcurcnt, 1) << "the record was not given back";
        recorder().take_tags();
        EXPECT_NE(constructor.call(pool.id()), nullptr);
        EXPECT_EQ(recorder().take_tags(), Texts{constructor.name});
    }
    EXPECT_EQ(dynstr_fromprintf(pool.id(), static_cast<const char *>(nullptr)), nullptr);
    EXPECT_EQ(from_list(pool.id(), nullptr), nullptr);
    for (const int count : {0, -1, INT_MIN}) {
        EXPECT_STREQ(dynstr_getstring(dynstr_hexstringfromdata(pool.id(), kBytes, count)), "");
    }
    EXPECT_STREQ(dynstr_getstring(dynstr_hexstringfromdata(pool.id(), nullptr, 5)), "");
}

unsigned the_pool = 0;

void call_with_list(dynstr **slot, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    _dynstr_ex_fromvprintf(the_pool, slot, format, arguments, "f", 1);
    va_end(arguments);
}

TEST(caller_information, creates_what_the_plain_call_creates)
{
    const SmallPool pool;
    the_pool = pool.id();
    static dynstr *const shared = pool.make("shared");
    struct Case {
        const char *tag, *expected;
        unsigned max;
        std::function<void(dynstr **)> create;
    };
    const Case kCases[] = {
        {"memm_calloc", "", 0, [](auto slot) { _dynstr_ex_calloc(the_pool, slot, "f", 1); }},
        {"memm_calloc", "", 9, [](auto slot) { _dynstr_ex_calloc_maxsize(the_pool, slot, 9, "f", 1); }},
        {"memm_calloc", "", 10, [](auto slot) { _dynstr_ex_calloc_maxlen(the_pool, slot, 9, "f", 1); }},
        {"memm_refalloc", "shared", 0, [](auto slot) { _dynstr_ex_refalloc(shared, slot, "f", 1); }},
        {"dynstr_fromstring", "abc", 0, [](auto slot) { _dynstr_ex_fromstring(the_pool, slot, "abc", "f", 1); }},
        {"dynstr_fromliteral", "abc", 0, [](auto slot) { _dynstr_ex_fromliteral(the_pool, slot, "abc", "f", 1); }},
        {"dynstr_fromprintf", "4294967295", 0,
         [](auto slot) { _dynstr_ex_fromulong(the_pool, slot, 0xffffffffU, "f", 1); }},
        {"dynstr_fromprintf", "-7", 0, [](auto slot) { _dynstr_ex_fromlong(the_pool, slot, -7, "f", 1); }},
        {"dynstr_fromprintf", "0.0.0.0", 0, [](auto slot) { _dynstr_ex_fromipaddr(the_pool, slot, 0, "f", 1); }},
        {"dynstr_fromprintf", "01:ff:2a:00:9b:10", 0,
         [](auto slot) { _dynstr_ex_frommacaddr(the_pool, slot, kBytes, "f", 1); }},
        {"dynstr_fromvprintf", "7 x", 0,
         [](auto slot) { _dynstr_ex_fromprintf(the_pool, slot, "%d %s", "f", 1, 7, "x"); }},
        {"dynstr_fromvprintf", "7 x", 0, [](auto slot) { call_with_list(slot, "%d %s", 7, "x"); }},
        {"dynstr_fromsubstring", "bc", 0,
         [](auto slot) { _dynstr_ex_fromsubstring(the_pool, slot, "abcd", 1, 2, "f", 1); }},
        {"dynstr_hexstringfromdata", "01ff", 0,
         [](auto slot) { _dynstr_ex_hexstringfromdata(the_pool, slot, kBytes, 2, "f", 1); }},
    };
    for (const Case &test : kCases) {
        recorder().take_tags();
        const int count = *pool.control().pcurcnt;
        test.create(nullptr);
        EXPECT_EQ(recorder().take_tags(), Texts());
        EXPECT_EQ(*pool.control().pcurcnt, count);
        dynstr *made = nullptr;
        test.create(&made);
        EXPECT_EQ(recorder().take_tags(), Texts{test.tag}) << test.expected;
        EXPECT_STREQ(dynstr_getstring(made), test.expected);
        EXPECT_EQ(dynstr_getmaxsize(made), test.max);
    }
    dynstr *made = shared;
    _dynstr_ex_fromstring(0, &made, "abc", "f", 1);
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(recorder().take_trace(), "[DYNSTR] dynstr_fromstring_nolock: invalid poolid passed\r\n");
}

}  // namespace
