#include "support/SystemFaults.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>

namespace {

struct Fault {
    std::atomic<int> error{0}, count{0};

    void Set(int newError, int newCount) {
        error = newError;
        count = newCount;
    }
    /// The error to fail with this time, 0 for none.
    int Take() {
        int left = count;
        while (left > 0 && !count.compare_exchange_weak(left, left - 1)) {
        }
        return left != 0 ? error.load() : 0;
    }
} s_thread, s_mutex, s_rename;

}  // namespace

extern "C" {

int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __real_pthread_mutex_init(pthread_mutex_t*, const pthread_mutexattr_t*);
int __real_rename(const char*, const char*);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                          void* argument) {
    const int error = s_thread.Take();
    return error != 0 ? error : __real_pthread_create(thread, attributes, start, argument);
}

int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    const int error = s_mutex.Take();
    return error != 0 ? error : __real_pthread_mutex_init(mutex, attributes);
}

int __wrap_rename(const char* from, const char* to) {
    const int error = s_rename.Take();
    if (error == 0) return __real_rename(from, to);
    errno = error;
    return -1;
}
}

namespace systemfaults {

void FailNextThread(int error, int count) {
    s_thread.Set(error, count);
}
void FailNextMutex(int error, int count) {
    s_mutex.Set(error, count);
}
void FailRename(int error, int count) {
    s_rename.Set(error, count);
}

void ClearFaults() {
    FailNextThread(0, 0);
    FailNextMutex(0, 0);
    FailRename(0, 0);
}

}  // namespace systemfaults
