#include "support/recording_platform.h"

#include "small_pool.h"

#include <memmanager/platform.h>
#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <numeric>
#include <random>
#include <sys/mman.h>

namespace {

constexpr unsigned kInvalid = MEMM_E_INVALID;
constexpr unsigned kMax = 0xffffffffU;
constexpr int kLowest = -2147483647 - 1, kHighest = 2147483647;

// An output as the caller declares it, and what lies behind it.
template <typename Value> struct Output {
    Value value;
    unsigned char behind[8];

    Output() { std::memset(static_cast<void *>(this), 0xa5, sizeof *this); }
    bool is_untouched_from(std::size_t offset) const
    {
        const auto *bytes = reinterpret_cast<const unsigned char *>(this);
        return std::all_of(bytes + offset, bytes + sizeof *this, [](unsigned char byte) { return byte == 0xa5; });
    }
};

// What a reader makes of a text, and that it wrote its value alone, or nothing.
template <typename Value, typename Pointer>
unsigned read(unsigned (*reader)(const dynstr *, Pointer *), const char *text, Value &value)
{
    static const SmallPool pool;
    dynstr *const string = dynstr_fromstring(pool.id(), text);
    if (*text == '\0') {
        EXPECT_EQ(dynstr_sprintf(string, "%s", ""), 0U);  // a text without characters is not a string without text
    }
    Output<Value> output;
    const unsigned result = reader(string, reinterpret_cast<Pointer *>(&output.value));
    EXPECT_TRUE(output.is_untouched_from(result == 0 ? sizeof value : 0)) << text;
    value = output.value;
    EXPECT_EQ(memm_free(string), 0);
    return result;
}

struct Mac {
    unsigned char bytes[6];
    bool operator==(const Mac &) const = default;
};

TEST(number_readers, give_what_a_long_of_32_bits_gives)
{
    struct Case {
        const char *text;
        unsigned expected, as_unsigned;
        int as_signed;
    };
    constexpr Case kCases[] = {
        {"0", 0, 0, 0},
        {"  42x", 0, 42, 42},
        {"\t\n\v\f\r +7", 0, 7, 7},
        {"010", 0, 10, 10},
        {"0x10", 0, 0, 0},
        {"1,000", 0, 1, 1},
        {"-0", 0, 0, 0},
        {"-1", 0, kMax, -1},
        {"2147483647", 0, 2147483647, kHighest},
        {"2147483648", 0, 2147483648, kHighest},
        {"-2147483648", 0, 2147483648, kLowest},
        {"-2147483649", 0, 2147483647, kLowest},
        {"4294967295", 0, kMax, kHighest},
        {"-4294967295", 0, 1, kLowest},
        {"4294967296", 0, kMax, kHighest},
        {"-4294967296", 0, kMax, kLowest},
        {"18446744073709551616", 0, kMax, kHighest},
        {"-999999999999999999999999999999", 0, kMax, kLowest},
        {"", kInvalid, 0, 0},
        {" ", kInvalid, 0, 0},
        {"-", kInvalid, 0, 0},
        {"+-5", kInvalid, 0, 0},
        {"- 5", kInvalid, 0, 0},
        {"x42", kInvalid, 0, 0},
        {"\xa0"
         "5",
         kInvalid, 0, 0},
        {"\xb2", kInvalid, 0, 0},
    };
    for (const Case &test : kCases) {
        unsigned value = 0;
        int signed_value = 0;
        ASSERT_EQ(read(dynstr_getulong, test.text, value), test.expected) << test.text;
        ASSERT_EQ(read(dynstr_getlong, test.text, signed_value), test.expected) << test.text;
        if (test.expected == 0) {
            EXPECT_EQ(value, test.as_unsigned) << test.text;
            EXPECT_EQ(signed_value, test.as_signed) << test.text;
        }
    }
}

TEST(bool_reader, looks_at_the_first_character_alone)
{
    for (int c = 1; c < 256; ++c) {
        for (const char *rest : {"", "alse", "1"}) {
            unsigned value = 0;
            ASSERT_EQ(read(dynstr_getbool, (std::string(1, static_cast<char>(c)) + rest).c_str(), value), 0U);
            EXPECT_EQ(value, c == '0' || c == 'f' ? 0U : 1U) << c;
        }
    }
    unsigned value = 1;
    ASSERT_EQ(read(dynstr_getbool, "", value), 0U);
    EXPECT_EQ(value, 0U);
}

TEST(address_reader, takes_every_form_that_inet_aton_takes)
{
    struct Case {
        const char *text, *expected;
    };
    constexpr Case kCases[] = {{"", "0.0.0.0"},          {"192.168.1.2", "192.168.1.2"},
                               {"10.1", "10.0.0.1"},     {"0x0a.1.2.3", "10.1.2.3"},
                               {"010.0.0.1", "8.0.0.1"}, {"4294967295", "255.255.255.255"},
                               {"1.2.3.4 x", "1.2.3.4"}, {"1.2.3.256", nullptr},
                               {" 1.2.3.4", nullptr},    {"1.2.3.4x", nullptr},
                               {"1.2.3.4.5", nullptr},   {"\xff", nullptr}};
    for (const Case &test : kCases) {
        unsigned address = 0;
        ASSERT_EQ(read(dynstr_getipaddr, test.text, address), test.expected == nullptr ? kInvalid : 0U) << test.text;
        if (test.expected != nullptr) {
            EXPECT_EQ(address, inet_addr(test.expected)) << test.text;
        }
    }
}

TEST(mac_reader, reads_twelve_or_seventeen_characters)
{
    struct Case {
        const char *text;
        bool is_read;
        Mac expected;
    };
    constexpr Case kCases[] = {
        {"001122aAbBfF", true, {{0, 0x11, 0x22, 0xaa, 0xbb, 0xff}}},
        {"00:11-22 33x4455", false, {}},
        {"00:11-22.33x44\xff"
         "55",
         true,
         {{0, 0x11, 0x22, 0x33, 0x44, 0x55}}},
        {"0x:0X:-1:+a: 7:f:", true, {{0, 0, 0xff, 0x0a, 7, 0x0f}}},
        {"1:2:3:4:5:6------", true, {{1, 2, 3, 4, 5, 6}}},
        {"1 2 3 4 5 6 ", true, {{1, 2, 3, 4, 5, 6}}},
        {"00:11:22:33:44:g5", false, {}},
        {"00:11:22:33:44:  ", false, {}},
        {"00:11:22:33:44:5", false, {}},
        {"00:11:22:33:44:556", false, {}},
        {"0011.2233.4455", false, {}},
        {"00112233445", false, {}},
        {"0011223344g5", false, {}},
        {"", false, {}},
    };
    for (const Case &test : kCases) {
        Mac mac{};
        ASSERT_EQ(read(dynstr_getmacaddr, test.text, mac), test.is_read ? 0 : kInvalid) << test.text;
        if (test.is_read) {
            EXPECT_EQ(mac, test.expected) << test.text;
        }
    }
}

bool locked_while_asked = false;

}  // namespace

// The one calendar operation that is replaced: it sees whether the lock is held.
unsigned xtm_getdaylightsaving(int *flag)
{
    locked_while_asked = recorder().manager_lock_depth() != 0;
    *flag = 0;
    return 0;
}

namespace {

TEST(date_reader, takes_fields_out_of_range_and_cuts_the_result)
{
    struct Case {
        const char *text;
        unsigned expected, seconds;
    };
    constexpr Case kCases[] = {
        {"0001-01-01T00:00:00Z", 0, 0},
        {"1970-01-01T00:00:01Z", 0, 1},
        {"1970-1-1T0:0:1", 0, 1},
        {" 1970- 1- 1T 0: 0: 1", 0, 1},
        {"1970-01-01T00:00:1", 0, 1},
        {"1970-01-01T00:00:01+02:00", 0, 1},
        {"2106-02-07T06:28:15Z", 0, kMax},
        {"2106-02-07T06:28:16Z", 0, 0},
        {"1969-12-31T23:59:59Z", 0, kMax},
        {"2024-02-30T25:61:61Z", 0, 1709344921},
        {"2024-14-00T-1:-1:-1Z", 0, 1738277939},
        {"0001-01-01T00:00:00", 0, 2288912640},
        {"02024-02-30T25:61:61Z", kInvalid, 0},
        {"2024-02 -30T25:61:61Z", kInvalid, 0},
        {"2024-02-30t25:61:61Z", kInvalid, 0},
        {"2024-02-30T25:61:", kInvalid, 0},
        {"2024-02-30", kInvalid, 0},
        {"", kInvalid, 0},
    };
    for (const Case &test : kCases) {
        unsigned seconds = 0;
        locked_while_asked = false;
        ASSERT_EQ(read(dynstr_getutcdatetime, test.text, seconds), test.expected) << test.text;
        if (test.expected == 0) {
            EXPECT_EQ(seconds, test.seconds) << test.text;
        }
        EXPECT_FALSE(locked_while_asked) << test.text;
    }
}

// Texts that are nearly right, put together from the characters that matter.
std::string any_text(std::mt19937 &random)
{
    static const std::string kCharacters = "0123456789abcfxXTZ:--+ \t\n\x85\xff";
    static const std::string kModels[] = {"1234567", "-98765", "001122aabbcc", "00:11:22:aa:bb:cc",
                                          "2024-02-03T04:05:06Z"};
    std::string text = kModels[random() % std::size(kModels)];
    for (auto changes = random() % 5; changes > 0; --changes) {
        text[random() % text.size()] = kCharacters[random() % kCharacters.size()];
    }
    return random() % 8 == 0 ? text.substr(random() % text.size()) : text;
}

TEST(readers, agree_with_sscanf_on_texts_that_are_nearly_right)
{
    std::mt19937 random(20241);
    int accepted[4] = {};
    for (int round = scaled(40000); round > 0; --round) {
        const std::string text = any_text(random);
        long long whole = 0;
        const bool is_number = std::sscanf(text.c_str(), "%lld", &whole) == 1;
        unsigned value = 0;
        int signed_value = 0;
        ASSERT_EQ(read(dynstr_getulong, text.c_str(), value), is_number ? 0 : kInvalid) << text;
        ASSERT_EQ(read(dynstr_getlong, text.c_str(), signed_value), is_number ? 0 : kInvalid) << text;
        if (is_number) {
            ASSERT_EQ(value,
                      whole > kMax || whole < -static_cast<long long>(kMax) ? kMax : static_cast<unsigned>(whole));
            ASSERT_EQ(signed_value, std::clamp<long long>(whole, kLowest, kHighest)) << text;
            ++accepted[0];
        }

        unsigned m[6] = {};
        char c = 0;
        const bool is_mac = (text.size() == 12 && std::sscanf(text.c_str(), "%02x%02x%02x%02x%02x%02x", m, m + 1, m + 2,
                                                              m + 3, m + 4, m + 5) == 6) ||
                            (text.size() == 17 && std::sscanf(text.c_str(), "%02x%c%02x%c%02x%c%02x%c%02x%c%02x", m, &c,
                                                              m + 1, &c, m + 2, &c, m + 3, &c, m + 4, &c, m + 5) == 11);
        Mac mac{}, expected{};
        std::copy_n(m, 6, expected.bytes);
        ASSERT_EQ(read(dynstr_getmacaddr, text.c_str(), mac), is_mac ? 0 : kInvalid) << text;
        if (is_mac) {
            ASSERT_EQ(mac, expected) << text;
            ++accepted[text.size() == 12 ? 1 : 2];
        }

        xtm_date date{};
        const bool is_date = std::sscanf(text.c_str(), "%04d-%02d-%02dT%02d:%02d:%02dZ", &date.years, &date.month,
                                         &date.day, &date.hours, &date.minutes, &date.seconds) == 6;
        unsigned seconds = 0, expected_seconds = 0;
        ASSERT_EQ(read(dynstr_getutcdatetime, text.c_str(), seconds), is_date ? 0 : kInvalid) << text;
        if (is_date) {
            date.years -= 1900;
            --date.month;
            xtm_time_date_struct_to_seconds(&expected_seconds, &date);
            ASSERT_EQ(seconds, expected_seconds) << text;
            ++accepted[3];
        }
    }
    EXPECT_GT(*std::min_element(accepted, std::end(accepted)), 0) << "a kind of text was never right";
}

TEST(hexadecimal, every_byte_has_the_value_of_the_rule)
{
    const SmallPool pool;
    const auto nibble = [](int c) {
        return std::tolower(c) < 'a' ? std::tolower(c) - '0' : std::tolower(c) - 'a' + 10;
    };
    for (int c = 1; c < 256; ++c) {
        const char digits[] = {'1', static_cast<char>(c), static_cast<char>(c), '1', static_cast<char>(c), '\0'};
        dynstr *const string = dynstr_fromstring(pool.id(), digits);
        Output<unsigned char[4]> bytes;
        ASSERT_EQ(dynstr_gethexstring(string, bytes.value, 4), 0U);
        EXPECT_EQ(bytes.value[0], static_cast<unsigned char>(1 << 4 | nibble(c))) << c;
        EXPECT_EQ(bytes.value[1], static_cast<unsigned char>(nibble(c) * 16 | 1)) << c;
        EXPECT_EQ(bytes.value[2], static_cast<unsigned char>(nibble(c) * 16)) << c;
        EXPECT_EQ(bytes.value[3], 0);  // cleared, for no digit came so far
        EXPECT_TRUE(bytes.is_untouched_from(4));
        memm_free(string);
    }
}

TEST(hexadecimal, goes_both_ways_at_every_length)
{
    const SmallPool pool(400000, 2);
    dynstr *const string = pool.make();
    std::vector<unsigned char> bytes(70000), back(bytes.size() + 1);
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(0));
    for (const int count : {0, 1, 2, 3, 256, 32766, 32767, 32768, 70000}) {
        ASSERT_EQ(dynstr_sethexstring(string, bytes.data(), count), 0U);
        ASSERT_EQ(dynstr_strlen(string), 2U * static_cast<unsigned>(count));
        std::fill(back.begin(), back.end(), static_cast<unsigned char>(0xa5));
        if (count > 0) {
            EXPECT_EQ(dynstr_gethexstring(string, back.data(), count - 1), unsigned{MEMM_E_TOO_SMALL});
        }
        EXPECT_EQ(dynstr_gethexstring(string, back.data(), -1), unsigned{MEMM_E_TOO_SMALL});
        EXPECT_EQ(std::count(back.begin(), back.end(), 0xa5), static_cast<long>(back.size()));
        ASSERT_EQ(dynstr_gethexstring(string, back.data(), count), 0U);
        EXPECT_TRUE(std::equal(back.begin(), back.begin() + count, bytes.begin()));
        EXPECT_EQ(back[static_cast<std::size_t>(count)], 0xa5);
        EXPECT_TRUE(pool.is_sound()) << count;
    }
}

// --- the way in: arguments, traces, lock tags ---

struct Reader {
    const char *name, *tag;
    bool takes_empty;
    const char *text;  // that it can read
    std::function<unsigned(const dynstr *, void *)> call;
};

const Reader kReaders[] = {
    {"dynstr_getulong", "dynstr_getulong", false, "1",
     [](auto *d, void *out) { return dynstr_getulong(d, static_cast<unsigned *>(out)); }},
    {"dynstr_getlong", "dynstr_getulong", false, "1",
     [](auto *d, void *out) { return dynstr_getlong(d, static_cast<int *>(out)); }},
    {"dynstr_getbool", "dynstr_getbool", true, "1",
     [](auto *d, void *out) { return dynstr_getbool(d, static_cast<unsigned *>(out)); }},
    {"dynstr_getipaddr", "dynstr_getipaddr", false, "1.2.3.4",
     [](auto *d, void *out) { return dynstr_getipaddr(d, static_cast<unsigned *>(out)); }},
    {"dynstr_getmacaddr", "dynstr_getmacaddr", false, "001122334455",
     [](auto *d, void *out) { return dynstr_getmacaddr(d, static_cast<unsigned char *>(out)); }},
    {"dynstr_getutcdatetime", "dynstr_getutcdatetime", false, "1970-01-01T00:00:01Z",
     [](auto *d, void *out) { return dynstr_getutcdatetime(d, static_cast<unsigned *>(out)); }},
    {"dynstr_gethexstring", "dynstr_gethexstring", true, "01",
     [](auto *d, void *out) { return dynstr_gethexstring(d, static_cast<unsigned char *>(out), 4); }},
};

TEST(readers, refuse_what_is_no_string_and_name_themselves)
{
    const SmallPool pool;
    void **const foreign =
        static_cast<void **>(memm_calloc(static_cast<unsigned>(memm_initpool("other", 2, 64, nullptr))));
    dynstr *const deleted = pool.make("1"), *const empty = pool.make();
    memm_free(deleted);
    void *const hole = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    for (const Reader &reader : kReaders) {
        SCOPED_TRACE(reader.name);
        const std::string complaint = text("[DYNSTR] %s: invalid dynstring passed\r\n", reader.name);
        const std::string if_empty = reader.takes_empty ? complaint : "";  // others refuse null texts without a word
        Output<unsigned char[8]> output;
        const auto refused = [&](const void *d, void *out, const std::string &trace) {
            recorder().take_tags();
            EXPECT_EQ(reader.call(static_cast<const dynstr *>(d), out), kInvalid);
            EXPECT_EQ(recorder().take_trace(), trace);
            EXPECT_EQ(recorder().take_tags(), Texts());
        };
        *foreign = nullptr;
        refused(nullptr, output.value, "");
        refused(pool.make("1"), nullptr, "");
        refused(deleted, output.value, complaint);
        refused(foreign, output.value, if_empty);
        *foreign = &output;
        refused(foreign, output.value, complaint);
        refused(hole, output.value, complaint);
        refused(static_cast<char *>(hole) + 3, output.value, complaint);
        memm_set_trace(1);
        refused(deleted, output.value, "");
        memm_set_trace(2);
        if (!reader.takes_empty) {
            refused(empty, output.value, "");
        }
        EXPECT_TRUE(output.is_untouched_from(0));
        EXPECT_TRUE(!reader.takes_empty || reader.call(empty, output.value) == 0);
    }
    munmap(hole, 4096);
}

TEST(readers, take_the_lock_under_their_tags)
{
    const SmallPool pool;
    for (const Reader &reader : kReaders) {
        unsigned char output[8];
        dynstr *const string = pool.make(reader.text);
        recorder().take_tags();
        EXPECT_EQ(reader.call(string, output), 0U) << reader.name;
        Texts expected{reader.tag};
        if (std::strcmp(reader.name, "dynstr_getutcdatetime") == 0) {
            expected.insert(expected.begin(), "dynstr_strcmp2");
        }
        EXPECT_EQ(recorder().take_tags(), expected) << reader.name;
    }
}

// --- writers ---

constexpr unsigned char kMac[] = {0x00, 0x1a, 0xB2, 0xff, 0x05, 0x60};
unsigned address_of(const char *text) { return inet_addr(text); }

struct Writer {
    const char *expected;
    std::function<unsigned(dynstr *)> set;
    std::function<dynstr *(unsigned)> create;  // where there is one
};

const Writer kWriters[] = {
    {"0", [](auto *d) { return dynstr_setulong(d, 0); }, [](unsigned pool) { return dynstr_fromulong(pool, 0); }},
    {"4294967295", [](auto *d) { return dynstr_setulong(d, kMax); },
     [](unsigned pool) { return dynstr_fromulong(pool, kMax); }},
    {"-2147483648", [](auto *d) { return dynstr_setlong(d, kLowest); },
     [](unsigned pool) { return dynstr_fromlong(pool, kLowest); }},
    {"192.168.1.2", [](auto *d) { return dynstr_setipaddr(d, address_of("192.168.1.2")); },
     [](unsigned pool) { return dynstr_fromipaddr(pool, address_of("192.168.1.2")); }},
    {"255.0.255.0", [](auto *d) { return dynstr_setipaddr(d, address_of("255.0.255.0")); }, nullptr},
    {"00:1a:b2:ff:05:60", [](auto *d) { return dynstr_setmacaddr(d, kMac); },
     [](unsigned pool) { return dynstr_frommacaddr(pool, kMac); }},
    {"0001-01-01T00:00:00Z", [](auto *d) { return dynstr_setutcdatetime(d, 0); }, nullptr},
    {"2106-02-07T06:28:15Z", [](auto *d) { return dynstr_setutcdatetime(d, kMax); }, nullptr},
};

TEST(writers, do_what_formatted_output_does)
{
    const SmallPool pool;
    for (const Writer &writer : kWriters) {
        SCOPED_TRACE(writer.expected);
        const std::string expected = writer.expected;
        for (unsigned max = 0; max <= expected.size() + 2; ++max) {
            dynstr *const string = pool.make("before", 0);
            EXPECT_EQ(dynstr_setmaxsize(string, max), 0U);
            recorder().take_tags();
            EXPECT_EQ(writer.set(string), 0U);
            EXPECT_EQ(recorder().take_tags(), Texts{"dynstr_sprintf"});
            EXPECT_EQ(dynstr_getstring(string), max == 0 ? expected : expected.substr(0, max - 1));
            EXPECT_EQ(dynstr_getmaxsize(string), max);
            EXPECT_TRUE(pool.is_sound());
            memm_free(string);
        }
        EXPECT_EQ(writer.set(nullptr), kInvalid);
        EXPECT_EQ(recorder().take_trace(), "");
        recorder().take_tags();
        EXPECT_EQ(writer.set(reinterpret_cast<dynstr *>(8)), kInvalid);
        EXPECT_EQ(recorder().take_trace(), "[DYNSTR] dynstr_sprintf: invalid dynstr passed\r\n");
        if (writer.create) {
            EXPECT_EQ(writer.create(0), nullptr);
            EXPECT_EQ(recorder().take_trace(), "[DYNSTR] dynstr_fromprintf: invalid poolid passed\r\n");
            EXPECT_EQ(recorder().take_tags(), Texts());
            dynstr *const created = writer.create(pool.id());
            EXPECT_EQ(recorder().take_tags(), Texts{"dynstr_fromprintf"});
            EXPECT_EQ(dynstr_getstring(created), expected);
            memm_free(created);
        }
    }
    EXPECT_EQ(dynstr_setmacaddr(pool.make(), nullptr), kInvalid);
    EXPECT_EQ(dynstr_frommacaddr(pool.id(), nullptr), nullptr);
}

// Two pools, one written by values and one by formats, small enough to compact all the time.
TEST(writers, leave_their_pool_as_formatted_output_leaves_it)
{
    const SmallPool values(70, 2, 100), formats(70, 2, 100);
    std::mt19937 random(7);
    std::vector<std::pair<dynstr *, dynstr *>> live;
    const auto words = [](const SmallPool &pool) {
        const memm::strings::TextPool &p = pool.control();
        return std::vector<unsigned>{p.curbuf, p.used[0], p.used[1], p.cnt[0],    p.cnt[1], p.usedbytes, p.delbytes,
                                     p.flags,  p.peak[0], p.peak[1], p.peakbytes, p.gccnt,  p.gctotbytes};
    };
    int failures = 0;
    for (int round = scaled(20000); round > 0; --round) {
        const unsigned value = static_cast<unsigned>(random() >> random() % 32);
        const bool is_refused = random() % 8 == 0;
        const auto attempt = [is_refused](auto operation) {
            if (is_refused) {
                recorder().fail_nth(Op::getmem, 1);
            }
            const auto result = operation();
            recorder().fail_never();
            return result;
        };
        if (live.size() < 9 && random() % 2 == 0) {
            dynstr *const a = attempt([&] { return dynstr_fromulong(values.id(), value); });
            dynstr *const b = attempt([&] { return dynstr_fromprintf(formats.id(), "%u", value); });
            ASSERT_EQ(a == nullptr, b == nullptr);
            if (a == nullptr) {
                ++failures;
            } else {
                live.emplace_back(a, b);
            }
        } else if (!live.empty()) {
            auto &pair = live[random() % live.size()];
            const auto [a, b] = pair;
            if (random() % 4 == 0) {
                memm_free(a);
                memm_free(b);
                std::swap(pair, live.back());
                live.pop_back();
            } else {
                const unsigned max = static_cast<unsigned>(random() % 9);
                ASSERT_EQ(dynstr_setmaxsize(a, max), dynstr_setmaxsize(b, max));
                const unsigned result = attempt([&] { return dynstr_setulong(a, value); });
                ASSERT_EQ(result, attempt([&] { return dynstr_sprintf(b, "%u", value); }));
                ASSERT_STREQ(dynstr_getstring(a), dynstr_getstring(b));
                failures += result == 0 ? 0 : 1;
            }
        }
        ASSERT_EQ(words(values), words(formats)) << round;
    }
    EXPECT_TRUE(values.is_sound() && formats.is_sound());
    EXPECT_GT(failures, 0);
    EXPECT_NE(recorder().calls(Op::getmem), 0U);
    recorder().allow_reports();
}

TEST(dates, come_back_as_they_were_written)
{
    const SmallPool pool;
    dynstr *const string = pool.make();
    std::mt19937 random(3);
    for (int round = 0; round < 2000; ++round) {
        const auto seconds = static_cast<unsigned>(random());
        const auto time = static_cast<std::time_t>(seconds);
        std::tm date{};
        char expected[32];
        std::strftime(expected, sizeof expected, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&time, &date));
        ASSERT_EQ(dynstr_setutcdatetime(string, seconds), 0U);
        ASSERT_STREQ(dynstr_getstring(string), expected);
        unsigned back = 0;
        ASSERT_EQ(dynstr_getutcdatetime(string, &back), 0U);
        ASSERT_EQ(back, seconds);
    }
}

}  // namespace
