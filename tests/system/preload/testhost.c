/* SPDX-License-Identifier: MIT */
/*
 * Functions of the C library that system tests replace in the shipped daemon, with LD_PRELOAD:
 *
 * - TESTHOST_SYSLOG: the path of a UNIX datagram socket; each syslog line becomes one datagram
 *   "<priority>text"
 * - TESTHOST_UID: the result of getuid()
 * - TESTHOST_GID: the result of getgid()
 * - TESTHOST_FAULTS: the path of a folder; while it has an entry "sync-file" or "sync-folder", fsync() of a
 *   file or a folder fails with EIO; while it has "sync-slowly", each fsync() takes SLOW_SYNC longer
 * - TESTHOST_LEAK_CHECK: if set, SIGUSR2 makes AddressSanitizer check for leaks while the program runs; after
 *   its report, standard error gets a line "leak check: N", where N is 0 without leaks
 *
 * Without its variable a function is the C library's. The socket must be writable by the daemon's user, and
 * its reader must keep up: a full queue blocks the daemon for at most SEND_LIMIT, and then the line is lost.
 *
 * AddressSanitizer's runtime requires to be the first library: set ASAN_OPTIONS=verify_asan_link_order=0 in
 * addition to LD_PRELOAD. This library is not instrumented, so it is loaded in the same way in each kind of
 * build.
 */

#define _GNU_SOURCE

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

/* Above the numbers of socket activation, and of the descriptors that tests check. */
enum { SYSLOG_FD_MIN = 200 };

/* Longer lines are truncated; the limit of a datagram is higher. */
enum { LINE_MAX_BYTES = 64 * 1024 };

static const struct timeval SEND_LIMIT = {.tv_sec = 1};

static const struct timespec SLOW_SYNC = {.tv_nsec = 300 * 1000 * 1000};

typedef void (*VsyslogFunc)(int priority, const char *format, va_list args);

/* The entry points of fortified callers, which the headers declare for these alone. */
void __syslog_chk(int priority, int flag, const char *format, ...);
void __vsyslog_chk(int priority, int flag, const char *format, va_list args);

static struct sockaddr_un syslog_address = {.sun_family = AF_UNIX};
static int syslog_fd = -1;

/* Opened at the start, so that the log works when the daemon has no free descriptor. */
__attribute__((constructor)) static void
open_syslog_socket(void)
{
  const char *path = getenv("TESTHOST_SYSLOG");
  if (path == NULL || strlen(path) >= sizeof syslog_address.sun_path)
    return;

  memcpy(syslog_address.sun_path, path, strlen(path) + 1);
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0)
    return;

  (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &SEND_LIMIT, sizeof SEND_LIMIT);
  syslog_fd = fcntl(fd, F_DUPFD_CLOEXEC, SYSLOG_FD_MIN);
  if (syslog_fd < 0)
    syslog_fd = fd;
  else
    close(fd);
}

/* Defined in builds with AddressSanitizer. */
int __lsan_do_recoverable_leak_check(void) __attribute__((weak));

static sigset_t
leak_check_signals(void)
{
  sigset_t signals;

  sigemptyset(&signals);
  sigaddset(&signals, SIGUSR2);
  return signals;
}

/* Runs on a thread, because a signal handler could interrupt the allocator. */
static void *
check_leaks(void *unused)
{
  sigset_t signals = leak_check_signals();
  int number;

  (void)unused;
  while (sigwait(&signals, &number) == 0) {
    int found = __lsan_do_recoverable_leak_check != NULL ? __lsan_do_recoverable_leak_check() : -1;
    dprintf(STDERR_FILENO, "leak check: %d\n", found);
  }
  return NULL;
}

/* All later threads inherit the blocked signal. */
__attribute__((constructor)) static void
start_leak_checks(void)
{
  sigset_t signals = leak_check_signals();
  pthread_t thread;

  if (getenv("TESTHOST_LEAK_CHECK") == NULL || pthread_sigmask(SIG_BLOCK, &signals, NULL) != 0)
    return;
  if (pthread_create(&thread, NULL, check_leaks, NULL) == 0)
    pthread_detach(thread);
}

static void
send_line(int priority, const char *format, va_list args, int saved_errno)
{
  char prefix[16];
  int prefix_length = snprintf(prefix, sizeof prefix, "<%d>", priority);
  char *line = malloc(LINE_MAX_BYTES);
  if (line == NULL)
    return;

  memcpy(line, prefix, (size_t)prefix_length);
  errno = saved_errno; /* for %m */
  int text_length = vsnprintf(line + prefix_length, (size_t)(LINE_MAX_BYTES - prefix_length), format, args);
  if (text_length >= 0)
    (void)sendto(syslog_fd, line, strlen(line), MSG_NOSIGNAL, (const struct sockaddr *)&syslog_address,
                 sizeof syslog_address);
  free(line);
}

static void
log_line(int priority, const char *format, va_list args)
{
  int saved_errno = errno;

  if (syslog_fd >= 0) {
    send_line(priority, format, args, saved_errno);
  } else {
    VsyslogFunc real_vsyslog = NULL;
    *(void **)&real_vsyslog = dlsym(RTLD_NEXT, "vsyslog");
    errno = saved_errno;
    real_vsyslog(priority, format, args);
  }

  errno = saved_errno;
}

static unsigned int
id_from_environment(const char *variable, long syscall_number)
{
  const char *text = getenv(variable);
  return text != NULL ? (unsigned int)strtoul(text, NULL, 10) : (unsigned int)syscall(syscall_number);
}

void
syslog(int priority, const char *format, ...)
{
  va_list args;
  va_start(args, format);
  log_line(priority, format, args);
  va_end(args);
}

void
vsyslog(int priority, const char *format, va_list args)
{
  log_line(priority, format, args);
}

void
__syslog_chk(int priority, int flag, const char *format, ...)
{
  (void)flag;
  va_list args;
  va_start(args, format);
  log_line(priority, format, args);
  va_end(args);
}

void
__vsyslog_chk(int priority, int flag, const char *format, va_list args)
{
  (void)flag;
  log_line(priority, format, args);
}

static int
has_fault(const char *name)
{
  const char *folder = getenv("TESTHOST_FAULTS");
  char path[PATH_MAX];

  if (folder == NULL)
    return 0;
  int length = snprintf(path, sizeof path, "%s/%s", folder, name);
  return length < (int)sizeof path && access(path, F_OK) == 0;
}

int
fsync(int fd)
{
  struct stat status;

  if (fstat(fd, &status) == 0 && has_fault(S_ISDIR(status.st_mode) ? "sync-folder" : "sync-file")) {
    errno = EIO;
    return -1;
  }
  if (has_fault("sync-slowly"))
    (void)nanosleep(&SLOW_SYNC, NULL);
  return (int)syscall(SYS_fsync, fd);
}

uid_t
getuid(void)
{
  return id_from_environment("TESTHOST_UID", SYS_getuid);
}

gid_t
getgid(void)
{
  return id_from_environment("TESTHOST_GID", SYS_getgid);
}
