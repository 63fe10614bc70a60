// Two C++20 library facilities that not every standard library we build with provides:
// the libc++ of the WebAssembly toolchain (emscripten 3.1.6) has neither std::bit_cast nor
// std::atomic_ref. Where the library has them (libstdc++ of g++, MinGW) these are the
// library's own, so the native code is unchanged; elsewhere the compiler builtins that the
// library versions are made of stand in.
#pragma once

#include <atomic>
#include <bit>
#include <type_traits>
#include <version>

namespace portable {

template <class To, class From>
constexpr To bitCast(const From& from) noexcept {
    static_assert(sizeof(To) == sizeof(From) && std::is_trivially_copyable_v<To>
                  && std::is_trivially_copyable_v<From>);
#if defined(__cpp_lib_bit_cast)
    return std::bit_cast<To>(from);
#else
    return __builtin_bit_cast(To, from);
#endif
}

// Relaxed atomic load and store of a plain object shared between threads.
template <class T>
inline T loadRelaxed(T& object) noexcept {
#if defined(__cpp_lib_atomic_ref)
    return std::atomic_ref<T>(object).load(std::memory_order_relaxed);
#else
    return __atomic_load_n(&object, __ATOMIC_RELAXED);
#endif
}

template <class T>
inline void storeRelaxed(T& object, T value) noexcept {
#if defined(__cpp_lib_atomic_ref)
    std::atomic_ref<T>(object).store(value, std::memory_order_relaxed);
#else
    __atomic_store_n(&object, value, __ATOMIC_RELAXED);
#endif
}

}  // namespace portable
