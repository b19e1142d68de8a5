// Clang's thread-safety annotations: with -Wthread-safety the compiler checks that every field
// marked GUARDED_BY is touched only with its lock held, and that functions marked REQUIRES are
// called so; a function marked ASSERT_CAPABILITY tells it that the lock is held from there on.
// Other compilers see nothing.
#pragma once

#if defined(__clang__)
#define FERRIT_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define FERRIT_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) FERRIT_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY FERRIT_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) FERRIT_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) FERRIT_THREAD_ANNOTATION(pt_guarded_by(x))
#define ACQUIRE(...) FERRIT_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) FERRIT_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) FERRIT_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define REQUIRES(...) FERRIT_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) FERRIT_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) FERRIT_THREAD_ANNOTATION(assert_capability(x))
#define RETURN_CAPABILITY(x) FERRIT_THREAD_ANNOTATION(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS FERRIT_THREAD_ANNOTATION(no_thread_safety_analysis)
