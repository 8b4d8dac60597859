/// Names for clang's thread-safety attributes; empty under other compilers. A field names its guard, a function names
/// the locks that it requires, and -Wthread-safety reports every use without them.
#pragma once

#if defined(__clang__)
#define CONS_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define CONS_THREAD_ATTRIBUTE(x)
#endif

#define CONS_CAPABILITY(name) CONS_THREAD_ATTRIBUTE(capability(name))
#define CONS_SCOPED_CAPABILITY CONS_THREAD_ATTRIBUTE(scoped_lockable)
#define CONS_GUARDED_BY(lock) CONS_THREAD_ATTRIBUTE(guarded_by(lock))
#define CONS_ACQUIRE(...) CONS_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define CONS_TRY_ACQUIRE(...) CONS_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define CONS_RELEASE(...) CONS_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define CONS_REQUIRES(...) CONS_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define CONS_EXCLUDES(...) CONS_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
