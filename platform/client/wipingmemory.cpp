// SPDX-FileCopyrightText: 2026 The kavet authors
// SPDX-License-Identifier: BSD-3-Clause

// Memory is overwritten when it is given back, in the whole program: a password or PIN comes through buffers of several
// libraries, none of which wipes them.

// The address sanitizer has memory functions of its own.
#ifndef __SANITIZE_ADDRESS__

#include <algorithm>
#include <cstring>

#include <malloc.h>

extern "C" {

// The C library's own functions, by the names it has for those who replace them.
void *libraryMalloc(size_t size) __asm__("__libc_malloc");
void libraryFree(void *memory) __asm__("__libc_free");

__attribute__((visibility("default"))) void free(void *memory) noexcept
{
    if (memory)
        explicit_bzero(memory, malloc_usable_size(memory));
    libraryFree(memory);
}

__attribute__((visibility("default"))) void *realloc(void *memory, size_t size) noexcept
{
    if (memory && size == 0) {
        free(memory);
        return nullptr;
    }
    void *const moved = libraryMalloc(size);
    if (memory && moved) {
        std::memcpy(moved, memory, std::min(size, malloc_usable_size(memory)));
        free(memory);
    }
    return moved;
}
}

#endif
