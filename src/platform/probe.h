#pragma once

#include <cstdint>

// Memory at an address that may be anything. The kernel reads and writes it on our behalf and fails where we would
// fault; errno is kept.
namespace memm {

[[nodiscard]] bool read_word(std::uintptr_t address, std::uint32_t &word) noexcept;
[[nodiscard]] bool write_word(std::uintptr_t address, std::uint32_t word) noexcept;

}  // namespace memm
