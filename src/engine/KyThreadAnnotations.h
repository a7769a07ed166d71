#ifndef ENGINE_KYTHREADANNOTATIONS_H
#define ENGINE_KYTHREADANNOTATIONS_H

/// Attributes for clang's thread-safety analysis. Empty for other compilers.
#if defined(__clang__)
#define KY_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define KY_THREAD_ATTRIBUTE(x)
#endif

#define KY_CAPABILITY(name) KY_THREAD_ATTRIBUTE(capability(name))
#define KY_SCOPED_CAPABILITY KY_THREAD_ATTRIBUTE(scoped_lockable)
#define KY_GUARDED_BY(mutex) KY_THREAD_ATTRIBUTE(guarded_by(mutex))
#define KY_REQUIRES(...) KY_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define KY_EXCLUDES(...) KY_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define KY_ACQUIRE(...) KY_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define KY_TRY_ACQUIRE(...) KY_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define KY_RELEASE(...) KY_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define KY_NO_THREAD_SAFETY_ANALYSIS KY_THREAD_ATTRIBUTE(no_thread_safety_analysis)

#endif
