#pragma once

#include <functional>

// Operations of the platform and calls of the C library on the library's own files that fail on demand.
enum class Op { alloc, getmem, retmem, create, take, open, fstat, ftruncate, write, close };

// What the next one is to do: 0 works; else it fails with this code (files: errno), or succeeds oddly.
constexpr int kNullBlock = -1;   // alloc, getmem: success without a block
constexpr int kMisaligned = -2;  // alloc: a block that lies 4 bytes off
constexpr int kShort = -3;       // write: takes a byte
inline std::function<int(Op)> fault;

inline int fault_of(Op op) { return fault ? fault(op) : 0; }
inline void fail_always(Op op, int code)
{
    fault = [=](Op asked) { return asked == op ? code : 0; };
}
