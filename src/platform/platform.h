// What the operating system provides, behind one small interface: read-only file mappings
// (the tablebase files), the transposition table's large zeroed allocation, the command
// input and the size of physical memory. platform_posix.cpp and platform_windows.cpp
// implement it; they are the only sources that include an operating-system header.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace platform {

// Separator of folder lists such as "SyzygyPath": Windows paths hold a ':' after the drive
// letter, so there the list is split at ';'.
#ifdef _WIN32
inline constexpr char PATH_LIST_SEPARATOR = ';';
#else
inline constexpr char PATH_LIST_SEPARATOR = ':';
#endif

// True when `file` exists and opens for reading.
bool isReadable(const std::string& file);

struct fileMapping {
    const unsigned char* data = nullptr;
    size_t size = 0;
};

enum class mapStatus {
    MAPPED,     // out holds the whole file
    ABSENT,     // no such regular file (missing, a folder, or not readable)
    NO_STATUS,  // it opened, but the system gave neither its size nor its kind
    TOO_SHORT,  // a regular file of fewer than minSize bytes: nothing mapped
    FAILED,     // it exists but the system would not map it (address space, limits)
};

// Maps the whole of `file` read-only. On NO_STATUS, `systemError` receives the system's text
// for the failure, for the caller to report.
mapStatus mapFile(const std::string& file, size_t minSize, fileMapping& out,
                  std::string& systemError);
void unmapFile(fileMapping& mapping);

// The next mapFile fails as if the system refused the file's status with error `code`
// (errno on POSIX, GetLastError() on Windows). No real file makes that query fail, so this
// is how the tests reach that path.
void failNextFileStatus(int code);

// `bytes` of zeroed memory aligned to at least 64 bytes, on huge pages where the system
// offers them and the block is large enough; nullptr when the memory is not to be had.
void* allocateLarge(size_t bytes);
// Returns a block of allocateLarge; `bytes` is the size it was asked for.
void freeLarge(void* block, size_t bytes);

// Reads one line of standard input without its line end; false at the end of input. On
// Windows the input is read in binary mode, so that a Ctrl-Z byte is data and not the end
// of input, and the '\r' of a "\r\n" line end is dropped.
bool readInputLine(std::string& line);

// Physical memory in bytes; 0 when the system does not say.
uint64_t physicalMemory();

}  // namespace platform
