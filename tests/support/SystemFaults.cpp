#include "support/SystemFaults.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>

namespace {

std::atomic<int> s_threadError{0};
std::atomic<int> s_renameError{0};

}  // namespace

extern "C" {

int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __real_rename(const char*, const char*);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                          void* argument) {
    const int error = s_threadError.exchange(0);
    return error != 0 ? error : __real_pthread_create(thread, attributes, start, argument);
}

int __wrap_rename(const char* from, const char* to) {
    const int error = s_renameError.exchange(0);
    if (error == 0) return __real_rename(from, to);
    errno = error;
    return -1;
}
}

void systemfaults::FailNextThread(int error) {
    s_threadError = error;
}

void systemfaults::FailNextRename(int error) {
    s_renameError = error;
}

void systemfaults::ClearFaults() {
    s_threadError = 0;
    s_renameError = 0;
}
