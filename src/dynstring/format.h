#pragma once

#include "dynstring/place.h"

#include <cstdarg>
#include <string_view>

namespace memm::strings {

// The record's text becomes printf's output.
Result print_to(Held, TextPool &pool, dynstr &record, const char *format, std::va_list arguments) noexcept;

// The same for a text that stands ready.
Result place_text(Held, TextPool &pool, dynstr &record, std::string_view text) noexcept;

// The text becomes the bytes in hexadecimal. To be called when the old one is set aside, where there is one.
Result write_hex(Rewrite &rewrite, const unsigned char *bytes, int count) noexcept;

// dynstr_sprintf() and dynstr_fromprintf() of a text that stands ready: their checks, lock and messages included.
Result set_printed(dynstr *d, std::string_view text) noexcept;
dynstr *create_printed(unsigned poolid, std::string_view text) noexcept;

}  // namespace memm::strings
