// Clang's thread-safety attributes under short names. The lock types of OsApi.h are declared as
// capabilities with them, and each component marks what its lock guards (GUARDED_BY) and which of
// its functions need the lock held (REQUIRES) or must not be called with it held (EXCLUDES), so
// that a clang build with -Wthread-safety checks the locking rules. Other compilers see nothing.
#ifndef VELTO_THREADANNOTATIONS_H
#define VELTO_THREADANNOTATIONS_H

#if defined(__clang__)
#define VELTO_THREAD_ATTR(x) __attribute__((x))
#else
#define VELTO_THREAD_ATTR(x)
#endif

// A type whose objects are locks.
#define CAPABILITY(name) VELTO_THREAD_ATTR(capability(name))
// A type that holds a lock for its lifetime.
#define SCOPED_CAPABILITY VELTO_THREAD_ATTR(scoped_lockable)

// Data read or written only with the lock held (PT_: the data the pointer points to).
#define GUARDED_BY(lock) VELTO_THREAD_ATTR(guarded_by(lock))
#define PT_GUARDED_BY(lock) VELTO_THREAD_ATTR(pt_guarded_by(lock))

// Lock order: this lock is taken before / after the named ones.
#define ACQUIRED_BEFORE(...) VELTO_THREAD_ATTR(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) VELTO_THREAD_ATTR(acquired_after(__VA_ARGS__))

// The caller must hold the locks / must not hold them (the function takes them itself).
#define REQUIRES(...) VELTO_THREAD_ATTR(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) VELTO_THREAD_ATTR(locks_excluded(__VA_ARGS__))

// The function takes / releases the locks (no argument: the object it is called on).
#define ACQUIRE(...) VELTO_THREAD_ATTR(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VELTO_THREAD_ATTR(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) VELTO_THREAD_ATTR(try_acquire_capability(__VA_ARGS__))

// The function returns a reference to the named lock.
#define RETURN_CAPABILITY(lock) VELTO_THREAD_ATTR(lock_returned(lock))
// The function checks at run time that the lock is held; the analysis takes it as held after it.
#define ASSERT_CAPABILITY(lock) VELTO_THREAD_ATTR(assert_capability(lock))

// Turns the analysis off for one function. Only where it cannot follow the locking (a lock taken in
// one function and released in another), with a comment saying why.
#define NO_THREAD_SAFETY_ANALYSIS VELTO_THREAD_ATTR(no_thread_safety_analysis)

#endif
