#pragma once
// Large strings kept for reuse. Answers of megabytes (document chunks) are built, sent and freed
// many times a second. Each fresh block of that size is mapped anew, and the kernel faults it in
// and zeroes it page by page, which costs more than the copy into it. The pool keeps a few freed
// blocks and hands them out again.
#include <cstddef>
#include <cstdint>
#include <string>

namespace docadmin {

// An empty string; its capacity is one of the pool's blocks when one is free, and at least
// AAtLeast (see ReserveLarge).
std::string TakeLargeBuffer(std::size_t AAtLeast = 0);
// Reserves room for at least AAtLeast characters; a large size is rounded up to whole MiB, so that
// a block made for one answer also fits the next one of about the same size.
void ReserveLarge(std::string& ABuffer, std::size_t AAtLeast);
// A server's heap settings: freed memory is kept for reuse instead of being handed back to the
// system and faulted in again page by page (costly, above all in virtual machines), in a bounded
// number of heaps (glibc otherwise makes one per thread that ever allocated, each keeping its own
// freed blocks). Called at the start of a server, before its threads run.
void UseServerHeapSettings();
// Gives the system back what the heaps hold free, and the pool's blocks when none was taken since
// the last call. A server calls it now and then: its memory then follows what it really uses
// instead of the most it ever used, at the price of faulting pages in again after a tidy.
void ReleaseFreeHeapMemory();
// Bytes the process's heaps have handed out and not yet got back (0 where unknown).
std::uint64_t HeapBytesInUse();
// Hands a string's memory back. Kept only when it is large (1 to 64 MiB) and the pool has room
// (4 blocks); freed otherwise. The string is left empty.
void GiveLargeBuffer(std::string&& ABuffer);

}  // namespace docadmin
