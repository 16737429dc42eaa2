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
