// Event_memory: where update events and their payloads live.
//
// Why it exists: a change with a receiver on another thread allocates its event and payload on
// the changing thread and frees them on the receiving one. The C library's allocator keeps a
// fast cache per thread, so memory freed by the receiver never comes back to the changer
// cheaply: each change paid two slow allocations. Here a freed block goes onto a shared stack
// of its size, and a thread that has run out takes that whole stack in one step, so a steady
// stream of changes reuses the same few blocks.
// Blocks of up to max_pooled_size bytes are kept (at most kept_bytes_per_size of each size: what
// a burst needed beyond that goes back to the allocator); larger requests go straight to it. Under AddressSanitizer nothing is
// kept, so that a use after free is still found.
// Threads: any thread may take and give; a block may be given back on another thread than the
// one that took it. What a thread holds when it ends goes back to the shared stacks.
#pragma once

#include <taskdata/taskdata_export.h>

#include <cstddef>

namespace TC {
namespace Task_data {
namespace Event_memory {

constexpr std::size_t max_pooled_size = 256;
constexpr std::size_t kept_bytes_per_size = 4u << 20;

// At least `size` bytes, aligned for any fundamental type.
KTD_EXPORT void* take(std::size_t size);
// `size` must be the size passed to take().
KTD_EXPORT void give(void* block, std::size_t size) noexcept;

// For tests and diagnostics: whether blocks are kept at all, and how many blocks of a size exist
// (in use or kept).
KTD_EXPORT bool pooling();
KTD_EXPORT int blocks(std::size_t size);

} // namespace Event_memory
} // namespace Task_data
} // namespace TC
