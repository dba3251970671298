// Names for the attributes of clang's thread safety analysis; empty with other compilers.
//
// Macros, because the guarding attributes exist in no standard attribute syntax.
#pragma once

#if defined(__clang__)
#define TS_ATTRIBUTE(x) __attribute__((x))
#else
#define TS_ATTRIBUTE(x)
#endif

#define TS_CAPABILITY(name) TS_ATTRIBUTE(capability(name))
#define TS_SCOPED_CAPABILITY TS_ATTRIBUTE(scoped_lockable)
#define TS_GUARDED_BY(lock) TS_ATTRIBUTE(guarded_by(lock))
#define TS_REQUIRES(...) TS_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define TS_ACQUIRE(...) TS_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TS_RELEASE(...) TS_ATTRIBUTE(release_capability(__VA_ARGS__))
#define TS_NO_ANALYSIS TS_ATTRIBUTE(no_thread_safety_analysis)
