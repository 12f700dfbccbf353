// Clang's thread-safety annotations (-Wthread-safety), empty for other compilers.
#pragma once

#if defined(__clang__)
#define CM_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define CM_THREAD_ANNOTATION(x)
#endif

#define CM_CAPABILITY(x) CM_THREAD_ANNOTATION(capability(x))
#define CM_SCOPED_CAPABILITY CM_THREAD_ANNOTATION(scoped_lockable)
#define CM_GUARDED_BY(x) CM_THREAD_ANNOTATION(guarded_by(x))
#define CM_REQUIRES(...) CM_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define CM_EXCLUDES(...) CM_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define CM_ACQUIRE(...) CM_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define CM_RELEASE(...) CM_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define CM_TRY_ACQUIRE(...) CM_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define CM_NO_THREAD_SAFETY_ANALYSIS CM_THREAD_ANNOTATION(no_thread_safety_analysis)
