// The platform layer on Windows.
#ifndef NOMINMAX
#define NOMINMAX
#endif
#define WIN32_LEAN_AND_MEAN
#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <iostream>

#include "platform/platform.h"

namespace platform {

namespace {

// Large pages need the "lock pages in memory" right, which an administrator grants to an
// account. Asked for once; without it the table lives on ordinary pages.
size_t largePageSize() {
    static const size_t size = [] {
        size_t minimum = ::GetLargePageMinimum();
        HANDLE token = nullptr;
        if (!minimum
            || !::OpenProcessToken(::GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY,
                                   &token))
            return size_t(0);
        TOKEN_PRIVILEGES tp{};
        tp.PrivilegeCount = 1;
        tp.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
        bool granted =
            ::LookupPrivilegeValueA(nullptr, "SeLockMemoryPrivilege", &tp.Privileges[0].Luid)
            && ::AdjustTokenPrivileges(token, FALSE, &tp, 0, nullptr, nullptr)
            && ::GetLastError() == ERROR_SUCCESS;
        ::CloseHandle(token);
        return granted ? minimum : size_t(0);
    }();
    return size;
}

HANDLE openForReading(const std::string& file) {
    return ::CreateFileA(file.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
}

std::atomic<DWORD> injectedStatError{0};

BOOL fileSize(HANDLE h, LARGE_INTEGER& size) {
    if (DWORD code = injectedStatError.exchange(0)) {
        ::SetLastError(code);
        return FALSE;
    }
    return ::GetFileSizeEx(h, &size);
}

// The system's text for an error code, without the line end it comes with.
std::string errorText(DWORD code) {
    char text[512] = {};
    DWORD n = ::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                               code, 0, text, sizeof text, nullptr);
    while (n > 0 && (text[n - 1] == '\n' || text[n - 1] == '\r' || text[n - 1] == ' '))
        n--;
    return n ? std::string(text, n) : "error " + std::to_string(code);
}

}  // namespace

void failNextFileStatus(int code) { injectedStatError = DWORD(code); }

bool isReadable(const std::string& file) {
    HANDLE h = openForReading(file);
    if (h == INVALID_HANDLE_VALUE)
        return false;
    ::CloseHandle(h);
    return true;
}

mapStatus mapFile(const std::string& file, size_t minSize, fileMapping& out,
                  std::string& systemError) {
    HANDLE h = openForReading(file);
    if (h == INVALID_HANDLE_VALUE)
        return mapStatus::ABSENT;
    if (::GetFileType(h) != FILE_TYPE_DISK) {
        ::CloseHandle(h);
        return mapStatus::ABSENT;
    }
    LARGE_INTEGER size{};
    if (!fileSize(h, size)) {
        systemError = errorText(::GetLastError());
        ::CloseHandle(h);
        return mapStatus::NO_STATUS;
    }
    if (uint64_t(size.QuadPart) < minSize || size.QuadPart == 0) {
        ::CloseHandle(h);
        return mapStatus::TOO_SHORT;
    }
    // The view keeps the file and the mapping object alive after their handles close.
    HANDLE mapping = ::CreateFileMappingA(h, nullptr, PAGE_READONLY, 0, 0, nullptr);
    ::CloseHandle(h);
    if (!mapping)
        return mapStatus::FAILED;
    void* p = ::MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0);
    ::CloseHandle(mapping);
    if (!p)
        return mapStatus::FAILED;
    out.data = static_cast<const unsigned char*>(p);
    out.size = size_t(size.QuadPart);
    return mapStatus::MAPPED;
}

void unmapFile(fileMapping& mapping) {
    if (mapping.data)
        ::UnmapViewOfFile(mapping.data);
    mapping = fileMapping{};
}

// VirtualAlloc hands out zeroed pages on 64 KB boundaries.
void* allocateLarge(size_t bytes) {
    if (size_t page = largePageSize(); page && bytes >= page) {
        size_t rounded = (bytes + page - 1) / page * page;
        if (void* p = ::VirtualAlloc(nullptr, rounded, MEM_RESERVE | MEM_COMMIT | MEM_LARGE_PAGES,
                                     PAGE_READWRITE))
            return p;
    }
    return ::VirtualAlloc(nullptr, bytes, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
}

void freeLarge(void* block, size_t) {
    if (block)
        ::VirtualFree(block, 0, MEM_RELEASE);
}

bool readInputLine(std::string& line) {
    static const bool binary = _setmode(_fileno(stdin), _O_BINARY) != -1;
    if (!std::getline(std::cin, line))
        return false;
    if (binary && !line.empty() && line.back() == '\r')
        line.pop_back();
    return true;
}

uint64_t physicalMemory() {
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof status;
    return ::GlobalMemoryStatusEx(&status) ? uint64_t(status.ullTotalPhys) : 0;
}

}  // namespace platform
