#include "support/recording_platform.h"

#include "small_pool.h"

#include <memmanager/platform.h>
#include <arpa/inet.h>
#include <array>
#include <cctype>
#include <climits>
#include <cstring>
#include <random>
#include <sys/mman.h>

namespace {

constexpr unsigned kInvalid = MEMM_E_INVALID;

// What a reader answers, what it writes, and what lies behind that.
struct Outcome {
    unsigned code = kInvalid;
    std::array<unsigned char, 16> bytes;
    Outcome() { bytes.fill(0xa5); }
    bool operator==(const Outcome &) const = default;
    template <typename Value> void set(const Value &value)
    {
        code = 0;
        std::memcpy(bytes.data(), &value, sizeof value);
    }
};

// A reader and its model, with a text that it reads.
struct Reader {
    const char *name, *tag, *good;
    bool takes_empty;
    unsigned (*call)(const dynstr *, unsigned char *);
    void (*model)(Outcome &, const std::string &text);
};

template <auto read, typename Value = unsigned> unsigned call(const dynstr *d, unsigned char *out)
{
    return read(d, reinterpret_cast<Value *>(out));
}

// As with a long of 32 bits.
template <typename Value> void number(Outcome &outcome, const std::string &text)
{
    long long value = 0;
    if (std::sscanf(text.c_str(), "%lld", &value) != 1)
        return;
    if constexpr (std::is_signed_v<Value>)
        outcome.set(static_cast<int>(std::clamp<long long>(value, INT_MIN, INT_MAX)));
    else
        outcome.set(value > UINT_MAX || value < -1LL * UINT_MAX ? UINT_MAX : static_cast<unsigned>(value));
}

void flag(Outcome &outcome, const std::string &text)
{
    outcome.set(text.empty() || text[0] == '0' || text[0] == 'f' ? 0U : 1U);
}

void address(Outcome &outcome, const std::string &text)
{
    in_addr value{};
    if (text.empty() || inet_aton(text.c_str(), &value) != 0)
        outcome.set(value);
}

void mac(Outcome &outcome, const std::string &text)
{
    unsigned m[6] = {};
    const char *const format = text.size() == 12 ? "%2x%2x%2x%2x%2x%2x" : "%2x%*c%2x%*c%2x%*c%2x%*c%2x%*c%2x";
    if ((text.size() == 12 || text.size() == 17) &&
        std::sscanf(text.c_str(), format, m, m + 1, m + 2, m + 3, m + 4, m + 5) == 6) {
        std::array<unsigned char, 6> bytes;
        std::transform(m, std::end(m), bytes.begin(), [](unsigned byte) { return static_cast<unsigned char>(byte); });
        outcome.set(bytes);
    }
}

void date(Outcome &outcome, const std::string &text)
{
    xtm_date d{};
    unsigned seconds = 0;
    if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2dZ", &d.years, &d.month, &d.day, &d.hours, &d.minutes,
                    &d.seconds) == 6) {
        d.years -= 1900;
        --d.month;
        xtm_time_date_struct_to_seconds(&seconds, &d);
        outcome.set(text == "0001-01-01T00:00:00Z" ? 0 : seconds);
    }
}

// Any character counts as a digit.
void hex(Outcome &outcome, const std::string &text)
{
    std::array<unsigned char, 2> bytes{};
    for (std::size_t i = 0; i < std::min<std::size_t>(text.size(), 4); ++i) {
        const int c = std::tolower(static_cast<unsigned char>(text[i])), value = c < 'a' ? c - '0' : c - 'a' + 10;
        bytes[i / 2] = static_cast<unsigned char>(bytes[i / 2] | (i % 2 == 0 ? value * 16 : value));
    }
    if (text.size() <= 4)
        outcome.set(bytes);
    else
        outcome.code = MEMM_E_TOO_SMALL;
}

constexpr Reader kReaders[] = {
    {"dynstr_getulong", "dynstr_getulong", "1", false, call<dynstr_getulong>, number<unsigned>},
    {"dynstr_getlong", "dynstr_getulong", "1", false, call<dynstr_getlong, int>, number<int>},
    {"dynstr_getbool", "dynstr_getbool", "1", true, call<dynstr_getbool>, flag},
    {"dynstr_getipaddr", "dynstr_getipaddr", "1.2", false, call<dynstr_getipaddr>, address},
    {"dynstr_getmacaddr", "dynstr_getmacaddr", "001122334455", false, dynstr_getmacaddr, mac},
    {"dynstr_getutcdatetime", "dynstr_getutcdatetime", "2000-1-1T0:0:0", false, call<dynstr_getutcdatetime>, date},
    {"dynstr_gethexstring", "dynstr_gethexstring", "01", true,
     [](auto *d, auto *out) { return dynstr_gethexstring(d, out, 2); }, hex},
};

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

TEST(readers, agree_with_sscanf_on_boundaries_and_on_texts_that_are_nearly_right)
{
    std::vector<std::string> texts = {
        // numbers
        "", " ", "0", "-", "+-5", "- 5", "x42", "\xa0 5", "  42x", "\t\n\v\f\r +7", "010", "0x10", "1,000", "-1",
        "2147483647", "2147483648", "-2147483648", "-2147483649", "4294967295", "-4294967295", "4294967296",
        "-4294967296", "18446744073709551617", "-99999999999999999999999", "1234567", "-98765", "false", "no",
        // addresses
        "192.168.1.2", "10.1", "0x0a.010.2.3 x", "1.2.3.256", " 1.2.3.4", "1.2.3.4x", "1.2.3.4.5", "001122aAbBfF",
        "00x11-22.33\x85 4 55", "0x:0X:-1:+a: 7:f:", "1:2:3:4:5:6------", "1 2 3 4 5 6 ", "0011223344g5", "00112233445",
        "0011.2233.4455", "00:11:22:33:44:5", "00:11:22:33:44:g5", "00:11:22:33:44:  ", "00:11:22:33:44:556",
        "00:11:22:aa:bb:cc",
        // dates
        "0001-01-01T00:00:00Z", "0001-01-01T00:00:00", " 1970-1- 1T0: 0:1", "1970-01-01T00:00:01+02:00",
        "2106-02-07T06:28:16Z", "1969-12-31T23:59:59Z", "2024-02-30T25:61:61Z", "2024-14-00T-1:-1:-1Z",
        "02024-02-03T04:05:06Z", "2024-02 -03T04:05:06Z", "2024-02-03t04:05:06Z", "2024-02-03T04:05:"};
    const std::string characters = "0123456789abcfxTXZ:--+ \t\n\x85\xff";
    const std::size_t count = texts.size();
    for (int c = 1; c < 256; ++c)
        for (const char *format : {"%c", "1%c", "%c1", "12%c"})
            texts.push_back(text(format, c));
    std::mt19937 random(20241);
    for (int round = scaled(40000); round > 0; --round) {
        std::string any = texts[2 + random() % (count - 2)];
        for (auto changes = random() % 5; changes > 0; --changes)
            any[random() % any.size()] = characters[random() % characters.size()];
        texts.push_back(random() % 8 == 0 ? any.substr(random() % any.size()) : any);
    }
    const SmallPool pool;
    for (const std::string &any : texts) {
        dynstr *const string = dynstr_fromprintf(pool.id(), "%s", any.c_str());
        for (const Reader &reader : kReaders) {
            Outcome expected, outcome;
            reader.model(expected, any);
            outcome.code = reader.call(string, outcome.bytes.data());
            ASSERT_EQ(outcome, expected) << reader.name << ' ' << any;
        }
        memm_free(string);
    }
    EXPECT_FALSE(locked_while_asked);
}

TEST(readers, refuse_what_is_no_string_and_name_themselves)
{
    const SmallPool pool;
    const auto other = static_cast<unsigned>(memm_initpool("", 2, 64, nullptr));
    void **const with_text = static_cast<void **>(memm_calloc(other)), *const without_text = memm_calloc(other);
    *with_text = &recorder();
    dynstr *const deleted = pool.make("1"), *const empty = pool.make();
    memm_free(deleted);
    auto *const hole = static_cast<char *>(mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    for (const Reader &reader : kReaders) {
        const std::string complaint = text("[DYNSTR] %s: invalid dynstring passed\r\n", reader.name);
        dynstr *const good = pool.make(reader.good);
        Outcome outcome;
        unsigned char *const out = outcome.bytes.data();
        recorder().take_tags();
        for (const int level : {1, 2}) {
            memm_set_trace(level);
            const auto refused = [&](const void *d, unsigned char *to, bool speaks) {
                EXPECT_EQ(reader.call(static_cast<const dynstr *>(d), to), kInvalid);
                EXPECT_EQ(recorder().take_trace(), speaks && level == 2 ? complaint : "") << reader.name;
            };
            refused(nullptr, out, false);
            refused(good, nullptr, false);
            for (const void *bad : {static_cast<void *>(deleted), static_cast<void *>(with_text),
                                    static_cast<void *>(hole), static_cast<void *>(hole + 3)})
                refused(bad, out, true);
            refused(without_text, out, reader.takes_empty);  // most look for a text before they look whose it is
            if (!reader.takes_empty)
                refused(empty, out, false);
        }
        EXPECT_EQ(outcome, Outcome());
        EXPECT_EQ(recorder().take_tags(), Texts());
        EXPECT_EQ(reader.call(good, out), 0U);
        const bool compares = std::string_view(reader.name) == "dynstr_getutcdatetime";
        EXPECT_EQ(recorder().take_tags(), compares ? Texts({"dynstr_strcmp2", reader.tag}) : Texts{reader.tag});
        EXPECT_TRUE(!reader.takes_empty || reader.call(empty, out) == 0);
    }
    munmap(hole, 4096);
}

TEST(hexadecimal, goes_both_ways_at_every_length)
{
    const SmallPool pool(400000, 2);
    dynstr *const string = pool.make();
    for (const int count : {0, 1, 2, 3, 256, 32766, 32767, 32768, 70000}) {
        std::vector<unsigned char> bytes(static_cast<std::size_t>(count) + 1, 0xa5), back = bytes;
        for (std::size_t i = 0; i + 1 < bytes.size(); ++i)
            bytes[i] = static_cast<unsigned char>(i);
        ASSERT_EQ(dynstr_sethexstring(string, bytes.data(), count), 0U);
        ASSERT_EQ(dynstr_strlen(string), 2U * static_cast<unsigned>(count));
        for (const int too_small : {count - 1, -1})
            EXPECT_EQ(dynstr_gethexstring(string, back.data(), too_small), unsigned{MEMM_E_TOO_SMALL});
        EXPECT_EQ(back, std::vector<unsigned char>(bytes.size(), 0xa5));
        EXPECT_EQ(dynstr_gethexstring(string, back.data(), count), 0U);
        EXPECT_EQ(back, bytes);
        EXPECT_TRUE(pool.is_sound()) << count;
    }
}

constexpr unsigned char kMac[] = {0x00, 0x1a, 0xB2, 0xff, 0x05, 0x60};
const unsigned kHost = inet_addr("192.168.1.2"), kMask = inet_addr("255.0.255.0");

struct Writer {
    const char *expected;
    unsigned (*set)(dynstr *);
    dynstr *(*create)(unsigned) = nullptr;  // where there is one
};

#define SET(expression) [](dynstr *d) { return expression; }
#define CREATE(expression) [](unsigned id) { return expression; }

const Writer kWriters[] = {
    {"0", SET(dynstr_setulong(d, 0)), CREATE(dynstr_fromulong(id, 0))},
    {"4294967295", SET(dynstr_setulong(d, UINT_MAX)), CREATE(dynstr_fromulong(id, UINT_MAX))},
    {"-2147483648", SET(dynstr_setlong(d, INT_MIN)), CREATE(dynstr_fromlong(id, INT_MIN))},
    {"192.168.1.2", SET(dynstr_setipaddr(d, kHost)), CREATE(dynstr_fromipaddr(id, kHost))},
    {"255.0.255.0", SET(dynstr_setipaddr(d, kMask))},
    {"00:1a:b2:ff:05:60", SET(dynstr_setmacaddr(d, kMac)), CREATE(dynstr_frommacaddr(id, kMac))},
    {"0001-01-01T00:00:00Z", SET(dynstr_setutcdatetime(d, 0))},
    {"2024-12-31T23:59:58Z", SET(dynstr_setutcdatetime(d, 1735689598))},
    {"2106-02-07T06:28:15Z", SET(dynstr_setutcdatetime(d, UINT_MAX))},
};

// Two pools, one written by values and one by formats, small enough to compact all the time.
TEST(writers, do_what_formatted_output_does)
{
    const SmallPool values(150, 2, 100), formats(150, 2, 100);
    const auto words = [](const SmallPool &pool) {
        const memm::strings::TextPool &p = pool.control();
        return std::vector{p.curbuf,   p.used[0], p.used[1],   p.cnt[0], p.cnt[1],    p.usedbytes,
                           p.delbytes, p.flags,   p.peakbytes, p.gccnt,  p.gctotbytes};
    };
    std::mt19937 random(7);
    std::pair<dynstr *, dynstr *> strings[10] = {};
    auto *const bad = reinterpret_cast<dynstr *>(8);
    int failures = 0;
    for (int round = scaled(20000); round > 0; --round) {
        const Writer &writer = kWriters[random() % std::size(kWriters)];
        auto &pair = strings[random() % std::size(strings)];
        dynstr *&a = pair.first, *&b = pair.second;
        const unsigned max = static_cast<unsigned>(random() % 30), refused_block = random() % 8 == 0 ? 1 : 0;
        const auto seen = [&](auto call) {
            recorder().forget();
            recorder().fail_nth(Op::getmem, refused_block);
            const unsigned result = call();
            recorder().fail_never();
            return std::tuple(result, recorder().take_tags(), recorder().take_trace());
        };
        if (writer.create != nullptr && (a == nullptr || random() % 4 == 0)) {
            EXPECT_EQ(memm_free(a) + memm_free(b), 0);
            const bool none = random() % 8 == 0;
            const auto wrote = seen([&] { return (a = writer.create(none ? 0 : values.id())) != nullptr; });
            const auto printed = [&] {
                return (b = dynstr_fromprintf(none ? 0 : formats.id(), "%s", writer.expected)) != nullptr;
            };
            ASSERT_EQ(wrote, seen(printed));
        } else {
            const bool is_bad = a != nullptr && random() % 16 == 0;
            ASSERT_EQ(dynstr_setmaxsize(a, max), dynstr_setmaxsize(b, max));
            const auto wrote = seen([&] { return writer.set(is_bad ? bad : a); });
            ASSERT_EQ(wrote, seen([&] { return dynstr_sprintf(is_bad ? bad : b, "%s", writer.expected); }));
            failures += std::get<0>(wrote) == MEMM_E_NO_MEMORY ? 1 : 0;
        }
        ASSERT_STREQ(dynstr_getstring(a), dynstr_getstring(b));
        ASSERT_EQ(words(values), words(formats)) << round;
    }
    EXPECT_TRUE(values.is_sound() && formats.is_sound());
    EXPECT_GT(failures, 0);
    EXPECT_EQ(dynstr_setmacaddr(values.make(), nullptr), kInvalid);
    EXPECT_EQ(dynstr_frommacaddr(values.id(), nullptr), nullptr);
}

}  // namespace
