// PRINTF_LIKE has the compiler check the arguments of a function like printf: the places of its format and of
// the first argument behind it, 0 for a va_list. `this` counts as the first place.
//
// The other names are clang's thread-safety attributes, so that a compiler checks which lock guards what.
// They vanish under other compilers.
#pragma once

#define PRINTF_LIKE(place, arguments) __attribute__((format(printf, place, arguments)))

#if defined(__clang__)
#define TARNWICK_ATTRIBUTE(x) __attribute__((x))
#else
#define TARNWICK_ATTRIBUTE(x)
#endif

#define CAPABILITY(name) TARNWICK_ATTRIBUTE(capability(name))
#define SCOPED_CAPABILITY TARNWICK_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) TARNWICK_ATTRIBUTE(guarded_by(x))
#define PT_GUARDED_BY(x) TARNWICK_ATTRIBUTE(pt_guarded_by(x))
#define REQUIRES(...) TARNWICK_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) TARNWICK_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) TARNWICK_ATTRIBUTE(release_capability(__VA_ARGS__))
#define ASSERT_CAPABILITY(...) TARNWICK_ATTRIBUTE(assert_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) TARNWICK_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) TARNWICK_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define RETURN_CAPABILITY(x) TARNWICK_ATTRIBUTE(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS TARNWICK_ATTRIBUTE(no_thread_safety_analysis)
