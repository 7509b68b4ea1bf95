// Formatted output against the C library's: flags, widths, lengths and letters in any mixture, also such as mean
// nothing, into strings with and without a limit and in a pool whose buffers are nearly full.
#include "dynstring/text_pool.h"
#include "models/family.h"
#include "support/recording_platform.h"

#include <memmanager/dynstring.h>

#include <algorithm>
#include <climits>

namespace {

constexpr const char *kFlags[] = {"", "", "0", "-", "00", "-0", "+", " ", "#"};
constexpr const char *kWidths[] = {"", "", "1", "7", "12", "40", "300", ".3", "9.5", "."};
constexpr const char *kLengths[] = {"", "", "l", "ll", "h", "hh", "z", "j"};
constexpr const char *kWords[] = {"", "ab", "a longer word than most", nullptr};
constexpr long long kValues[] = {0,       1,       -1,         42,         -100,      65,
                                 INT_MAX, INT_MIN, 4294967295, 4294967296, LLONG_MAX, LLONG_MIN};

Difference found;

// A pool of one buffer for the string that is written and one that takes most of the room.
struct Pool {
    const int started = memm_init(4, 1);
    const unsigned id = static_cast<unsigned>(dynstr_initpool2("texts", 20, 400, 1));
    const memm::strings::TextPool &texts = *memm::strings::text_pool(memm::PoolId{id});
    dynstr *const string = dynstr_calloc(id);
    dynstr *filler = nullptr;
};

Pool &the_pool()
{
    static Pool pool;
    return pool;
}

void check(Stream &in, const std::string &format, auto... values)
{
    auto &[started, pool, texts, string, filler] = the_pool();
    if (in.one_in(4)) {
        memm_free(filler);
        filler = dynstr_fromprintf(pool, "%*s", in.within(0, 250), "");
    }
    const unsigned max = in.one_in(2) ? 0 : in.below(50);
    const bool has_no_block = in.one_in(4);
    char printed[700];
    const auto length = static_cast<unsigned>(std::snprintf(printed, sizeof printed, format.c_str(), values...));
    const std::string expected = std::string(printed).substr(0, max - 1U);
    found.same(dynstr_reset(string) + dynstr_setmaxsize(string, max), 0U, "set-up");
    const unsigned room = texts.room(), asked = recorder().calls(Op::getmem);
    recorder().fail_nth(Op::getmem, has_no_block ? 1 : 0);
    const unsigned result = dynstr_sprintf(string, format.c_str(), values...);
    const bool fits = (max == 0 ? length : std::min(length, max - 1)) < room,
               waits = recorder().calls(Op::getmem) != asked;
    recorder().fail_never();
    // Without room at the end a text waits outside while its buffer is compacted, where only the other one stays.
    const bool fits_then = expected.size() + 1 + dynstr_strlen(filler) + 1 <= texts.bufsize;
    found.same(waits, !fits, "a block from outside");
    found.same(result, fits || (fits_then && !has_no_block) ? 0U : unsigned{MEMM_E_NO_MEMORY}, format.c_str());
    found.same(std::string(dynstr_getstring(string)), result == 0 ? expected : "", format.c_str());
    found.same(dynstr_strlen(string), result == 0 ? expected.size() : 0U, "length");
    found.same(dynstr_getmaxsize(string), max, "maximum size");
    found.same(dynstr_integrity_check(pool, 0), 1, "integrity_check");
}

}  // namespace

std::string run_family(std::span<const unsigned char> bytes)
{
    for (Stream in(bytes); !in.is_empty() && found.is_none(); ++operations) {
        const char letter = in.one_of(std::string_view("diuxdxXoc%"));
        const std::string length = letter == 'c' || letter == '%' ? "" : in.one_of(kLengths);
        const std::string format = text("<%%%%> %%%s%ss|%%%s%s%s%c", in.one_in(2) ? "-" : "", in.one_of(kWidths),
                                        in.one_of(kFlags), in.one_of(kWidths), length.c_str(), letter);
        const char *const word = in.one_of(kWords);
        const long long value = in.one_of(kValues);
        if (length == "ll" || length == "j")
            check(in, format, word, value);
        else if (length == "l" || length == "z")
            check(in, format, word, static_cast<long>(value));
        else
            check(in, format, word, static_cast<int>(value));
    }
    return found.first();
}
