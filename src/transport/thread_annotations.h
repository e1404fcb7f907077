#ifndef TESSEL_SRC_TRANSPORT_THREAD_ANNOTATIONS_H
#define TESSEL_SRC_TRANSPORT_THREAD_ANNOTATIONS_H

// Which lock guards what, in a form that clang's -Wthread-safety checks. Empty for other compilers.
#if defined(__clang__)
#define TESSEL_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define TESSEL_THREAD_ATTRIBUTE(x)
#endif

#define TESSEL_CAPABILITY(name) TESSEL_THREAD_ATTRIBUTE(capability(name))
#define TESSEL_SCOPED_CAPABILITY TESSEL_THREAD_ATTRIBUTE(scoped_lockable)
#define TESSEL_GUARDED_BY(mutex) TESSEL_THREAD_ATTRIBUTE(guarded_by(mutex))
#define TESSEL_REQUIRES(...) TESSEL_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define TESSEL_EXCLUDES(...) TESSEL_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define TESSEL_ACQUIRE(...) TESSEL_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TESSEL_RELEASE(...) TESSEL_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define TESSEL_TRY_ACQUIRE(...) TESSEL_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define TESSEL_ASSERT_CAPABILITY(...) TESSEL_THREAD_ATTRIBUTE(assert_capability(__VA_ARGS__))
#define TESSEL_NO_THREAD_SAFETY_ANALYSIS TESSEL_THREAD_ATTRIBUTE(no_thread_safety_analysis)

#endif
