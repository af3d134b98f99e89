// Thread-safety attributes that Clang checks with -Wthread-safety.
//
// A lock type is a capability; a member names the lock that guards it
// (GUARDED_BY), a function the locks it needs held (REQUIRES) or must not hold
// (EXCLUDES), and a scope guard what it takes and gives back (ACQUIRE,
// RELEASE). Other compilers see nothing: the macros expand to nothing there.
#pragma once

#if defined(__clang__)
#define NORV_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define NORV_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) NORV_THREAD_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY NORV_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) NORV_THREAD_ATTRIBUTE(guarded_by(x))
#define PT_GUARDED_BY(x) NORV_THREAD_ATTRIBUTE(pt_guarded_by(x))
#define ACQUIRED_BEFORE(...) NORV_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) NORV_THREAD_ATTRIBUTE(acquired_after(__VA_ARGS__))
#define REQUIRES(...) NORV_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) NORV_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) NORV_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) NORV_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) NORV_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) NORV_THREAD_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
#define RETURN_CAPABILITY(x) NORV_THREAD_ATTRIBUTE(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS NORV_THREAD_ATTRIBUTE(no_thread_safety_analysis)
