// Texts into values, against sscanf and inet_aton.
#include "models/family.h"

#include <memmanager/dynstring.h>
#include <memmanager/platform.h>

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cctype>
#include <climits>
#include <cstring>
#include <sstream>
#include <vector>

namespace {

// What a reader answers, what it writes, and what lies behind that.
struct Outcome {
    unsigned code = MEMM_E_INVALID;
    std::array<unsigned char, 16> bytes;
    Outcome() { bytes.fill(0xa5); }
    bool operator==(const Outcome &) const = default;
    void set(const auto &value)
    {
        code = 0;
        std::memcpy(bytes.data(), &value, sizeof value);
    }
};

struct Conversion {
    const char *name;
    unsigned (*read)(const dynstr *, unsigned char *);
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
    if (in_addr value{}; text.empty() || inet_aton(text.c_str(), &value) != 0)
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

constexpr Conversion kConversions[] = {
    {"ulong", call<dynstr_getulong>, number<unsigned>},
    {"long", call<dynstr_getlong, int>, number<int>},
    {"bool", call<dynstr_getbool>, flag},
    {"ipaddr", call<dynstr_getipaddr>, address},
    {"macaddr", dynstr_getmacaddr, mac},
    {"utcdatetime", call<dynstr_getutcdatetime>, date},
};

// What is nearly right.
const std::vector<std::string> kTexts = [] {
    std::vector<std::string> all;
    std::istringstream texts("|7|+42x|\t\n\v\f\r -7|010|0x10|2147483647|-2147483649|4294967296|-4294967295|0a1F|false|"
                             "18446744073709551617|-99999999999999999999999|192.168.1.2|0x0a.010.2.3 x|1.2.3.4.5|"
                             "001122aAbBfF|00x11-22.33\x85 4 55|1:2:3:4:5:6------|1 2 3 4 5 6 |00:11:22:aa:bb:cc|"
                             "0001-01-01T00:00:00Z| 1970-1- 1T0: 0:1|2106-02-07T06:28:16Z|2024-02-30T25:61:61Z");
    for (std::string text; std::getline(texts, text, '|');)
        all.push_back(text);
    return all;
}();

std::string any_text(Stream &in)
{
    if (in.one_in(4)) {
        std::string text(in.below(8), '\0');
        std::generate(text.begin(), text.end(), [&in] { return static_cast<char>(1 + in.below(255)); });
        return text;
    }
    std::string text = in.one_of(kTexts);
    for (unsigned changes = in.below(4); changes > 0 && !text.empty(); --changes)
        text[in.next() % text.size()] = in.one_of(std::string_view("0123456789abcfxTXZ:--+. \t\n\x85\xff"));
    return in.one_in(8) ? text.substr(in.next() % (text.size() + 1)) : text;
}

}  // namespace

std::string run_family(std::span<const unsigned char> bytes)
{
    static const int started = memm_init(4, 1);
    static const auto pool = static_cast<unsigned>(dynstr_initpool("texts", 20, 4000));
    static Difference found;
    for (Stream in(bytes); started == MEMM_OK && !in.is_empty() && found.is_none(); ++operations) {
        const std::string text = any_text(in);
        dynstr *const string = dynstr_fromprintf(pool, "%s", text.c_str());
        for (const Conversion &conversion : kConversions) {
            Outcome expected, outcome;
            conversion.model(expected, text);
            outcome.code = conversion.read(string, outcome.bytes.data());
            found.expect(outcome == expected, (conversion.name + (" from '" + text + "'")).c_str());
        }
        memm_free(string);
    }
    return found.first();
}
