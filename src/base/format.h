// printf for places where the C library's must not be called: no stdio, no malloc, no locale, no lock, about 200 bytes
// of stack. Reports are written in signal handlers that may have interrupted the C library's printf itself.
//
// The bounded set: conversions d i u x X o c s p %, flags "-0+ #", width and precision as digits or '*', lengths
// hh h l ll z t j on the integers. Inside it the output is glibc's to the last character, "(null)" and "(nil)"
// included.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace memm {

// Where formatted text goes, piece by piece; no piece is empty.
struct TextSink {
    void (*write)(void *cookie, const char *bytes, std::size_t count) noexcept;
    void *cookie;
};

// Answers false, with nothing written, when the format holds anything outside the bounded set (floating point, wide
// characters, %n, %m, positions): the caller then has the C library format the whole of it. `arguments` is not moved.
[[nodiscard]] bool format(TextSink sink, const char *format, std::va_list arguments) noexcept;

// As snprintf and vsnprintf: the length of the whole text is the answer, however much of it fitted, and a buffer of
// one byte or more is always terminated. Formats outside the bounded set are passed on to vsnprintf; text that it
// refuses is empty.
[[gnu::format(printf, 3, 4)]] std::size_t format_to(char *buffer, std::size_t size, const char *format, ...) noexcept;
[[gnu::format(printf, 3, 0)]] std::size_t vformat_to(char *buffer, std::size_t size, const char *format,
                                                     std::va_list arguments) noexcept;

}  // namespace memm
