// The platform layer on Linux and other POSIX systems.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <iostream>

#include "platform/platform.h"
#include "platform/posix_files.h"

namespace platform {

namespace {

constexpr size_t HUGE_PAGE = size_t(2) << 20;

// Blocks of a huge page or more start on a huge-page boundary: the whole table can then sit
// on transparent huge pages (far fewer page faults when it is cleared, fewer TLB misses).
size_t alignmentFor(size_t bytes) { return bytes >= HUGE_PAGE ? HUGE_PAGE : 0; }
// Such blocks take whole huge pages.
size_t roundedSize(size_t bytes) {
    size_t align = alignmentFor(bytes);
    return align ? (bytes + align - 1) / align * align : bytes;
}

}  // namespace

mapStatus mapFile(const std::string& file, size_t minSize, fileMapping& out,
                  std::string& systemError) {
    int fd;
    size_t size = 0;
    if (mapStatus status = posix::openTableFile(file, minSize, fd, size, systemError);
        status != mapStatus::MAPPED)
        return status;
    void* p = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
    ::close(fd);
    if (p == MAP_FAILED)
        return mapStatus::FAILED;
    out.data = static_cast<const unsigned char*>(p);
    out.size = size;
    return mapStatus::MAPPED;
}

void unmapFile(fileMapping& mapping) {
    if (mapping.data)
        ::munmap(const_cast<unsigned char*>(mapping.data), mapping.size);
    mapping = fileMapping{};
}

// Anonymous memory comes zeroed. For a huge-page boundary the block is mapped one huge
// page larger and the ends before and after the aligned part are handed back.
void* allocateLarge(size_t bytes) {
    size_t align = alignmentFor(bytes);
    bytes = roundedSize(bytes);
    void* p =
        ::mmap(nullptr, bytes + align, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED)
        return nullptr;
    if (!align)
        return p;
    auto start = reinterpret_cast<uintptr_t>(p);
    uintptr_t aligned = (start + align - 1) / align * align;
    if (aligned > start)
        ::munmap(p, aligned - start);
    if (size_t tail = start + align - aligned)
        ::munmap(reinterpret_cast<void*>(aligned + bytes), tail);
#ifdef MADV_HUGEPAGE
    ::madvise(reinterpret_cast<void*>(aligned), bytes, MADV_HUGEPAGE);
#endif
    return reinterpret_cast<void*>(aligned);
}

void freeLarge(void* block, size_t bytes) {
    if (block)
        ::munmap(block, roundedSize(bytes));
}

bool readInputLine(std::string& line) { return bool(std::getline(std::cin, line)); }

uint64_t physicalMemory() {
    long pages = ::sysconf(_SC_PHYS_PAGES), pageSize = ::sysconf(_SC_PAGESIZE);
    return pages > 0 && pageSize > 0 ? uint64_t(pages) * uint64_t(pageSize) : 0;
}

}  // namespace platform
