// Annotations that say which lock guards what; Clang checks them, other compilers see nothing.
#pragma once

#if defined(__clang__)
#define VEL_THREAD_SAFETY(annotation) __attribute__((annotation))
#else
#define VEL_THREAD_SAFETY(annotation)
#endif

/// A class that is a lock, and one whose life is the time a lock is held.
#define VEL_CAPABILITY(name) VEL_THREAD_SAFETY(capability(name))
#define VEL_SCOPED_CAPABILITY VEL_THREAD_SAFETY(scoped_lockable)

/// A member that is touched, or whose target is touched, only while `lock` is held.
#define VEL_GUARDED_BY(lock) VEL_THREAD_SAFETY(guarded_by(lock))
#define VEL_PT_GUARDED_BY(lock) VEL_THREAD_SAFETY(pt_guarded_by(lock))

/// A function that is called with the locks held, or without them.
#define VEL_REQUIRES(...) VEL_THREAD_SAFETY(requires_capability(__VA_ARGS__))
#define VEL_EXCLUDES(...) VEL_THREAD_SAFETY(locks_excluded(__VA_ARGS__))

/// What takes a lock, and what gives it back.
#define VEL_ACQUIRE(...) VEL_THREAD_SAFETY(acquire_capability(__VA_ARGS__))
#define VEL_ACQUIRE_SHARED(...) VEL_THREAD_SAFETY(acquire_shared_capability(__VA_ARGS__))
#define VEL_RELEASE(...) VEL_THREAD_SAFETY(release_generic_capability(__VA_ARGS__))

/// A function whose locking the checker cannot follow; say why beside it.
#define VEL_NO_THREAD_SAFETY_ANALYSIS VEL_THREAD_SAFETY(no_thread_safety_analysis)
