// Blocks of memory between unreadable pages: how a read or write outside a tensor is found, in kernels as elsewhere.
//
//   behind   | no access | A5 .. A5 [ the block ] A5 | no access |    the block ends at the page but for at most 15 bytes
//   before   | no access [ the block ] A5 .. .. .. A5 | no access |    the block starts at the page
//
// Tensors start at a multiple of kGuardAlignment, as views do that kernels take as they are, so that up to 15 bytes may
// lie between a block's last byte and the page. The bytes A5 are looked at when the block is freed. A block itself starts
// as FF, which is a NaN of every floating-point type, and a freed one stays unreadable for a while.
#pragma once

#include <cstddef>

namespace quillon::host_device {

enum class Guard { kNone, kBehind, kBefore };

inline constexpr std::size_t kGuardAlignment = 16;

/// What QUILLON_HOST_GUARD asks for, read once. Throws c10::ValueError if it is malformed.
Guard guard();

/// A block of `size` bytes, or nullptr.
void* allocate_guarded(std::size_t size);
/// Takes a block out of use. No work that uses it may be under way. Aborts the process, with a message, if bytes around
/// the block were written.
void free_guarded(void* block, std::size_t size) noexcept;

}  // namespace quillon::host_device
