#include "support/SystemFaults.h"

#include <pthread.h>

#include <cerrno>
#include <mutex>

namespace {

struct Fault {
    int error = 0;
    int count = 0;
};

std::mutex s_faultsMutex;
Fault s_thread, s_mutex, s_rename;

void Set(Fault& fault, int error, int count) {
    const std::lock_guard<std::mutex> lock(s_faultsMutex);
    fault = {error, count};
}

/// The error to fail with this time, 0 for none.
int Take(Fault& fault) {
    const std::lock_guard<std::mutex> lock(s_faultsMutex);
    if (fault.count == 0) return 0;
    if (fault.count > 0) --fault.count;
    return fault.error;
}

}  // namespace

extern "C" {

int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __real_pthread_mutex_init(pthread_mutex_t*, const pthread_mutexattr_t*);
int __real_rename(const char*, const char*);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                          void* argument) {
    const int error = Take(s_thread);
    return error != 0 ? error : __real_pthread_create(thread, attributes, start, argument);
}

int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    const int error = Take(s_mutex);
    return error != 0 ? error : __real_pthread_mutex_init(mutex, attributes);
}

int __wrap_rename(const char* from, const char* to) {
    const int error = Take(s_rename);
    if (error == 0) return __real_rename(from, to);
    errno = error;
    return -1;
}
}

namespace systemfaults {

void FailNextThread(int error, int count) {
    Set(s_thread, error, count);
}
void FailNextMutex(int error, int count) {
    Set(s_mutex, error, count);
}
void FailRename(int error, int count) {
    Set(s_rename, error, count);
}

void ClearFaults() {
    for (Fault* fault : {&s_thread, &s_mutex, &s_rename})
        Set(*fault, 0, 0);
}

}  // namespace systemfaults
