// Values written as texts. The text is made outside of the lock, and stands for the format that is named above each.
#include "base/format.h"
#include "dynstring/edit.h"
#include "dynstring/format.h"

#include <memmanager/platform.h>
#include <array>
#include <charconv>
#include <cstring>
#include <string_view>

namespace memm::strings {

namespace {

// A text that is put together on the stack; its maker knows that it fits.
class Text {
    static constexpr std::size_t kCapacity = 80;
    std::array<char, kCapacity> bytes_;
    char *end_ = bytes_.data();

public:
    template <typename Integer> void add_decimal(Integer value) noexcept
    {
        end_ = std::to_chars(end_, bytes_.data() + kCapacity, value).ptr;
    }
    void add_hexadecimal(unsigned char byte) noexcept
    {
        constexpr char kDigits[] = "0123456789abcdef";
        *end_++ = kDigits[byte >> 4];
        *end_++ = kDigits[byte & 15];
    }
    void add(char c) noexcept { *end_++ = c; }
    void add_date(int year, int month, const xtm_date &rest) noexcept
    {
        end_ += format_to(end_, kCapacity, "%04d-%02d-%02dT%02d:%02d:%02dZ", year, month, rest.day, rest.hours,
                          rest.minutes, rest.seconds);
    }

    std::string_view view() const noexcept { return {bytes_.data(), static_cast<std::size_t>(end_ - bytes_.data())}; }
};

// "%lu" and "%ld"
template <typename Integer> Text number_text(Integer value) noexcept
{
    Text text;
    text.add_decimal(value);
    return text;
}

// "%u.%u.%u.%u", in the order of the bytes in memory
Text address_text(unsigned address) noexcept
{
    std::array<unsigned char, sizeof address> bytes;
    std::memcpy(bytes.data(), &address, bytes.size());
    Text text;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i > 0) {
            text.add('.');
        }
        text.add_decimal(bytes[i]);
    }
    return text;
}

// "%02x:%02x:%02x:%02x:%02x:%02x"
Text mac_text(const unsigned char *mac) noexcept
{
    Text text;
    for (int i = 0; i < 6; ++i) {
        if (i > 0) {
            text.add(':');
        }
        text.add_hexadecimal(mac[i]);
    }
    return text;
}

// What an application's own calendar fills in may be any numbers.
constexpr int wrapping_sum(int value, unsigned step) noexcept
{
    return static_cast<int>(static_cast<unsigned>(value) + step);
}

// "%04d-%02d-%02dT%02d:%02d:%02dZ"; 0 is no date.
Text date_text(unsigned seconds) noexcept
{
    xtm_date date{};
    date.day = 1;
    date.years = 1 - 1900;
    if (seconds != 0) {
        xtm_time_date_struct(&date, seconds, 0, 1);
    }
    Text text;
    text.add_date(wrapping_sum(date.years, 1900), wrapping_sum(date.month, 1), date);
    return text;
}

}  // namespace

}  // namespace memm::strings

using namespace memm;
using namespace memm::strings;

extern "C" {

unsigned dynstr_setulong(dynstr *d, unsigned value) { return to_c(set_printed(d, number_text(value).view())); }

unsigned dynstr_setlong(dynstr *d, int value) { return to_c(set_printed(d, number_text(value).view())); }

unsigned dynstr_setipaddr(dynstr *d, unsigned address) { return to_c(set_printed(d, address_text(address).view())); }

unsigned dynstr_setmacaddr(dynstr *d, const unsigned char *mac)
{
    return to_c(mac == nullptr ? Result::invalid : set_printed(d, mac_text(mac).view()));
}

unsigned dynstr_setutcdatetime(dynstr *d, unsigned seconds) { return to_c(set_printed(d, date_text(seconds).view())); }

unsigned dynstr_sethexstring(dynstr *d, const unsigned char *bytes, int count)
{
    const ManagerLock lock("dynstr_sethexstring");
    TextPool *const pool = changeable(d);
    if (pool == nullptr) {
        return to_c(Result::invalid);
    }
    Rewrite rewrite(lock.held(), *pool, *d);
    return to_c(rewrite.set_aside() ? write_hex(rewrite, bytes, count) : Result::no_memory);
}

dynstr *dynstr_fromulong(unsigned poolid, unsigned value) { return create_printed(poolid, number_text(value).view()); }

dynstr *dynstr_fromlong(unsigned poolid, int value) { return create_printed(poolid, number_text(value).view()); }

dynstr *dynstr_fromipaddr(unsigned poolid, unsigned address)
{
    return create_printed(poolid, address_text(address).view());
}

dynstr *dynstr_frommacaddr(unsigned poolid, const unsigned char *mac)
{
    return mac == nullptr ? nullptr : create_printed(poolid, mac_text(mac).view());
}
}
