// Makes a system call of the publisher fail. Preloaded; the environment says which:
//
//     VORN_FAULT=CALL:FIRST:COUNT:ERRNO
//
// CALL is one of the names below. COUNT calls of it in a row fail, from the one numbered FIRST on,
// counted from 1; a line on standard error tells of the first. Standard output and error are left
// alone.
//
// Or sets the clock of the machine back by an hour, as the publisher sees it:
//
//     VORN_CLOCK_BACK=FILE
//
// as long as there is such a file. The times of files are those of the clock.

#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static char wanted[32];
static unsigned first, count, error, seen;
static const char* clock_file;

static const time_t hour = 3600;

__attribute__((constructor)) static void begin(void)
{
    clock_file = getenv("VORN_CLOCK_BACK");
    const char* fault = getenv("VORN_FAULT");
    if (fault == NULL || sscanf(fault, "%31[^:]:%u:%u:%u", wanted, &first, &count, &error) != 4)
        wanted[0] = '\0';
}

static bool strikes(const char* call)
{
    if (strcmp(call, wanted) != 0)
        return false;
    seen++;
    if (seen < first || seen - first >= count)
        return false;
    if (seen == first)
        dprintf(STDERR_FILENO, "call %u of %s fails\n", seen, call);
    errno = (int)error;
    return true;
}

static bool clock_is_back(void)
{
    return clock_file != NULL && syscall(SYS_access, clock_file, F_OK) == 0;
}

int clock_gettime(clockid_t clock, struct timespec* now)
{
    const int result = (int)syscall(SYS_clock_gettime, clock, now);
    if (result == 0 && clock == CLOCK_REALTIME && clock_is_back())
        now->tv_sec -= hour;
    return result;
}

int fstat(int fd, struct stat* found)
{
    if (strikes("fstat"))
        return -1;
    const int result = (int)syscall(SYS_newfstatat, fd, "", found, AT_EMPTY_PATH);
    if (result == 0 && clock_is_back())
        found->st_mtim.tv_sec -= hour;
    return result;
}

int stat(const char* path, struct stat* found)
{
    return strikes("stat") ? -1 : (int)syscall(SYS_newfstatat, AT_FDCWD, path, found, 0);
}

int fstatat(int directory, const char* path, struct stat* found, int flags)
{
    return strikes("fstatat") ? -1 : (int)syscall(SYS_newfstatat, directory, path, found, flags);
}

int open(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return strikes("open") ? -1 : (int)syscall(SYS_openat, AT_FDCWD, path, flags, mode);
}

// SQLite's calls have the names for large files.
int open64(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return strikes("open64") ? -1 : (int)syscall(SYS_openat, AT_FDCWD, path, flags, mode);
}

int openat(int directory, const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return strikes("openat") ? -1 : (int)syscall(SYS_openat, directory, path, flags, mode);
}

ssize_t write(int fd, const void* data, size_t size)
{
    return fd > STDERR_FILENO && strikes("write") ? -1 : syscall(SYS_write, fd, data, size);
}

ssize_t pwrite64(int fd, const void* data, size_t size, off64_t offset)
{
    return strikes("pwrite64") ? -1 : syscall(SYS_pwrite64, fd, data, size, offset);
}

ssize_t pread(int fd, void* data, size_t size, off_t offset)
{
    return strikes("pread") ? -1 : syscall(SYS_pread64, fd, data, size, offset);
}

ssize_t pread64(int fd, void* data, size_t size, off64_t offset)
{
    return strikes("pread64") ? -1 : syscall(SYS_pread64, fd, data, size, offset);
}

// Locks of SQLite.
int fcntl64(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return strikes("fcntl64") ? -1 : (int)syscall(SYS_fcntl, fd, command, argument);
}

ssize_t copy_file_range(int from, off64_t* from_offset, int to, off64_t* to_offset, size_t size,
                        unsigned flags)
{
    return strikes("copy_file_range")
               ? -1
               : syscall(SYS_copy_file_range, from, from_offset, to, to_offset, size, flags);
}

int renameat(int from_directory, const char* from, int to_directory, const char* to)
{
    return strikes("renameat")
               ? -1
               : (int)syscall(SYS_renameat2, from_directory, from, to_directory, to, 0);
}

int unlinkat(int directory, const char* path, int flags)
{
    return strikes("unlinkat") ? -1 : (int)syscall(SYS_unlinkat, directory, path, flags);
}

int linkat(int from_directory, const char* from, int to_directory, const char* to, int flags)
{
    return strikes("linkat")
               ? -1
               : (int)syscall(SYS_linkat, from_directory, from, to_directory, to, flags);
}

// As on Linux, a close that fails has closed the descriptor all the same.
int close(int fd)
{
    const bool fails = fd > STDERR_FILENO && strikes("close");
    const int result = (int)syscall(SYS_close, fd);
    if (fails)
        errno = (int)error;
    return fails ? -1 : result;
}

int inotify_add_watch(int fd, const char* path, unsigned mask)
{
    return strikes("inotify_add_watch") ? -1 : (int)syscall(SYS_inotify_add_watch, fd, path, mask);
}

int inotify_init1(int flags)
{
    return strikes("inotify_init1") ? -1 : (int)syscall(SYS_inotify_init1, flags);
}

int fdatasync(int fd)
{
    return strikes("fdatasync") ? -1 : (int)syscall(SYS_fdatasync, fd);
}
