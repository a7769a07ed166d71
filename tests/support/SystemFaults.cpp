#include "support/SystemFaults.h"

#include <pthread.h>

#include <cerrno>
#include <mutex>

namespace {

class Fault {
public:
    void Set(int error, int count) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_error = error;
        m_count = count;
    }

    /// The error to fail with this time, 0 for none.
    int Take() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_count == 0) return 0;
        if (m_count > 0) --m_count;
        return m_error;
    }

private:
    std::mutex m_mutex;
    int m_error = 0;
    int m_count = 0;
};

Fault s_thread;
Fault s_mutex;
Fault s_rename;

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
    for (Fault* fault : {&s_thread, &s_mutex, &s_rename})
        fault->Set(0, 0);
}

}  // namespace systemfaults
