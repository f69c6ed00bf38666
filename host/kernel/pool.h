// The kernel's memory: every block that a driver can hold is allocated here, so that stale, foreign and
// double frees are recognised and freed blocks read as a pattern for a while.
#pragma once

#include "machine.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace kernel
{

// Who hands the block out: it must come back through the same door. Only Pool and Ndis blocks count as pool
// in the census; the other kinds have counters of their own.
enum class BlockKind : uint8_t { Pool, Ndis, Mdl, Irp, SystemBuffer, Packet, Count };

// 16-byte aligned, contents undefined; blocks of 64 KiB and more start on a page and can be mapped again
// elsewhere. `site` is the address of the caller, for reports. Null without memory. Injected faults are the
// caller's business.
void* AllocateBlock(size_t size, uint32_t tag, BlockKind kind, const void* site);

// Frees a block: fills it with the pattern and keeps it from reuse for a while. Reports "double-free",
// "not-a-pool-block", "wrong-free-routine", "wrong-tag", "pool-overrun", "lock-freed-while-held",
// "timer-freed-while-set". `tag` and `size` are checked when they are not null; `site` is the address of the
// caller, for later reports. False when the block was not freed.
bool FreeBlock(void* block, BlockKind kind, const char* function, const uint32_t* tag = nullptr,
               const size_t* size = nullptr, const void* site = nullptr);

// The memory file behind a range that lies in one large block. `offset` is the offset of `address` in the
// file, a multiple of the page size when the address is one. False when the range is not backed by a file.
// The file stays open as long as the block lives. From then on nobody checks what stands behind the block, or in it
// once it is freed, as programs see its pages.
bool FindShareable(const void* address, size_t length, int* fd, size_t* offset);

// "NfDA 2 x 80 bytes (from ...)" for the live blocks that count as pool, grouped, at most `limit` groups.
std::string DescribeBlocks(size_t limit);

// A tag as its four characters.
std::string TagText(uint32_t tag);

} // namespace kernel
