// Preloaded into Wine, makes a fast disk a slow one: every flush to the device sleeps first and is
// counted. How long comes from a file beside the Wine prefix that its processes map, so that it
// changes while they run; without that file nothing sleeps. Of slow_disk.py, which loads it, too.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

// <prefix>.slow_flush
struct Control {
  _Atomic uint64_t delay_ns;
  _Atomic uint64_t flushes;  // since the file was made
};

static struct Control* control;

__attribute__((constructor)) static void MapControl(void) {
  const char* const prefix = getenv("WINEPREFIX");
  char path[4096];
  if (prefix == NULL) return;
  if (snprintf(path, sizeof path, "%s.slow_flush", prefix) >= (int)sizeof path) return;
  const int file = open(path, O_RDWR | O_CLOEXEC);
  if (file < 0) return;
  void* const view = mmap(NULL, sizeof *control, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  if (view != MAP_FAILED) control = view;
}

static void DelayFlush(void) {
  if (control == NULL) return;
  ++control->flushes;
  const uint64_t delay_ns = control->delay_ns;
  if (delay_ns == 0) return;
  struct timespec end;
  clock_gettime(CLOCK_MONOTONIC, &end);
  const uint64_t end_ns = (uint64_t)end.tv_nsec + delay_ns;
  end.tv_sec += (time_t)(end_ns / 1000000000);
  end.tv_nsec = (long)(end_ns % 1000000000);
  // Wine interrupts threads with signals of its own.
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, NULL) == EINTR) continue;
}

int fsync(int file) {
  DelayFlush();
  return (int)syscall(SYS_fsync, file);
}

int fdatasync(int file) {
  DelayFlush();
  return (int)syscall(SYS_fdatasync, file);
}
