// Lock annotations: promises about who holds which lock, held by clang and invisible to other compilers.
#pragma once

#if defined(__clang__)
#define RUNTIME_ANNOTATION(x) __attribute__((x))
#else
#define RUNTIME_ANNOTATION(x)
#endif

/// The class is a lock.
#define RUNTIME_CAPABILITY(name) RUNTIME_ANNOTATION(capability(name))
/// The class holds a lock for as long as it lives.
#define RUNTIME_SCOPED_CAPABILITY RUNTIME_ANNOTATION(scoped_lockable)
/// The member may only be touched while the lock is held.
#define RUNTIME_GUARDED_BY(lock) RUNTIME_ANNOTATION(guarded_by(lock))
/// The caller holds the lock.
#define RUNTIME_REQUIRES(...) RUNTIME_ANNOTATION(requires_capability(__VA_ARGS__))
/// The caller does not hold the lock (none of them is recursive).
#define RUNTIME_EXCLUDES(...) RUNTIME_ANNOTATION(locks_excluded(__VA_ARGS__))
/// The function takes or gives back the lock.
#define RUNTIME_ACQUIRE(...) RUNTIME_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RUNTIME_RELEASE(...) RUNTIME_ANNOTATION(release_capability(__VA_ARGS__))
/// The analysis cannot follow the function; the place that uses this says why.
#define RUNTIME_NO_LOCK_ANALYSIS RUNTIME_ANNOTATION(no_thread_safety_analysis)
