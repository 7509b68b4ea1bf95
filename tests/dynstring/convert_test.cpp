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

constexpr unsigned kInvalid = MEMM_E_INVALID, kMax = 0xffffffffU;
constexpr int kLowest = -2147483647 - 1, kHighest = 2147483647;

// What a reader writes to, and what lies behind it.
struct Output {
    unsigned char bytes[16];
    Output() { std::memset(bytes, 0xa5, sizeof bytes); }
    bool is_untouched_from(std::size_t offset) const
    {
        return std::all_of(bytes + offset, std::end(bytes), [](unsigned char byte) { return byte == 0xa5; });
    }
    template <typename Value> Value as() const
    {
        Value value;
        std::memcpy(&value, bytes, sizeof value);
        return value;
    }
};

std::string show_unsigned(const Output &output) { return std::to_string(output.as<unsigned>()); }
std::string show_signed(const Output &output) { return std::to_string(output.as<int>()); }
std::string show_address(const Output &output) { return inet_ntoa(output.as<in_addr>()); }
std::string show_mac(const Output &output)
{
    const unsigned char *const m = output.bytes;
    return text("%02x%02x%02x%02x%02x%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
}
std::string show_hex(const Output &output) { return text("%02x%02x", output.bytes[0], output.bytes[1]); }

struct Reader {
    const char *name, *tag;
    bool takes_empty;
    std::size_t width;
    const char *good;  // a text that it reads
    std::function<unsigned(const dynstr *, void *)> call;
    std::string (*show)(const Output &);
};

template <typename Value> auto as_reader(unsigned (*reader)(const dynstr *, Value *))
{
    return [reader](const dynstr *d, void *out) { return reader(d, static_cast<Value *>(out)); };
}

enum : unsigned { kUlong, kLong, kBool, kAddress, kMacAddress, kDate, kHex };
const Reader kReaders[] = {
    {"dynstr_getulong", "dynstr_getulong", false, 4, "1", as_reader(dynstr_getulong), show_unsigned},
    {"dynstr_getlong", "dynstr_getulong", false, 4, "1", as_reader(dynstr_getlong), show_signed},
    {"dynstr_getbool", "dynstr_getbool", true, 4, "1", as_reader(dynstr_getbool), show_unsigned},
    {"dynstr_getipaddr", "dynstr_getipaddr", false, 4, "1.2", as_reader(dynstr_getipaddr), show_address},
    {"dynstr_getmacaddr", "dynstr_getmacaddr", false, 6, "001122334455", as_reader(dynstr_getmacaddr), show_mac},
    {"dynstr_getutcdatetime", "dynstr_getutcdatetime", false, 4, "2000-01-01T00:00:00Z",
     as_reader(dynstr_getutcdatetime), show_unsigned},
    {"dynstr_gethexstring", "dynstr_gethexstring", true, 2, "01",
     [](auto *d, void *out) { return dynstr_gethexstring(d, static_cast<unsigned char *>(out), 2); }, show_hex},
};

const std::string kRefused = "refused";

// What a reader makes of a text. It writes its value alone, or nothing.
std::string outcome(unsigned which, const std::string &text)
{
    static const SmallPool pool;
    const Reader &reader = kReaders[which];
    dynstr *const string = dynstr_fromprintf(pool.id(), "%s", text.c_str());
    Output output;
    const unsigned result = reader.call(string, output.bytes);
    EXPECT_EQ(memm_free(string), 0);
    EXPECT_TRUE(result == 0 || result == kInvalid) << result;
    EXPECT_TRUE(output.is_untouched_from(result == 0 ? reader.width : 0)) << text;
    return result == 0 ? reader.show(output) : kRefused;
}

TEST(readers, give_numbers_as_with_a_long_of_32_bits)
{
    struct Case {
        const char *text;
        std::string as_unsigned, as_signed;
    };
    const std::string kTop = "4294967295", kHigh = "2147483647", kLow = "-2147483648";
    const Case kCases[] = {{"0", "0", "0"},
                           {"  42x", "42", "42"},
                           {"\t\n\v\f\r +7", "7", "7"},
                           {"010", "10", "10"},
                           {"0x10", "0", "0"},
                           {"1,000", "1", "1"},
                           {"-1", kTop, "-1"},
                           {"2147483648", "2147483648", kHigh},
                           {"-2147483648", "2147483648", kLow},
                           {"-2147483649", kHigh, kLow},
                           {"4294967295", kTop, kHigh},
                           {"-4294967295", "1", kLow},
                           {"4294967296", kTop, kHigh},
                           {"-4294967296", kTop, kLow},
                           {"18446744073709551617", kTop, kHigh},
                           {"-99999999999999999999999", kTop, kLow}};
    for (const Case &test : kCases) {
        EXPECT_EQ(outcome(kUlong, test.text), test.as_unsigned) << test.text;
        EXPECT_EQ(outcome(kLong, test.text), test.as_signed) << test.text;
    }
    for (const char *bad : {"", " ", "-", "+-5", "- 5", "x42", "\xa0 5", "\xb2", "\x80"}) {
        EXPECT_EQ(outcome(kUlong, bad) + outcome(kLong, bad), kRefused + kRefused) << bad;
    }
}

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

TEST(readers, know_the_forms_of_their_values)
{
    struct Case {
        unsigned reader;
        std::string text, expected;
    };
    const Case kCases[] = {
        {kBool, "", "0"},
        {kAddress, "", "0.0.0.0"},
        {kAddress, "192.168.1.2", "192.168.1.2"},
        {kAddress, "10.1", "10.0.0.1"},
        {kAddress, "0x0a.010.2.3 x", "10.8.2.3"},
        {kMacAddress, "001122aAbBfF", "001122aabbff"},
        {kMacAddress, "00x11-22.33\x85 4 55", "001122330455"},
        {kMacAddress, "0x:0X:-1:+a: 7:f:", "0000ff0a070f"},
        {kMacAddress, "1:2:3:4:5:6------", "010203040506"},
        {kMacAddress, "1 2 3 4 5 6 ", "010203040506"},
        {kDate, "0001-01-01T00:00:00Z", "0"},
        {kDate, "0001-01-01T00:00:00", "2288912640"},
        {kDate, " 1970-1- 1T0: 0:1", "1"},
        {kDate, "1970-01-01T00:00:01+02:00", "1"},
        {kDate, "2106-02-07T06:28:16Z", "0"},
        {kDate, "1969-12-31T23:59:59Z", "4294967295"},
        {kDate, "2024-02-30T25:61:61Z", "1709344921"},
        {kDate, "2024-14-00T-1:-1:-1Z", "1738277939"},
    };
    for (const Case &test : kCases) {
        EXPECT_EQ(outcome(test.reader, test.text), test.expected) << test.text;
    }
    for (const char *bad : {"1.2.3.256", " 1.2.3.4", "1.2.3.4x", "1.2.3.4.5", "\xff"}) {
        EXPECT_EQ(outcome(kAddress, bad), kRefused) << bad;
    }
    for (const char *bad : {"", "0011223344g5", "00112233445", "0011.2233.4455", "00:11:22:33:44:5",
                            "00:11:22:33:44:g5", "00:11:22:33:44:  ", "00:11:22:33:44:556"}) {
        EXPECT_EQ(outcome(kMacAddress, bad), kRefused) << bad;
    }
    for (const char *bad :
         {"", "02024-02-03T04:05:06Z", "2024-02 -03T04:05:06Z", "2024-02-03t04:05:06Z", "2024-02-03T04:05:"}) {
        EXPECT_EQ(outcome(kDate, bad), kRefused) << bad;
    }
    EXPECT_FALSE(locked_while_asked);
    for (int c = 1; c < 256; ++c) {
        EXPECT_EQ(outcome(kBool, text("%calse", c)), c == '0' || c == 'f' ? "0" : "1") << c;
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
    for (int round = scaled(40000); round > 0; --round) {
        const std::string any = any_text(random);
        const char *const s = any.c_str();
        std::string number = kRefused, signed_number = kRefused, mac = kRefused, date = kRefused;
        long long whole = 0;
        if (std::sscanf(s, "%lld", &whole) == 1) {
            number = std::to_string(whole > kMax || whole < -static_cast<long long>(kMax) ? kMax : whole & kMax);
            signed_number = std::to_string(std::clamp<long long>(whole, kLowest, kHighest));
        }
        unsigned m[6] = {};
        char c = 0;
        if ((any.size() == 12 &&
             std::sscanf(s, "%02x%02x%02x%02x%02x%02x", m, m + 1, m + 2, m + 3, m + 4, m + 5) == 6) ||
            (any.size() == 17 && std::sscanf(s, "%02x%c%02x%c%02x%c%02x%c%02x%c%02x", m, &c, m + 1, &c, m + 2, &c,
                                             m + 3, &c, m + 4, &c, m + 5) == 11)) {
            mac.clear();
            std::for_each(m, std::end(m), [&mac](unsigned byte) { mac += text("%02x", byte & 0xff); });
        }
        xtm_date d{};
        if (std::sscanf(s, "%04d-%02d-%02dT%02d:%02d:%02dZ", &d.years, &d.month, &d.day, &d.hours, &d.minutes,
                        &d.seconds) == 6) {
            unsigned seconds = 0;
            d.years -= 1900;
            --d.month;
            xtm_time_date_struct_to_seconds(&seconds, &d);
            date = std::to_string(seconds);
        }
        ASSERT_EQ(outcome(kUlong, any), number) << any;
        ASSERT_EQ(outcome(kLong, any), signed_number) << any;
        ASSERT_EQ(outcome(kMacAddress, any), mac) << any;
        ASSERT_EQ(outcome(kDate, any), date) << any;
    }
}

TEST(readers, refuse_what_is_no_string_and_name_themselves)
{
    const SmallPool pool;
    const auto other = static_cast<unsigned>(memm_initpool("", 2, 64, nullptr));
    void **const foreign = static_cast<void **>(memm_calloc(other));
    dynstr *const deleted = pool.make("1"), *const empty = pool.make();
    memm_free(deleted);
    void *const hole = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    for (const Reader &reader : kReaders) {
        SCOPED_TRACE(reader.name);
        const std::string complaint = text("[DYNSTR] %s: invalid dynstring passed\r\n", reader.name);
        dynstr *const good = pool.make(reader.good);
        Output output;
        const auto refused = [&](const void *d, void *out, const std::string &trace) {
            recorder().take_tags();
            EXPECT_EQ(reader.call(static_cast<const dynstr *>(d), out), kInvalid);
            EXPECT_EQ(recorder().take_trace(), trace);
            EXPECT_EQ(recorder().take_tags(), Texts());
        };
        refused(nullptr, output.bytes, "");
        refused(good, nullptr, "");
        refused(deleted, output.bytes, complaint);
        *foreign = &output;
        refused(foreign, output.bytes, complaint);
        *foreign = nullptr;  // most refuse a null text before they look whose it is
        refused(foreign, output.bytes, reader.takes_empty ? complaint : "");
        refused(hole, output.bytes, complaint);
        refused(static_cast<char *>(hole) + 3, output.bytes, complaint);
        memm_set_trace(1);
        refused(deleted, output.bytes, "");
        memm_set_trace(2);
        if (!reader.takes_empty) {
            refused(empty, output.bytes, "");
        }
        EXPECT_TRUE(output.is_untouched_from(0));
        EXPECT_TRUE(!reader.takes_empty || reader.call(empty, output.bytes) == 0);
        recorder().take_tags();
        EXPECT_EQ(reader.call(good, output.bytes), 0U);
        EXPECT_EQ(recorder().take_tags(),
                  &reader == &kReaders[kDate] ? Texts({"dynstr_strcmp2", reader.tag}) : Texts{reader.tag});
    }
    munmap(hole, 4096);
}

TEST(hexadecimal, every_byte_has_the_value_of_the_rule)
{
    const auto nibble = [](int c) {
        return std::tolower(c) < 'a' ? std::tolower(c) - '0' : std::tolower(c) - 'a' + 10;
    };
    for (int c = 1; c < 256; ++c) {
        EXPECT_EQ(outcome(kHex, text("1%c%c1", c, c)),
                  text("%02x%02x", (16 | nibble(c)) & 0xff, (nibble(c) * 16 | 1) & 0xff));
        EXPECT_EQ(outcome(kHex, text("%c", c)), text("%02x00", nibble(c) * 16 & 0xff));
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
        for (const int too_small : {count - 1, -1}) {
            EXPECT_EQ(dynstr_gethexstring(string, back.data(), too_small), unsigned{MEMM_E_TOO_SMALL});
        }
        EXPECT_EQ(std::count(back.begin(), back.end(), 0xa5), static_cast<long>(back.size()));
        ASSERT_EQ(dynstr_gethexstring(string, back.data(), count), 0U);
        EXPECT_TRUE(std::equal(back.begin(), back.begin() + count, bytes.begin()));
        EXPECT_EQ(back[static_cast<std::size_t>(count)], 0xa5);
        EXPECT_TRUE(pool.is_sound()) << count;
    }
}

constexpr unsigned char kMac[] = {0x00, 0x1a, 0xB2, 0xff, 0x05, 0x60};
const unsigned kHost = inet_addr("192.168.1.2"), kMask = inet_addr("255.0.255.0");

struct Writer {
    const char *expected;
    std::function<unsigned(dynstr *)> set;
    std::function<dynstr *(unsigned)> create = nullptr;  // where there is one
};

const Writer kWriters[] = {
    {"0", [](auto *d) { return dynstr_setulong(d, 0); }, [](auto id) { return dynstr_fromulong(id, 0); }},
    {"4294967295", [](auto *d) { return dynstr_setulong(d, kMax); },
     [](auto id) { return dynstr_fromulong(id, kMax); }},
    {"-2147483648", [](auto *d) { return dynstr_setlong(d, kLowest); },
     [](auto id) { return dynstr_fromlong(id, kLowest); }},
    {"192.168.1.2", [](auto *d) { return dynstr_setipaddr(d, kHost); },
     [](auto id) { return dynstr_fromipaddr(id, kHost); }},
    {"255.0.255.0", [](auto *d) { return dynstr_setipaddr(d, kMask); }},
    {"00:1a:b2:ff:05:60", [](auto *d) { return dynstr_setmacaddr(d, kMac); },
     [](auto id) { return dynstr_frommacaddr(id, kMac); }},
    {"0001-01-01T00:00:00Z", [](auto *d) { return dynstr_setutcdatetime(d, 0); }},
    {"2106-02-07T06:28:15Z", [](auto *d) { return dynstr_setutcdatetime(d, kMax); }},
};

TEST(writers, have_the_messages_and_tags_of_formatted_output)
{
    const SmallPool pool;
    for (const Writer &writer : kWriters) {
        SCOPED_TRACE(writer.expected);
        EXPECT_EQ(writer.set(nullptr), kInvalid);
        EXPECT_EQ(recorder().take_trace(), "");
        EXPECT_EQ(writer.set(reinterpret_cast<dynstr *>(8)), kInvalid);
        EXPECT_EQ(recorder().take_trace(), "[DYNSTR] dynstr_sprintf: invalid dynstr passed\r\n");
        dynstr *string = pool.make();
        recorder().take_tags();
        EXPECT_EQ(writer.set(string), 0U);
        EXPECT_EQ(recorder().take_tags(), Texts{"dynstr_sprintf"});
        EXPECT_STREQ(dynstr_getstring(string), writer.expected);
        if (writer.create) {
            recorder().take_tags();
            EXPECT_EQ(writer.create(0), nullptr);
            EXPECT_EQ(recorder().take_trace(), "[DYNSTR] dynstr_fromprintf: invalid poolid passed\r\n");
            EXPECT_EQ(recorder().take_tags(), Texts());
            string = writer.create(pool.id());
            EXPECT_EQ(recorder().take_tags(), Texts{"dynstr_fromprintf"});
            EXPECT_STREQ(dynstr_getstring(string), writer.expected);
        }
    }
    EXPECT_EQ(dynstr_setmacaddr(pool.make(), nullptr), kInvalid);
    EXPECT_EQ(dynstr_frommacaddr(pool.id(), nullptr), nullptr);
}

// Two pools, one written by values and one by formats, small enough to compact all the time.
TEST(writers, leave_their_pool_as_formatted_output_leaves_it)
{
    const SmallPool values(150, 2, 100), formats(150, 2, 100);
    const auto words = [](const SmallPool &pool) {
        const memm::strings::TextPool &p = pool.control();
        return std::vector{p.curbuf,   p.used[0], p.used[1],   p.cnt[0], p.cnt[1],    p.usedbytes,
                           p.delbytes, p.flags,   p.peakbytes, p.gccnt,  p.gctotbytes};
    };
    std::mt19937 random(7);
    std::pair<dynstr *, dynstr *> strings[8] = {};
    int failures = 0;
    for (int round = scaled(20000); round > 0; --round) {
        const Writer &writer = kWriters[random() % std::size(kWriters)];
        auto &[a, b] = strings[random() % std::size(strings)];
        const bool create = a == nullptr || (writer.create && random() % 4 == 0);
        const unsigned max = static_cast<unsigned>(random() % 30), refused_block = random() % 8 == 0 ? 1 : 0;
        if (create) {
            if (a != nullptr) {
                EXPECT_EQ(memm_free(a) + memm_free(b), 0);
            }
            recorder().fail_nth(Op::getmem, refused_block);
            a = writer.create ? writer.create(values.id()) : dynstr_calloc(values.id());
            recorder().fail_nth(Op::getmem, refused_block);
            b = writer.create ? dynstr_fromprintf(formats.id(), "%s", writer.expected) : dynstr_calloc(formats.id());
            ASSERT_EQ(a == nullptr, b == nullptr);
        } else {
            ASSERT_EQ(dynstr_setmaxsize(a, max), dynstr_setmaxsize(b, max));
            recorder().fail_nth(Op::getmem, refused_block);
            const unsigned result = writer.set(a);
            recorder().fail_nth(Op::getmem, refused_block);
            ASSERT_EQ(dynstr_sprintf(b, "%s", writer.expected), result);
            failures += result == 0 ? 0 : 1;
        }
        recorder().fail_never();
        ASSERT_STREQ(dynstr_getstring(a), dynstr_getstring(b));
        ASSERT_EQ(words(values), words(formats)) << round;
    }
    EXPECT_TRUE(values.is_sound() && formats.is_sound());
    EXPECT_GT(failures, 0);
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
        ASSERT_EQ(dynstr_getstring(string), std::string(expected));
        ASSERT_EQ(outcome(kDate, expected), std::to_string(seconds));
    }
}

}  // namespace
