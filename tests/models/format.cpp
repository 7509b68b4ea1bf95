// Formatted output into a pool whose one buffer is nearly full, with and without a limit. Conversions are the business
// of tests/base; here they are such as give texts of any length, also with a zero in their midst.
#include "dynstring/text_pool.h"
#include "models/family.h"
#include "support/recording_platform.h"

#include <memmanager/dynstring.h>

void step(Stream &in)
{
    static const auto pool = static_cast<unsigned>(dynstr_initpool2("texts", 20, 400, 1));
    static const memm::strings::TextPool &texts = *memm::strings::text_pool(memm::PoolId{pool});
    static dynstr *const string = dynstr_calloc(pool);
    static dynstr *filler = nullptr;  // takes a part of the buffer
    if (in.one_in(4)) {
        memm_free(filler);
        filler = dynstr_fromprintf(pool, "%*s", in.within(0, 250), "");
    }
    const unsigned max = in.one_in(2) ? 0 : in.below(50);
    same(dynstr_reset(string) + dynstr_setmaxsize(string, max), 0U, "set-up");

    const int width = in.one_in(4) ? 300 : in.within(-60, 60), letter = in.within(0, 1) * 'x',
              number = in.within(-9, 99);
    const std::string whole = text("%*s%c%d", width, "words", letter, number);
    const unsigned room = texts.room(), asked = recorder().calls(Op::getmem);
    const bool has_no_block = in.one_in(4);
    recorder().fail_nth(Op::getmem, has_no_block ? 1 : 0);
    const unsigned result = dynstr_sprintf(string, "%*s%c%d", width, "words", letter, number);
    recorder().fail_never();

    const std::size_t length = max == 0 ? whole.size() : std::min<std::size_t>(whole.size(), max - 1);
    const std::string expected = whole.substr(0, length).c_str();
    // Without room at the end a text waits outside while the buffer is compacted, where only the other one stays.
    const bool fits = length < room;
    const bool fits_then = !has_no_block && expected.size() + 1 + dynstr_strlen(filler) + 1 <= texts.bufsize;
    same(recorder().calls(Op::getmem) != asked, !fits, "a block from outside");
    same(result, fits || fits_then ? 0U : unsigned{MEMM_E_NO_MEMORY}, "result");
    same(std::string(dynstr_getstring(string)), result == 0 ? expected : "", "text");
    same(string->str == nullptr, result != 0, "an address");
    same(dynstr_integrity_check(pool, 0), 1, "integrity_check");
}
