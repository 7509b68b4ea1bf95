#pragma once

#include <cstdarg>
#include <cstddef>
#include <optional>

namespace memm::strings {

// vsnprintf for what most texts are made of: %s, %c, %% and the integers %d %i %u %x, long or not, with a width that
// may be filled with zeros. It takes a fraction of the time.
//
// Answers the length of the whole text, which holds no zero. Answers nothing for every other format, for a null text
// and for a text that does not fit: then a beginning of the text may stand in the room, for vsnprintf to write over.
std::optional<std::size_t> quick_print(char *room, std::size_t size, const char *format,
                                       std::va_list arguments) noexcept;

}  // namespace memm::strings
