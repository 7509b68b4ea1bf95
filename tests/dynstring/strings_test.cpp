#include "support/recording_platform.h"

#include "small_pool.h"

#include <climits>
#include <cstring>
#include <sys/mman.h>
#include <thread>

namespace {

constexpr unsigned kInvalid = MEMM_E_INVALID, kNoMemory = MEMM_E_NO_MEMORY;
const std::string kWarning = "[DYNSTR] WARNING: loc_dynstr_updatepool fixed wrong predicted size\r\n";
const std::string kBadSize = "[DYNSTR] loc_setstrsize with invalid size\r\n";

std::string show(unsigned code) { return text("0x%x", code); }
std::string show(int value) { return std::to_string(value); }
std::string show(const char *text) { return text; }
std::string show(dynstr *record)
{
    const std::string result = record == nullptr ? "null" : dynstr_getstring_nolock(record);
    memm_free_nolock(record);
    return result;
}

const SmallPool &the_pool()
{
    static const SmallPool pool;
    return pool;
}

dynstr *good()
{
    static dynstr *const record = the_pool().make("good");
    return record;
}

// Pointers that are no strings, with the text that stands for them.
std::vector<std::pair<dynstr *, std::string>> no_strings()
{
    const std::string none = "*NOT_MEMMSTR*", other = "*NOT_DYNSTR*";
    static char plain[64];
    void *const forbidden = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    void *const gone = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    munmap(gone, 4096);
    std::vector<std::pair<dynstr *, std::string>> all = {{SmallPool().make(), none}};
    memm_free(all[0].first);
    const auto add = [&all](auto *pointer, const std::string &text) {
        all.emplace_back(reinterpret_cast<dynstr *>(pointer), text);
    };
    for (void *pointer : {forbidden, gone, static_cast<void *>(plain), reinterpret_cast<void *>(&no_strings)})
        add(pointer, none);
    for (std::uintptr_t bytes = 0; bytes <= 8; ++bytes) {
        add(reinterpret_cast<char *>(bytes), none);
        add(reinterpret_cast<char *>(good()) + bytes + 1, none);
    }
    for (void *cookie : {static_cast<void *>(nullptr), reinterpret_cast<void *>(42), reinterpret_cast<void *>(-1L),
                         forbidden, gone, static_cast<void *>(good())}) {
        memm_pooloptions options{};
        options.cookie = cookie;
        add(memm_calloc(static_cast<unsigned>(memm_initpool("", 1, 64, &options))), cookie == nullptr ? none : other);
    }
    return all;
}

// A call, its results for a good and for a bad argument, the tag of its lock and whether it takes that to find out.
enum Lock { none, good_only, always };
template <typename Argument> struct Call {
    std::string (*run)(Argument);
    std::string result, bad_result;
    const char *tag;
    Lock lock;
    const char *trace = "";  // of a bad argument
    int level = 2;
};

template <typename Argument> void check(const Call<Argument> &call, Argument argument, bool is_good)
{
    const std::string result = is_good ? call.result : call.bad_result;
    const std::string trace = is_good || *call.trace == '\0' ? "" : text("[DYNSTR] %s\r\n", call.trace);
    recorder().take_tags();
    EXPECT_EQ(call.run(argument), result) << call.tag;
    EXPECT_EQ(recorder().take_tags(),
              call.lock == always || (call.lock == good_only && is_good) ? Texts{call.tag} : Texts());
    EXPECT_EQ(recorder().take_trace(), trace) << call.tag;
    memm_set_trace(call.level - 1);
    EXPECT_EQ(call.run(argument), result);
    EXPECT_EQ(recorder().take_trace(), "") << call.tag;
    memm_set_trace(2);
}

#define CALL(expression) [](dynstr *d) { return show(expression); }

TEST(string_calls, take_the_lock_under_their_tags_and_refuse_what_is_no_string)
{
    const std::string no = "0x10003", ok = "0x0";
    const char *const add = "dynstr_addstring_size", *const sub = "dynstr_setsubstring";
    const Call<dynstr *> calls[] = {
        {CALL(dynstr_setstring(d, "x")), ok, no, "dynstr_setstring", always},
        {CALL(dynstr_setstring(d, nullptr)), no, no, "dynstr_setstring", always},
        {CALL(dynstr_setstring_nolock(d, "x")), ok, no, "", none},
        {CALL(dynstr_setdynstr(d, good())), ok, no, "dynstr_setdynstr", always},
        {CALL(dynstr_setdynstr_nolock(d, good())), ok, no, "", none},
        {CALL(dynstr_setbool(d, -7)), ok, no, "dynstr_setstring", always},
        {CALL(dynstr_addstring(d, nullptr)), no, no, "", none},
        {CALL(dynstr_addstring(d, "")), ok, no, "", none},
        {CALL(dynstr_addstring_size(d, nullptr, 1)), ok, no, "", none},
        {CALL(dynstr_addstring(d, "x")), ok, no, add, good_only},
        {CALL(dynstr_addstring_size(d, "xyz", 2)), ok, no, add, good_only},
        {CALL(dynstr_strcmp2(d, "1xxxyxy") == 0 ? "same" : "else"), "same", "else", "dynstr_strcmp2", always},
        {CALL(dynstr_setsubstring(d, "x", -1, 1)), no, no, "", none},
        {CALL(dynstr_setsubdynstr(d, d, -1, 1)), no, no, "", none},
        {CALL(dynstr_setsubstring(d, "xyz", 1, 1)), ok, no, sub, good_only,
         "dynstr_setsubstring: invalid dynstring passed"},
        {CALL(dynstr_setsubdynstr(d, good(), 1, 1)), ok, no, sub, good_only,
         "dynstr_setsubdynstr: invalid dynstring passed"},
        {CALL(dynstr_setsubdynstr(good(), d, 0, -1)), ok, no, sub, good_only,
         "dynstr_setsubdynstr: invalid dynstring passed"},
        {CALL(dynstr_reset(d)), ok, no, "dynstr_reset", good_only, "\"dynstr_reset() invalid param\"", 1},
        {CALL(dynstr_setmaxsize(d, 9)), ok, no, "dynstr_setmaxsize", good_only, "\"dynstr_setmaxsize() invalid param\"",
         1},
        {CALL(dynstr_getmaxsize(d)), "0x9", ok, "", none, "\"dynstr_getmaxsize() invalid param\"", 1},
        {CALL(dynstr_isdynstring(d)), "1", "0", "", none},
        {CALL(dynstr_setstring_nolock(d, "text")), ok, no, "", none},
        {CALL(dynstr_fromdynstr(d)), "text", "null", "dynstr_fromdynstr", always,
         "dynstr_fromdynstr_nolock: invalid dynstring passed"},
        {CALL(dynstr_fromdynstr_nolock(d)), "text", "null", "", none,
         "dynstr_fromdynstr_nolock: invalid dynstring passed"},
        {CALL(dynstr_fromsubdynstr(d, 1, 2)), "ex", "null", "dynstr_fromsubdynstr", always,
         "dynstr_fromsubdynstr_nolock: invalid poolid passed"},
        {CALL(dynstr_fromsubdynstr_nolock(d, 3, -1)), "t", "null", "", none,
         "dynstr_fromsubdynstr_nolock: invalid poolid passed"},
    };
    dynstr *const record = the_pool().make("text"), *const deleted = the_pool().make("old");
    memm_free(deleted);
    auto pointers = no_strings();
    pointers.emplace_back(deleted, "*DELETED_DYNSTR*");
    for (const auto &call : calls) {
        check(call, record, true);
        for (const auto &[pointer, stands_for] : pointers)
            check(call, pointer, false);
    }
    pointers.emplace_back(record, "text");
    pointers.emplace_back(the_pool().make(), "");
    for (const auto &[pointer, expected] : pointers) {
        char copied[32] = "dirt";
        recorder().take_tags();
        EXPECT_EQ(show(dynstr_getstring(pointer)), expected);
        const auto sign = [](int order) { return (order > 0) - (order < 0); };
        EXPECT_EQ(sign(dynstr_strcmp(pointer, good())), sign(expected.compare(dynstr_getstring_nolock(good()))));
        EXPECT_EQ(dynstr_strcmp2(pointer, nullptr) == 0, expected.empty());
        EXPECT_EQ(show(dynstr_strncpy(copied, pointer, 0)), "dirt");
        EXPECT_EQ(show(dynstr_strncpy(copied, pointer, 4)), expected.substr(0, 3));
        EXPECT_EQ(dynstr_strncpy(nullptr, pointer, 4), nullptr);
        EXPECT_EQ(recorder().take_tags(), (Texts{"dynstr_getstring", "dynstr_strcmp", "dynstr_strcmp2",
                                                 "dynstr_strncpy", "dynstr_strncpy", "dynstr_strncpy"}));
        const bool is_source = pointer == deleted || dynstr_isdynstring(pointer) == 1;
        EXPECT_EQ(dynstr_setdynstr(good(), pointer), is_source ? 0 : kInvalid);
    }
    EXPECT_EQ(dynstr_strlen(nullptr), 0U);
    EXPECT_TRUE(the_pool().is_sound());
}

#undef CALL
#define CALL(expression) [](unsigned id) { return show(expression); }

TEST(string_calls, refuse_pools_that_are_no_string_pools)
{
    const char *const whole = "dynstr_fromstring_nolock: invalid poolid passed",
                      *const part = "dynstr_fromsubstring: invalid poolid passed",
                      *const literal = "dynstr_fromliteral: invalid poolid passed";
    const Call<unsigned> calls[] = {
        {CALL(dynstr_fromstring(id, "abc")), "abc", "null", "dynstr_fromstring", always, whole},
        {CALL(dynstr_fromstring(id, nullptr)), "null", "null", "dynstr_fromstring", always, whole},
        {CALL(dynstr_fromstring_nolock(id, "abc")), "abc", "null", "", none, whole},
        {CALL(dynstr_fromsubstring(id, "abc", 1, 1)), "b", "null", "dynstr_fromsubstring", good_only, part},
        {CALL(dynstr_fromsubstring(id, "abc", -1, 1)), "null", "null", "dynstr_fromsubstring", good_only, part},
        {CALL(dynstr_fromliteral(id, "abc")), "abc", "null", "dynstr_fromliteral", good_only, literal},
        {CALL(dynstr_fromliteral(id, nullptr)), "null", "null", "", none, literal},
    };
    const unsigned strings = the_pool().id();
    memm_pooloptions options{};
    options.cookie = &options;
    const auto other = static_cast<unsigned>(memm_initpool("", 1, 1, &options));
    for (const auto &call : calls) {
        check(call, strings, true);
        for (const unsigned id : {0U, 1U, other, 9999U, UINT_MAX})
            check(call, id, false);
    }
    const memm_pool &records = *memm_get_pool_nolock(strings);
    EXPECT_EQ(records.cur_count - the_pool().control().delcnt, 1) << "the spare one; failures give theirs back";
    recorder().take_tags();
    EXPECT_EQ(dynstr_getmaxsize(dynstr_calloc_maxlen(strings, 2046)), 2047U);
    EXPECT_EQ(dynstr_calloc_maxlen(strings, UINT_MAX)->info, 0U);
    EXPECT_EQ(dynstr_calloc_maxsize(strings, 2048)->info, 0U);
    EXPECT_EQ(dynstr_refalloc(dynstr_calloc_maxsize(other, 7)) != nullptr, true) << "slots without room for a limit";
    EXPECT_EQ(recorder().take_tags(),
              (Texts{"memm_calloc", "memm_calloc", "memm_calloc", "memm_calloc", "memm_refalloc"}));
}

TEST(parts_of_texts, end_with_their_source)
{
    struct Case {
        int offset, length;
        unsigned code;
        const char *expected;
        std::string trace;
    };
    const char *const source = "abcdef";
    for (const Case &c : {Case{2, -1, 0, "cdef", ""},
                          {3, -7, 0, "def", ""},
                          {2, 0, 0, "", ""},
                          {4, 100, 0, "ef", kWarning},
                          {6, 2, 0, "", kWarning},
                          {7, 5, 0, "", ""},
                          {INT_MAX, INT_MAX, 0, "", ""},
                          {0, 70000, kNoMemory, "", ""},
                          {0, INT_MAX, kNoMemory, "", kBadSize}}) {
        dynstr *const a = the_pool().make("old"), *const own = the_pool().make(source);
        EXPECT_EQ(dynstr_setsubstring(a, source, c.offset, c.length), c.code);
        EXPECT_EQ(dynstr_setsubdynstr(own, own, c.offset, c.length), c.code);
        EXPECT_EQ(recorder().take_trace(), c.trace + c.trace) << c.offset << ' ' << c.length;
        EXPECT_EQ(show(a), c.expected);
        EXPECT_EQ(show(own), c.expected);
    }
}

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
    dynstr *const literal = dynstr_fromliteral(pool.id(), end_with(kMost)), *const d = pool.make();
    EXPECT_EQ(dynstr_addstring(literal, "y"), kNoMemory);
    EXPECT_EQ(recorder().take_trace(), kBadSize + kBadSize + kBadSize);
    EXPECT_EQ(dynstr_addstring_size(d, "abc", INT_MAX), 0U) << "what counts is the rest of the text";
    EXPECT_EQ(show(d), "abc");
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

TEST(literals, stay_as_their_owner_wrote_them)
{
    char text[] = "literal";
    dynstr *const d = dynstr_fromliteral(the_pool().id(), text);
    EXPECT_EQ(dynstr_getstring(d), text);
    text[3] = '\0';  // no owner should, but it harms nobody else
    EXPECT_EQ(dynstr_addstring(d, "+"), 0U);
    EXPECT_EQ(show(dynstr_getstring(d)), "lit+");
    EXPECT_STREQ(text + 4, "ral");
    EXPECT_TRUE(the_pool().is_sound());
}

TEST(outside_blocks, that_cannot_be_given_back_are_reported)
{
    const SmallPool pool(10, 1, 20);
    memm_free(pool.make("012345"));
    recorder().fail_nth(Op::retmem, 1);
    EXPECT_EQ(show(dynstr_fromstring(pool.id(), "abcdef")), "abcdef");
    EXPECT_EQ(recorder().take_trace(), "[DYNSTR] ERROR: loc_dynstr_updatepool failed to release dynamic memory\r\n");
    EXPECT_EQ(recorder().outside_blocks(), 0U);
}

TEST(threads, keep_their_texts_in_one_pool)
{
    const SmallPool pool(600, 3, 30);
    const auto work = [&pool](char letter) {
        dynstr *const mine = pool.make();
        std::string expected;
        for (int round = 0; round < scaled(5000); ++round) {
            if (expected.size() > 40) {
                expected.clear();
                EXPECT_EQ(dynstr_reset(mine), 0U);
            }
            expected += letter;
            ASSERT_EQ(dynstr_addstring_size(mine, expected.c_str(), 1), 0U);
            dynstr *const copy = dynstr_fromdynstr(mine);
            ASSERT_EQ(dynstr_isdynstring(copy), 1);
            EXPECT_EQ(dynstr_getmaxsize(copy), 0U);
            EXPECT_EQ(dynstr_strlen(copy), expected.size());
            EXPECT_EQ(dynstr_strcmp2(copy, expected.c_str()), 0);
            EXPECT_EQ(memm_free(copy), 0);
        }
    };
    std::vector<std::thread> threads;
    for (const char letter : {'a', 'b', 'c', 'd'})
        threads.emplace_back(work, letter);
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_GT(pool.control().gccnt, 0U);
    EXPECT_TRUE(pool.is_sound());
}

}  // namespace
