// SPDX-License-Identifier: Apache-2.0
// Names for clang's thread-safety attributes; they mean nothing to other compilers.
#pragma once

#if defined(__clang__)
#define KELVANE_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define KELVANE_THREAD_ATTRIBUTE(x)
#endif

/// A type whose objects guard others: a serial queue, or within platform/linux a mutex.
#define KELVANE_CAPABILITY(name) KELVANE_THREAD_ATTRIBUTE(capability(name))
/// The member may be touched only while the capability is held, that is, on the queue.
#define KELVANE_GUARDED_BY(queue) KELVANE_THREAD_ATTRIBUTE(guarded_by(queue))
/// The function may be called only on the queue.
#define KELVANE_REQUIRES(...) KELVANE_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
/// The function stops the process unless it is called on the queue; afterwards the analysis knows it is.
#define KELVANE_ASSERT_CAPABILITY(...) KELVANE_THREAD_ATTRIBUTE(assert_capability(__VA_ARGS__))
/// The function returns a reference to this capability.
#define KELVANE_RETURN_CAPABILITY(queue) KELVANE_THREAD_ATTRIBUTE(lock_returned(queue))
#define KELVANE_EXCLUDES(...) KELVANE_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
/// The function takes the mutex, or lets go of it.
#define KELVANE_ACQUIRE(...) KELVANE_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define KELVANE_RELEASE(...) KELVANE_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
/// A type whose objects hold a mutex while they live.
#define KELVANE_SCOPED_CAPABILITY KELVANE_THREAD_ATTRIBUTE(scoped_lockable)
#define KELVANE_NO_THREAD_SAFETY_ANALYSIS KELVANE_THREAD_ATTRIBUTE(no_thread_safety_analysis)
