// Names for clang's thread safety attributes; empty for other compilers.
#pragma once

#if defined(__clang__)
#define ZEL_ATTRIBUTE(x) __attribute__((x))
#else
#define ZEL_ATTRIBUTE(x)
#endif

#define ZEL_CAPABILITY(name) ZEL_ATTRIBUTE(capability(name))
#define ZEL_SCOPED_CAPABILITY ZEL_ATTRIBUTE(scoped_lockable)
#define ZEL_GUARDED_BY(lock) ZEL_ATTRIBUTE(guarded_by(lock))
#define ZEL_REQUIRES(...) ZEL_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ZEL_EXCLUDES(...) ZEL_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ZEL_ACQUIRE(...) ZEL_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define ZEL_RELEASE(...) ZEL_ATTRIBUTE(release_capability(__VA_ARGS__))
#define ZEL_ACQUIRE_SHARED(...) ZEL_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define ZEL_RELEASE_SHARED(...) ZEL_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
#define ZEL_REQUIRES_SHARED(...) ZEL_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
// For a function whose locking the analysis cannot follow; say why beside it.
#define ZEL_UNCHECKED ZEL_ATTRIBUTE(no_thread_safety_analysis)
#define ZEL_ACQUIRED_BEFORE(...) ZEL_ATTRIBUTE(acquired_before(__VA_ARGS__))
