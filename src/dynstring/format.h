#pragma once

#include "dynstring/text_pool.h"

#include <cstdarg>

namespace memm::strings {

// The record's text becomes printf's output.
Result print_to(Held, TextPool &pool, dynstr &record, const char *format, std::va_list arguments) noexcept;

// The record's text becomes the bytes in hexadecimal.
Result write_hex(Held, TextPool &pool, dynstr &record, const unsigned char *bytes, int count) noexcept;

}  // namespace memm::strings
