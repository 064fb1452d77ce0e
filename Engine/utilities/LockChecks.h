#pragma once

/// \file
/// What clang's thread-safety analysis (`-Wthread-safety`) is told of locks: which field a lock
/// guards, and which function takes, gives back or needs it. For other compilers there is nothing
/// here.

#if defined(__clang__)
/// An attribute of clang's.
#define CUL_LOCK_CHECK(attribute) __attribute__((attribute))
#else
/// Nothing for other compilers.
#define CUL_LOCK_CHECK(attribute)
#endif

/// Behind `class`: its objects are locks.
#define CUL_IS_LOCK CUL_LOCK_CHECK(capability("lock"))
/// Behind `class`: its objects hold a lock as long as they live.
#define CUL_HOLDS_LOCK CUL_LOCK_CHECK(scoped_lockable)
/// Behind a field: only read and written under `lock`.
#define CUL_GUARDED_BY(lock) CUL_LOCK_CHECK(guarded_by(lock))
/// Behind a function: takes a lock, which is the object itself when none is named.
#define CUL_TAKES(...) CUL_LOCK_CHECK(acquire_capability(__VA_ARGS__))
/// Behind a function: gives a lock back.
#define CUL_GIVES(...) CUL_LOCK_CHECK(release_capability(__VA_ARGS__))
/// Behind a function: the caller has the lock.
#define CUL_NEEDS(...) CUL_LOCK_CHECK(requires_capability(__VA_ARGS__))
/// Behind a function that locks in a way which the analysis does not follow: says why.
#define CUL_UNCHECKED_LOCKS CUL_LOCK_CHECK(no_thread_safety_analysis)
