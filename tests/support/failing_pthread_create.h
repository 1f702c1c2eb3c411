// A pthread_create that fails on request, for tests of what a worker object does when its
// thread cannot be created. It replaces the C library's function for the whole executable,
// so include this file in exactly one source file of a test executable.
#pragma once

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstddef>

namespace tw::test {
// While set, every pthread_create of the process fails with EAGAIN.
inline std::atomic<bool> g_FailThreads{false};
// How many creations were refused.
inline std::atomic<int> g_RefusedThreads{0};
// The stack size asked for by the last creation with attributes (0: none yet).
inline std::atomic<size_t> g_LastStackSize{0};
}  // namespace tw::test

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* arg) {
    using CreateFn = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static CreateFn real = reinterpret_cast<CreateFn>(dlsym(RTLD_NEXT, "pthread_create"));
    if (attr != nullptr) {
        size_t stackSize = 0;
        if (pthread_attr_getstacksize(attr, &stackSize) == 0) tw::test::g_LastStackSize = stackSize;
    }
    if (tw::test::g_FailThreads) {
        ++tw::test::g_RefusedThreads;
        return EAGAIN;
    }
    return real(thread, attr, start, arg);
}
