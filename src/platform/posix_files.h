// The file steps shared by the POSIX platform layers, platform_posix.cpp (native) and
// platform_wasm.cpp (WebAssembly, whose files are the front-end's): whether a file can be
// read, and opening a table file with the checks made before it is mapped or copied.
// Included by those two files only, one per build.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include "platform/platform.h"

namespace platform {

namespace posix {

// The error the next size query reports instead of asking the system (tests only).
inline std::atomic<int> injectedStatError{0};

// Opens `file` for reading: a regular file of at least minSize bytes, not empty. On MAPPED
// (here: ready to map) `fd` is open and `size` is the file's length; any other answer has
// closed it, and NO_STATUS puts the system's reason in systemError.
inline mapStatus openTableFile(const std::string& file, size_t minSize, int& fd, size_t& size,
                               std::string& systemError) {
    fd = ::open(file.c_str(), O_RDONLY);
    if (fd < 0)
        return mapStatus::ABSENT;
    struct stat st {};
    mapStatus status = mapStatus::MAPPED;
    if (int code = injectedStatError.exchange(0); code || ::fstat(fd, &st) != 0) {
        systemError = std::strerror(code ? code : errno);
        status = mapStatus::NO_STATUS;
    } else if (!S_ISREG(st.st_mode)) {
        status = mapStatus::ABSENT;
    } else if (uint64_t(st.st_size) < minSize || st.st_size == 0) {
        status = mapStatus::TOO_SHORT;
    }
    if (status != mapStatus::MAPPED) {
        ::close(fd);
        fd = -1;
        return status;
    }
    size = size_t(st.st_size);
    return status;
}

}  // namespace posix

void failNextFileStatus(int code) { posix::injectedStatError = code; }

bool isReadable(const std::string& file) {
    int fd = ::open(file.c_str(), O_RDONLY);
    if (fd < 0)
        return false;
    ::close(fd);
    return true;
}

}  // namespace platform
