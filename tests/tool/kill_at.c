/* Kills the process it is loaded into (LD_PRELOAD) just before one of its changes to the
 * file system. For kill_test.py.
 *
 *   KILL_AT     the number of the change, from 1; 0: let all happen
 *   KILL_TRACE  a file that gets one letter for each change, at once:
 *               w data, s synced, r renamed, u removed, t cut or grown, c created
 *
 * What the process starts is left alone. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

static long kill_at;
static int trace = -1;
static atomic_long changes;

__attribute__((constructor)) static void prepare(void) {
  const char* number = getenv("KILL_AT");
  const char* name = getenv("KILL_TRACE");
  kill_at = number ? strtol(number, NULL, 10) : 0;
  if (name)
    trace =
        (int)syscall(SYS_openat, AT_FDCWD, name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  unsetenv("LD_PRELOAD");
}

static void change(char kind) {
  if (atomic_fetch_add(&changes, 1) + 1 == kill_at) raise(SIGKILL);
  if (trace >= 0) syscall(SYS_write, trace, &kind, 1);
}

/* Standard output and error are no part of the home. */
static int counts(int descriptor) { return descriptor > STDERR_FILENO; }

#define NEXT(name) (__extension__(__typeof__(&name)) dlsym(RTLD_NEXT, #name))

ssize_t write(int descriptor, const void* data, size_t size) {
  if (counts(descriptor)) change('w');
  return NEXT(write)(descriptor, data, size);
}

ssize_t pwrite(int descriptor, const void* data, size_t size, off_t offset) {
  change('w');
  return NEXT(pwrite)(descriptor, data, size, offset);
}

ssize_t pwrite64(int descriptor, const void* data, size_t size, off64_t offset) {
  change('w');
  return NEXT(pwrite64)(descriptor, data, size, offset);
}

ssize_t pwritev(int descriptor, const struct iovec* parts, int count, off_t offset) {
  change('w');
  return NEXT(pwritev)(descriptor, parts, count, offset);
}

size_t fwrite(const void* data, size_t size, size_t count, FILE* file) {
  if (counts(fileno(file))) change('w');
  return NEXT(fwrite)(data, size, count, file);
}

int fsync(int descriptor) {
  change('s');
  return NEXT(fsync)(descriptor);
}

int fdatasync(int descriptor) {
  change('s');
  return NEXT(fdatasync)(descriptor);
}

int rename(const char* from, const char* to) {
  change('r');
  return NEXT(rename)(from, to);
}

int renameat2(int from_directory, const char* from, int to_directory, const char* to,
              unsigned flags) {
  change('r');
  return NEXT(renameat2)(from_directory, from, to_directory, to, flags);
}

int unlink(const char* name) {
  change('u');
  return NEXT(unlink)(name);
}

int unlinkat(int directory, const char* name, int flags) {
  change('u');
  return NEXT(unlinkat)(directory, name, flags);
}

int rmdir(const char* name) {
  change('u');
  return NEXT(rmdir)(name);
}

int remove(const char* name) {
  change('u');
  return NEXT(remove)(name);
}

int mkdir(const char* name, mode_t mode) {
  change('c');
  return NEXT(mkdir)(name, mode);
}

int ftruncate(int descriptor, off_t size) {
  change('t');
  return NEXT(ftruncate)(descriptor, size);
}

int ftruncate64(int descriptor, off64_t size) {
  change('t');
  return NEXT(ftruncate64)(descriptor, size);
}
