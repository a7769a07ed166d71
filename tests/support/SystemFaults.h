#ifndef SUPPORT_SYSTEMFAULTS_H
#define SUPPORT_SYSTEMFAULTS_H

/// System calls of the code under test that fail on request. Each operation makes the next `count` calls
/// fail, on whatever thread they happen; a negative count means all until ClearFaults(), which happens after
/// every test. May be called from any thread.
namespace systemfaults {

void FailNextThread(int error, int count = 1);  ///< pthread_create() returns `error` and starts nothing
void FailNextMutex(int error, int count = 1);   ///< pthread_mutex_init() returns `error`
void FailRename(int error, int count = 1);  ///< rename() returns -1, with `error` in errno, and moves nothing
void ClearFaults();

}  // namespace systemfaults

#endif
