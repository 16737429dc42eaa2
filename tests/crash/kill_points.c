// Preloaded into Wine, ends the service at the n-th thing that it asks of the system: a kill that
// falls into the same step each time, where one that is timed from outside seldom falls. The kinds
// of calls that count, and how many of them until the end, come from a file beside the Wine prefix
// that its processes map (kills.py); without that file nothing happens.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

enum Kind {
  kRequest = 1,  // to Wine's server: the registry, events, pipes, sizes, renames and deletions
  kFlush = 2,    // of a file or of a mapping
  kFile = 4,     // opening and mapping a file, writing to it, making a directory
};

// <prefix>.kill_points
struct Control {
  _Atomic int64_t countdown;  // calls of the kinds below until the end; 0 and less: none
  _Atomic uint32_t kinds;
  _Atomic uint32_t process;  // the service that started last
};

static const char kProgram[] = "zelservice.exe";
static struct Control* control;  // of the service alone

static int IsService(void) {
  char line[4096] = {0};
  const int file = open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
  if (file < 0) return 0;
  const ssize_t size = read(file, line, sizeof line);
  close(file);
  return size > 0 && memmem(line, (size_t)size, kProgram, sizeof kProgram - 1) != NULL;
}

__attribute__((constructor)) static void MapControl(void) {
  const char* const prefix = getenv("WINEPREFIX");
  char path[4096];
  if (prefix == NULL || !IsService()) return;
  if (snprintf(path, sizeof path, "%s.kill_points", prefix) >= (int)sizeof path) return;
  const int file = open(path, O_RDWR | O_CLOEXEC);
  if (file < 0) return;
  void* const view = mmap(NULL, sizeof *control, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  if (view == MAP_FAILED) return;
  control = view;
  control->process = (uint32_t)getpid();
}

static void Pass(enum Kind kind) {
  if (control == NULL || (control->kinds & kind) == 0 || control->countdown <= 0) return;
  if (--control->countdown == 0) kill(getpid(), SIGKILL);
}

// Each function counts and goes on to the next library's of its name.
#define FORWARD(kind, result, name, parameters, ...)                     \
  result name parameters {                                               \
    static __typeof__(&name) next;                                       \
    Pass(kind);                                                          \
    if (next == NULL) next = (__typeof__(&name))dlsym(RTLD_NEXT, #name); \
    return next(__VA_ARGS__);                                            \
  }

FORWARD(kRequest, ssize_t, write, (int file, const void* data, size_t size), file, data, size)
FORWARD(kRequest, ssize_t, writev, (int file, const struct iovec* parts, int count), file, parts,
        count)
FORWARD(kFlush, int, fsync, (int file), file)
FORWARD(kFlush, int, msync, (void* address, size_t size, int flags), address, size, flags)
FORWARD(kFile, int, mkdir, (const char* path, mode_t mode), path, mode)
FORWARD(kFile, ssize_t, pwrite, (int file, const void* data, size_t size, off_t at), file, data,
        size, at)
FORWARD(kFile, void*, mmap,
        (void* address, size_t size, int protection, int flags, int file, off_t at), address, size,
        protection, flags, file, at)
FORWARD(kFile, int, munmap, (void* address, size_t size), address, size)

int open(const char* path, int flags, ...) {
  static __typeof__(&open) next;
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = va_arg(rest, mode_t);  // nobody's when there is none
  va_end(rest);
  Pass(kFile);
  if (next == NULL) next = (__typeof__(&open))dlsym(RTLD_NEXT, "open");
  return next(path, flags, mode);
}
