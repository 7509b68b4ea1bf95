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

std::string show(unsigned code) { return std::to_string(code); }
std::string show(int value) { return std::to_string(value); }
std::string show(const char *text) { return text; }
std::string show(const dynstr *record)
{
    const std::string result = record == nullptr ? "null" : dynstr_getstring_nolock(record);
    memm_free_nolock(const_cast<dynstr *>(record));
    return result;
}

const SmallPool &the_pool()
{
    static const SmallPool pool(4000, 2, 50);
    return pool;
}

dynstr *good()
{
    static dynstr *const record = the_pool().make("good");
    return record;
}

std::string bad_string(const char *name) { return std::string("[DYNSTR] ") + name + ": invalid dynstring passed\r\n"; }
std::string bad_pool(const char *name) { return std::string("[DYNSTR] ") + name + ": invalid poolid passed\r\n"; }
std::string bad_param(const char *name) { return std::string("[DYNSTR] \"") + name + "() invalid param\"\r\n"; }

// Pointers that are no strings, with the text that stands for them.
std::vector<std::pair<dynstr *, std::string>> no_strings()
{
    const std::string none = "*NOT_MEMMSTR*", other = "*NOT_DYNSTR*";
    static char stack_like[64];
    void *const forbidden = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    void *const gone = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    munmap(gone, 4096);
    dynstr *const released = SmallPool().make();
    memm_free(released);
    std::vector<std::pair<void *, std::string>> all = {{forbidden, none},
                                                       {gone, none},
                                                       {stack_like, none},
                                                       {reinterpret_cast<void *>(&no_strings), none},
                                                       {released, none},
                                                       {reinterpret_cast<char *>(good()) + 4, none},
                                                       {reinterpret_cast<void *>(~std::uintptr_t{0}), none}};
    for (std::uintptr_t small = 0; small <= 8; ++small) {
        all.emplace_back(reinterpret_cast<void *>(small), none);
    }
    for (void *cookie : {static_cast<void *>(nullptr), reinterpret_cast<void *>(42), reinterpret_cast<void *>(-1L),
                         forbidden, gone, static_cast<void *>(good())}) {
        memm_pooloptions options{};
        options.cookie = cookie;
        const int id = memm_initpool("", 1, 64, &options);
        all.emplace_back(memm_calloc(static_cast<unsigned>(id)), cookie == nullptr ? none : other);
    }
    std::vector<std::pair<dynstr *, std::string>> result;
    for (const auto &[pointer, text] : all) {
        result.emplace_back(static_cast<dynstr *>(pointer), text);
    }
    return result;
}

template <typename Argument> struct Call {
    std::string (*run)(Argument);
    std::string result;      // of a good argument
    const char *tag;         // of the lock, taken by a good call; null: none
    std::string bad_result;  // of anything else
    const char *bad_tag;
    std::string trace{};
    int level = 2;  // of the trace
};

template <typename Argument>
void check(const Call<Argument> &call, Argument argument, const std::string &result, const char *tag,
           const std::string &trace)
{
    const auto tags_of = [](const char *name) { return name == nullptr ? Texts() : Texts{name}; };
    recorder().take_tags();
    EXPECT_EQ(call.run(argument), result);
    EXPECT_EQ(recorder().take_tags(), tags_of(tag)) << trace;
    EXPECT_EQ(recorder().take_trace(), trace);
    if (!trace.empty()) {
        memm_set_trace(call.level - 1);
        EXPECT_EQ(call.run(argument), result);
        EXPECT_EQ(recorder().take_trace(), "");
        memm_set_trace(2);
    }
}

TEST(string_calls, take_the_lock_under_their_tags_and_refuse_what_is_no_string)
{
    const std::string refused = show(kInvalid), set = "dynstr_setsubstring", reset = bad_param("dynstr_reset"),
                      set_max = bad_param("dynstr_setmaxsize"), get_max = bad_param("dynstr_getmaxsize"),
                      sub = bad_string("dynstr_setsubstring"), sub_string = bad_string("dynstr_setsubdynstr"),
                      copy = bad_string("dynstr_fromdynstr_nolock"), part = bad_pool("dynstr_fromsubdynstr_nolock");
    using C = Call<dynstr *>;
    const C calls[] = {
        {[](dynstr *d) { return show(dynstr_setstring(d, "x")); }, "0", "dynstr_setstring", refused,
         "dynstr_setstring"},
        {[](dynstr *d) { return show(dynstr_setstring_nolock(d, "x")); }, "0", nullptr, refused, nullptr},
        {[](dynstr *d) { return show(dynstr_setdynstr(d, good())); }, "0", "dynstr_setdynstr", refused,
         "dynstr_setdynstr"},
        {[](dynstr *d) { return show(dynstr_setdynstr_nolock(d, good())); }, "0", nullptr, refused, nullptr},
        {[](dynstr *d) { return show(dynstr_setbool(d, 7)); }, "0", "dynstr_setstring", refused, "dynstr_setstring"},
        {[](dynstr *d) { return show(dynstr_addstring(d, "x")); }, "0", "dynstr_addstring_size", refused, nullptr},
        {[](dynstr *d) { return show(dynstr_addstring_size(d, "xyz", 2)); }, "0", "dynstr_addstring_size", refused,
         nullptr},
        {[](dynstr *d) { return show(dynstr_addstring(d, "")); }, "0", nullptr, refused, nullptr},
        {[](dynstr *d) { return show(dynstr_addstring_size(d, nullptr, 1)); }, "0", nullptr, refused, nullptr},
        {[](dynstr *d) { return show(dynstr_setsubstring(d, "xyz", 1, 1)); }, "0", "dynstr_setsubstring", refused,
         nullptr, sub},
        {[](dynstr *d) { return show(dynstr_setsubdynstr(d, good(), 1, 1)); }, "0", "dynstr_setsubstring", refused,
         nullptr, sub_string},
        {[](dynstr *d) { return show(dynstr_setsubdynstr(good(), d, 0, -1)); }, "0", "dynstr_setsubstring", refused,
         nullptr, sub_string},
        {[](dynstr *d) { return show(dynstr_reset(d)); }, "0", "dynstr_reset", refused, nullptr, reset, 1},
        {[](dynstr *d) { return show(dynstr_setmaxsize(d, 9)); }, "0", "dynstr_setmaxsize", refused, nullptr, set_max,
         1},
        {[](dynstr *d) { return show(dynstr_getmaxsize(d)); }, "9", nullptr, "0", nullptr, get_max, 1},
        {[](dynstr *d) { return show(dynstr_isdynstring(d)); }, "1", nullptr, "0", nullptr},
        {[](dynstr *d) { return show(dynstr_setstring(d, nullptr)); }, refused, "dynstr_setstring", refused,
         "dynstr_setstring"},
        {[](dynstr *d) { return show(dynstr_addstring(d, nullptr)); }, refused, nullptr, refused, nullptr},
        {[](dynstr *d) { return show(dynstr_setsubstring(d, "x", -1, 1)); }, refused, nullptr, refused, nullptr},
        {[](dynstr *d) { return show(dynstr_setsubdynstr(d, d, -1, 1)); }, refused, nullptr, refused, nullptr},
        {[](dynstr *d) { return show(dynstr_setstring_nolock(d, "text")); }, "0", nullptr, refused, nullptr},
        {[](dynstr *d) { return show(dynstr_fromdynstr(d)); }, "text", "dynstr_fromdynstr", "null", "dynstr_fromdynstr",
         copy},
        {[](dynstr *d) { return show(dynstr_fromdynstr_nolock(d)); }, "text", nullptr, "null", nullptr, copy},
        {[](dynstr *d) { return show(dynstr_fromsubdynstr(d, 1, 2)); }, "ex", "dynstr_fromsubdynstr", "null",
         "dynstr_fromsubdynstr", part},
        {[](dynstr *d) { return show(dynstr_fromsubdynstr_nolock(d, 3, -1)); }, "t", nullptr, "null", nullptr, part},
    };
    dynstr *const record = the_pool().make("text"), *const deleted = the_pool().make("old");
    memm_free(deleted);
    auto refused_ones = no_strings();
    refused_ones.emplace_back(deleted, "*DELETED_DYNSTR*");
    for (const C &call : calls) {
        check(call, record, call.result, call.tag, "");
        for (const auto &[pointer, stands_for] : refused_ones) {
            check(call, pointer, call.bad_result, call.bad_tag, call.trace);
        }
    }
    refused_ones.emplace_back(record, "text");
    refused_ones.emplace_back(the_pool().make(), "");
    for (const auto &[pointer, expected] : refused_ones) {
        char copied[32] = "dirt";
        recorder().take_tags();
        EXPECT_EQ(show(dynstr_getstring(pointer)), expected);
        EXPECT_EQ(show(dynstr_getstring_nolock(pointer)), expected);
        EXPECT_EQ(dynstr_strcmp(pointer, good()), std::strcmp(expected.c_str(), dynstr_getstring_nolock(good())));
        EXPECT_EQ(dynstr_strcmp2(pointer, nullptr) == 0, expected.empty());
        EXPECT_EQ(dynstr_strncpy(copied, pointer, 0), copied);
        EXPECT_STREQ(copied, "dirt");
        EXPECT_EQ(dynstr_strncpy(copied, pointer, 4), copied);
        EXPECT_EQ(show(copied), expected.substr(0, 3));
        EXPECT_EQ(dynstr_strncpy(nullptr, pointer, 4), nullptr);
        EXPECT_EQ(recorder().take_tags(), (Texts{"dynstr_getstring", "dynstr_strcmp", "dynstr_strcmp2",
                                                 "dynstr_strncpy", "dynstr_strncpy", "dynstr_strncpy"}));
        if (expected.front() == '*' && pointer != deleted) {
            EXPECT_EQ(dynstr_setdynstr(record, pointer), kInvalid) << "as a source";
        }
    }
    EXPECT_EQ(show(dynstr_getstring(record)), "text");
    EXPECT_EQ(dynstr_strlen(nullptr), 0U);
    EXPECT_TRUE(the_pool().is_sound());
}

TEST(string_calls, refuse_pools_that_are_no_string_pools)
{
    const std::string whole = bad_pool("dynstr_fromstring_nolock"), part = bad_pool("dynstr_fromsubstring"),
                      literal = bad_pool("dynstr_fromliteral");
    using C = Call<unsigned>;
    const C calls[] = {
        {[](unsigned id) { return show(dynstr_fromstring(id, "abc")); }, "abc", "dynstr_fromstring", "null",
         "dynstr_fromstring", whole},
        {[](unsigned id) { return show(dynstr_fromstring_nolock(id, "abc")); }, "abc", nullptr, "null", nullptr, whole},
        {[](unsigned id) { return show(dynstr_fromsubstring(id, "abc", 1, 1)); }, "b", "dynstr_fromsubstring", "null",
         nullptr, part},
        {[](unsigned id) { return show(dynstr_fromliteral(id, "abc")); }, "abc", "dynstr_fromliteral", "null", nullptr,
         literal},
        {[](unsigned id) { return show(dynstr_fromliteral(id, nullptr)); }, "null", nullptr, "null", nullptr, literal},
        {[](unsigned id) { return show(dynstr_fromstring(id, nullptr)); }, "null", "dynstr_fromstring", "null",
         "dynstr_fromstring", whole},
        {[](unsigned id) { return show(dynstr_fromsubstring(id, "abc", -1, 1)); }, "null", "dynstr_fromsubstring",
         "null", nullptr, part},
    };
    memm_pooloptions options{};
    options.cookie = &options;
    good();
    const int other = memm_initpool("", 1, 64, &options);
    const int in_use = memm_get_pool_nolock(the_pool().id())->cur_count;
    for (const C &call : calls) {
        check(call, the_pool().id(), call.result, call.tag, "");
        for (const unsigned id : {0U, 1U, static_cast<unsigned>(other), 9999U, 0xffffffffU}) {
            check(call, id, call.bad_result, call.bad_tag, call.trace);
        }
    }
    EXPECT_EQ(memm_get_pool_nolock(the_pool().id())->cur_count - the_pool().control().delcnt, in_use);
    recorder().take_tags();
    dynstr *const limited = dynstr_calloc_maxlen(the_pool().id(), 2046), *const free = dynstr_calloc_maxsize(1, 3);
    EXPECT_EQ(dynstr_getmaxsize(limited), 2047U);
    EXPECT_EQ(dynstr_refalloc(limited), limited);
    EXPECT_EQ(recorder().take_tags(), (Texts{"memm_calloc", "memm_calloc", "memm_refalloc"}));
    EXPECT_EQ(memm_free(free), 0);
    EXPECT_EQ(dynstr_calloc_maxlen(the_pool().id(), 2047)->info, 0U);
    EXPECT_EQ(dynstr_calloc_maxlen(the_pool().id(), UINT_MAX)->info, 0U);
    const int small = memm_initpool("", 1, 1, &options);
    auto *const untouched = reinterpret_cast<unsigned char *>(dynstr_calloc_maxsize(static_cast<unsigned>(small), 7));
    EXPECT_EQ(*untouched, 0);
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
    dynstr *const of = the_pool().make(source);
    for (const Case &c : {Case{2, -1, 0, "cdef", ""},
                          {2, 0, 0, "", ""},
                          {0, 3, 0, "abc", ""},
                          {3, -7, 0, "def", ""},
                          {4, 100, 0, "ef", kWarning},
                          {6, -1, 0, "", ""},
                          {6, 2, 0, "", kWarning},
                          {7, -1, 0, "", ""},
                          {7, 5, 0, "", ""},
                          {INT_MAX, INT_MAX, 0, "", ""},
                          {0, 70000, kNoMemory, "", ""},
                          {0, INT_MAX, kNoMemory, "", kBadSize}}) {
        dynstr *const a = the_pool().make("old"), *const b = the_pool().make("old"),
                      *const own = the_pool().make(source);
        EXPECT_EQ(dynstr_setsubstring(a, source, c.offset, c.length), c.code);
        EXPECT_EQ(dynstr_setsubdynstr(b, of, c.offset, c.length), c.code);
        EXPECT_EQ(dynstr_setsubdynstr(own, own, c.offset, c.length), c.code);
        dynstr *const made = dynstr_fromsubdynstr(of, c.offset, c.length);
        EXPECT_EQ(recorder().take_trace(), c.trace + c.trace + c.trace + c.trace) << c.offset << ' ' << c.length;
        EXPECT_EQ(made == nullptr, c.code != 0);
        for (dynstr *const record : {a, b, own, made}) {
            EXPECT_EQ(record == nullptr ? c.expected : show(dynstr_getstring(record)), c.expected);
            memm_free(record);
        }
        EXPECT_TRUE(the_pool().is_sound());
    }
}

TEST(limits, cut_every_text)
{
    dynstr *const d = the_pool().make("abcdef", 4);
    EXPECT_EQ(show(dynstr_getstring(d)), "abc");
    EXPECT_EQ(dynstr_addstring(d, "xyz"), 0U);
    EXPECT_EQ(show(dynstr_getstring(d)), "abc");
    EXPECT_EQ(dynstr_setmaxsize(d, 2), 0U);
    EXPECT_EQ(show(dynstr_getstring(d)), "a");
    EXPECT_EQ(dynstr_setmaxsize(d, 2048), 0U);
    EXPECT_EQ(dynstr_getmaxsize(d), 0U);
    EXPECT_EQ(dynstr_setbool(d, 0), 0U);
    EXPECT_EQ(show(dynstr_getstring(d)), "0");
    EXPECT_EQ(dynstr_setbool(d, -7), 0U);
    EXPECT_EQ(show(dynstr_getstring(d)), "1");
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
        if (size > 65536 && size < kMost) {
            EXPECT_EQ(dynstr_setmaxsize(d, 65536), 0U);
            EXPECT_EQ(d->info, kLong | 65536) << "no limit in the long form";
            EXPECT_EQ(dynstr_setmaxsize(d, 100), 0U);
            EXPECT_EQ(d->info, 100U << 16 | 100U);
        }
        memm_free(d);
        memm_pooloptions &hooks = memm_get_pool_nolock(pool.id())->options;
        hooks.gc_cb(hooks.cookie, 0, 0);
        EXPECT_EQ(pool.control().usedbytes, 0U);
    }
    EXPECT_EQ(dynstr_fromstring(pool.id(), most.c_str()), nullptr);
    EXPECT_EQ(dynstr_fromliteral(pool.id(), most.c_str()), nullptr);
    EXPECT_EQ(recorder().take_trace(), kBadSize + kBadSize);
    dynstr *const literal = dynstr_fromliteral(pool.id(), end_with(kMost)), *const none = pool.make();
    ASSERT_NE(literal, nullptr);
    EXPECT_EQ(dynstr_addstring_size(none, "abc", INT_MAX), 0U) << "counted is the rest of the text";
    EXPECT_EQ(show(dynstr_getstring(none)), "abc");
    EXPECT_EQ(dynstr_addstring(literal, "y"), kNoMemory);
    EXPECT_EQ(recorder().take_trace(), kBadSize);
    EXPECT_EQ(dynstr_integrity_check(pool.id(), 0), 1);
}

TEST(appends, know_their_buffer_by_its_number)
{
    const SmallPool pool(64, 2, 20);
    static char side_by_side[64];
    auto &control = const_cast<memm::strings::TextPool &>(pool.control());
    control.buf[0] = side_by_side;
    control.buf[1] = side_by_side + 32;
    dynstr *const full = pool.make("0123456789012345678901234567890");
    memm_free(pool.make("x"));  // the first buffer is full: now the second one is current
    const memm_pooloptions &hooks = memm_get_pool_nolock(pool.id())->options;
    hooks.gc_cb(hooks.cookie, 0, 0);
    hooks.gc_cb(hooks.cookie, 0, 0);
    ASSERT_EQ(control.curbuf, 1U);
    ASSERT_EQ(control.used[1], 0U);
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
    dynstr *const d = pool.make();
    recorder().fail_nth(Op::retmem, 1);
    EXPECT_EQ(dynstr_setstring(d, "abcdef"), 0U);
    EXPECT_EQ(recorder().take_trace(), "[DYNSTR] ERROR: loc_dynstr_updatepool failed to release dynamic memory\r\n");
    EXPECT_EQ(show(dynstr_getstring(d)), "abcdef");
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
            ASSERT_EQ(dynstr_addstring(mine, std::string(1, letter).c_str()), 0U);
            dynstr *const copy = dynstr_fromdynstr(mine);
            ASSERT_NE(copy, nullptr);
            EXPECT_TRUE(dynstr_isdynstring(copy) == 1 && dynstr_getmaxsize(copy) == 0);
            EXPECT_EQ(dynstr_strlen(copy), expected.size());
            EXPECT_EQ(dynstr_strcmp2(copy, expected.c_str()), 0);
            EXPECT_EQ(memm_free(copy), 0);
        }
    };
    std::vector<std::thread> threads;
    for (const char letter : {'a', 'b', 'c', 'd'}) {
        threads.emplace_back(work, letter);
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_GT(pool.control().gccnt, 0U);
    EXPECT_TRUE(pool.is_sound());
}

}  // namespace
