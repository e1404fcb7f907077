#ifndef TESSEL_TESTS_SUPPORT_SANITIZERS_H
#define TESSEL_TESTS_SUPPORT_SANITIZERS_H

namespace tessel::test {

// g++ 12 says it by macros, clang 14 by features.
#ifdef __has_feature
#define TESSEL_TESTS_FEATURE(name) __has_feature(name)
#else
#define TESSEL_TESTS_FEATURE(name) 0
#endif

#if defined(__SANITIZE_ADDRESS__) || TESSEL_TESTS_FEATURE(address_sanitizer)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif

#if defined(__SANITIZE_THREAD__) || TESSEL_TESTS_FEATURE(thread_sanitizer)
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif

#undef TESSEL_TESTS_FEATURE

}  // namespace tessel::test

#endif
