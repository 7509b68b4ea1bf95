// Texts into values, against sscanf and inet_aton.
#include "models/family.h"

#include <arpa/inet.h>

struct Conversion {
    const char *name;
    unsigned (*read)(const dynstr *, unsigned char *);
    std::string (*model)(const std::string &text);  // the bytes that are written, none where it is no such text
};

template <auto read, typename Value = unsigned> unsigned call(const dynstr *d, unsigned char *out)
{
    return read(d, reinterpret_cast<Value *>(out));
}

template <typename Value> std::string bytes_of(const Value &value)
{
    return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}

// As with a long of 32 bits.
template <typename Value> std::string number(const std::string &text)
{
    long long value = 0;
    if (std::sscanf(text.c_str(), "%lld", &value) != 1)
        return "";
    if constexpr (std::is_signed_v<Value>)
        return bytes_of(static_cast<int>(std::clamp<long long>(value, INT_MIN, INT_MAX)));
    return bytes_of(value > UINT_MAX || value < -1LL * UINT_MAX ? UINT_MAX : static_cast<unsigned>(value));
}

std::string flag(const std::string &text)
{
    return bytes_of(unsigned{!text.empty() && text[0] != '0' && text[0] != 'f'});
}

std::string address(const std::string &text)
{
    in_addr value{};
    return text.empty() || inet_aton(text.c_str(), &value) != 0 ? bytes_of(value) : "";
}

std::string mac(const std::string &text)
{
    unsigned char m[6];
    const char *const format =
        text.size() == 12 ? "%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx" : "%2hhx%*c%2hhx%*c%2hhx%*c%2hhx%*c%2hhx%*c%2hhx";
    const bool is_long_enough = text.size() == 12 || text.size() == 17;
    const int read = std::sscanf(text.c_str(), format, &m[0], &m[1], &m[2], &m[3], &m[4], &m[5]);
    return is_long_enough && read == 6 ? bytes_of(m) : "";
}

std::string date(const std::string &text)
{
    xtm_date d{};
    unsigned seconds = 0;
    if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2dZ", &d.years, &d.month, &d.day, &d.hours, &d.minutes,
                    &d.seconds) != 6)
        return "";
    d.years -= 1900;
    --d.month;
    xtm_time_date_struct_to_seconds(&seconds, &d);
    return bytes_of(text == "0001-01-01T00:00:00Z" ? 0 : seconds);
}

// No character is refused: each counts by where it stands behind '0' or 'a'.
std::string hex(const std::string &text)
{
    std::string bytes((text.size() + 1) / 2, '\0');
    for (std::size_t i = 0; i < text.size(); ++i) {
        const int lower = std::tolower(static_cast<unsigned char>(text[i]));
        const int digit = lower < 'a' ? lower - '0' : lower - 'a' + 10;
        bytes[i / 2] = static_cast<char>(bytes[i / 2] | digit << (i % 2 == 0 ? 4 : 0));
    }
    return bytes;
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
constexpr std::string_view kTexts =
    "|7|+42x|\t\n\v\f\r -7|010|0x10|2147483647|-2147483649|4294967296|-4294967295|0a1F|false|18446744073709551617|"
    "-99999999999999999999999|192.168.1.2|0x0a.010.2.3 x|1.2.3.4.5|001122aAbBfF|00x11-22.33\x85 4 55|1:2:3:4:5:6------|"
    "1 2 3 4 5 6 |00:11:22:aa:bb:cc|0001-01-01T00:00:00Z| 1970-1- 1T0: 0:1|2106-02-07T06:28:16Z|2024-02-30T25:61:61Z";

std::string any_text(Stream &in)
{
    const std::size_t from = kTexts.find('|', in.next() * kTexts.size() / 256) + 1;
    std::string text(kTexts.substr(from, kTexts.find('|', from) - from));
    for (unsigned changes = in.below(4); changes > 0 && !text.empty(); --changes)
        text[in.next() % text.size()] = in.one_of(std::string_view("0123456789abcfxTXZ:--+. \t\n\x01\x85\xff/g"));
    return in.one_in(8) ? text.substr(in.next() % (text.size() + 1)) : text;
}

void step(Stream &in)
{
    static const auto pool = static_cast<unsigned>(dynstr_initpool("texts", 20, 4000));
    const std::string text = any_text(in);
    dynstr *const string = dynstr_fromprintf(pool, "%s", text.c_str());
    for (const Conversion &conversion : kConversions) {
        std::string expected = conversion.model(text);
        unsigned char read[16];
        std::fill(read, std::end(read), 0xa5);
        const unsigned code = conversion.read(string, read);
        same(code, expected.empty() ? unsigned{MEMM_E_INVALID} : 0U, conversion.name);
        expected.resize(sizeof read, '\xa5');
        same(bytes_of(read), expected, conversion.name);
    }
    unsigned char read[16];
    std::fill(read, std::end(read), 0xa5);
    std::string expected = hex(text);
    constexpr int kSize = 10;
    const bool fits = expected.size() <= kSize;
    same(dynstr_gethexstring(string, read, kSize), fits ? 0U : unsigned{MEMM_E_TOO_SMALL}, "hexstring");
    expected = fits ? expected + std::string(kSize - expected.size(), '\0') : "";
    expected.resize(sizeof read, '\xa5');
    same(bytes_of(read), expected, "hexstring");
    memm_free(string);
    if (!difference.empty())
        difference += " from '" + text + "'";
}
