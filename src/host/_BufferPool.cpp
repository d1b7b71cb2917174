#include "_BufferPool.h"

#include <malloc.h>

#include <mutex>
#include <vector>

namespace docadmin {
namespace {

constexpr std::size_t kMinBlock = std::size_t{1} << 20;
constexpr std::size_t kMaxBlock = std::size_t{64} << 20;
constexpr std::size_t kMaxBlocks = 4;

struct TPool {
    std::mutex Lock;
    std::vector<std::string> Blocks;
    bool Taken = false;  // since the last ReleaseFreeHeapMemory
};

TPool& Pool() {
    static TPool pool;
    return pool;
}

}  // namespace

void ReserveLarge(std::string& ABuffer, std::size_t AAtLeast) {
    if (AAtLeast <= ABuffer.capacity()) return;
    if (AAtLeast >= kMinBlock / 2) AAtLeast = (AAtLeast + kMinBlock - 1) / kMinBlock * kMinBlock;
    ABuffer.reserve(AAtLeast);
}

std::string TakeLargeBuffer(std::size_t AAtLeast) {
    std::string r;
    {
        TPool& p = Pool();
        std::lock_guard guard(p.Lock);
        // The smallest block that is large enough, else the largest.
        auto best = p.Blocks.end();
        for (auto it = p.Blocks.begin(); it != p.Blocks.end(); ++it) {
            const bool fits = it->capacity() >= AAtLeast;
            if (best == p.Blocks.end() ||
                (fits && (best->capacity() < AAtLeast || it->capacity() < best->capacity())) ||
                (!fits && best->capacity() < AAtLeast && it->capacity() > best->capacity()))
                best = it;
        }
        p.Taken = true;
        if (best != p.Blocks.end()) {
            r = std::move(*best);
            p.Blocks.erase(best);
        }
    }
    ReserveLarge(r, AAtLeast);
    return r;
}

void GiveLargeBuffer(std::string&& ABuffer) {
    std::string block = std::move(ABuffer);
    ABuffer.clear();
    if (block.capacity() < kMinBlock || block.capacity() > kMaxBlock) return;
    block.clear();
    TPool& p = Pool();
    std::lock_guard guard(p.Lock);
    if (p.Blocks.size() < kMaxBlocks) p.Blocks.push_back(std::move(block));
}

void UseServerHeapSettings() {
#ifdef __GLIBC__
    // Blocks up to 32 MiB come from the heap, up to 32 MiB free at its top stay there, and all
    // threads share one heap: one heap per thread would each hold freed memory of its own.
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    mallopt(M_TRIM_THRESHOLD, 32 << 20);
    mallopt(M_ARENA_MAX, 1);
#endif
}

void ReleaseFreeHeapMemory() {
    std::vector<std::string> idle;
    {
        TPool& p = Pool();
        std::lock_guard guard(p.Lock);
        if (!p.Taken) idle.swap(p.Blocks);
        p.Taken = false;
    }
    idle.clear();
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

std::uint64_t HeapBytesInUse() {
#ifdef __GLIBC__
    const struct mallinfo2 m = mallinfo2();
    return m.uordblks + m.hblkhd;
#else
    return 0;
#endif
}

}  // namespace docadmin
