#ifndef SUPPORT_SYSTEMFAULTS_H
#define SUPPORT_SYSTEMFAULTS_H

/// System calls of the code under test that fail on request: the next call, on any thread, unless the test has ended
/// before. May be called from any thread.
namespace systemfaults {

void FailNextThread(int error);  ///< pthread_create() returns `error` and starts nothing
void FailNextRename(int error);  ///< rename() returns -1, with `error` in errno, and moves nothing
void ClearFaults();

}  // namespace systemfaults

#endif
