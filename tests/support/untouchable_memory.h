// Memory that must never be read: a page mapped without any access, so that
// a call that touches it ends the test program at once. Tests hand it to the
// library as pixels or boxes that it must refuse before reading.
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(_WIN32)
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#else
#include <sys/mman.h>
#endif

namespace ostrel_test {

class untouchable_page {
public:
    static constexpr size_t kSize = 65536;

    untouchable_page() {
#if defined(_WIN32)
        address_ = VirtualAlloc(nullptr, kSize, MEM_RESERVE | MEM_COMMIT, PAGE_NOACCESS);
#else
        void *mapped = mmap(nullptr, kSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        address_ = mapped == MAP_FAILED ? nullptr : mapped;
#endif
    }
    ~untouchable_page() {
        if (address_ == nullptr) return;
#if defined(_WIN32)
        VirtualFree(address_, 0, MEM_RELEASE);
#else
        munmap(address_, kSize);
#endif
    }
    untouchable_page(const untouchable_page &) = delete;
    untouchable_page &operator=(const untouchable_page &) = delete;

    uint8_t *bytes() const { return static_cast<uint8_t *>(address_); }
    template <typename T>
    T *as() const {
        return static_cast<T *>(address_);
    }

private:
    void *address_ = nullptr;
};

}  // namespace ostrel_test
