// Makes one system or library call of a program fail. Preloaded; the environment says which:
//
//     VORN_FAULT=CALL:NTH:ACTION[:on]
//
// CALL is one of the names in call_names below. The NTH call of it (from 1) fails; with ":on",
// every later one too. ACTION is the errno, or "short": one byte is taken or given. CALL "disk"
// stands for "write" and "stdio" counted together, "descriptor" for "open" and "fopen".
//
// VORN_FAULT_LOG names a file that tells how many calls there were, and at which the fault struck:
//
//     count CALL NUMBER
//     struck CALL FILE INDEX       (INDEX: how many of this call the open file had seen before)
//
// Only the program's own calls are seen. What a stdio stream writes is libc's own affair, so fopen
// gives a stream whose writes come back here. Standard output and error are left alone.

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

enum call {
    call_open,
    call_write,
    call_rename,
    call_unlink,
    call_close,
    call_read,
    call_fopen,
    call_fclose,
    call_stdio,
    call_malloc,
    call_kinds
};

static const char* const call_names[call_kinds] = {"open", "write", "rename", "unlink", "close",
                                                   "read", "fopen", "fclose", "stdio",  "malloc"};

enum { tracked_files = 64, name_bytes = 128, log_descriptor = 100 };

static struct {
    char name[name_bytes];
    unsigned calls;
} files[tracked_files];

static unsigned counts[call_kinds];
static bool chosen[call_kinds];
static unsigned chosen_count; // calls of the chosen kinds so far
static unsigned nth;
static int fault_errno;
static bool fault_short;
static bool fault_lasts;
static bool struck;
static bool logging;

extern void* __libc_malloc(size_t size);
extern void* __libc_memalign(size_t alignment, size_t size);

static void log_line(const char* format, ...)
{
    char line[256];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    if (logging && length > 0)
        syscall(SYS_write, log_descriptor, line, (size_t)length);
}

static void choose_calls(const char* name, size_t length)
{
    for (int kind = 0; kind < call_kinds; kind++)
        chosen[kind] =
            strlen(call_names[kind]) == length && strncmp(name, call_names[kind], length) == 0;
    if (strncmp(name, "disk", length) == 0)
        chosen[call_write] = chosen[call_stdio] = true;
    if (strncmp(name, "descriptor", length) == 0)
        chosen[call_open] = chosen[call_fopen] = true;
}

__attribute__((constructor)) static void begin(void)
{
    const char* fault = getenv("VORN_FAULT");
    const char* colon = fault != NULL ? strchr(fault, ':') : NULL;
    if (colon != NULL) {
        char* action = NULL;
        choose_calls(fault, (size_t)(colon - fault));
        nth = (unsigned)strtoul(colon + 1, &action, 10);
        fault_short = strncmp(action, ":short", 6) == 0;
        fault_errno = fault_short ? 0 : atoi(action + 1);
        fault_lasts = strlen(action) > 3 && strcmp(action + strlen(action) - 3, ":on") == 0;
    }

    const char* log = getenv("VORN_FAULT_LOG");
    if (log != NULL) {
        const long fd =
            syscall(SYS_openat, AT_FDCWD, log, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        logging = fd >= 0 && syscall(SYS_dup3, fd, log_descriptor, O_CLOEXEC) == log_descriptor;
        syscall(SYS_close, fd);
    }
    memset(counts, 0, sizeof counts); // what came before belongs to the loader
    chosen_count = 0;
}

__attribute__((destructor)) static void end(void)
{
    for (int kind = 0; kind < call_kinds; kind++)
        log_line("count %s %u\n", call_names[kind], counts[kind]);
}

// Counts a call; true: this one is to fail.
static bool strikes(enum call kind, const char* file, unsigned index)
{
    counts[kind]++;
    if (!chosen[kind])
        return false;
    chosen_count++;
    if (chosen_count != nth && !(fault_lasts && chosen_count > nth))
        return false;
    if (!struck)
        log_line("struck %s %s %u\n", call_names[kind], file, index);
    struck = true;
    if (!fault_short)
        errno = fault_errno;
    return true;
}

static bool is_tracked(int fd)
{
    return fd >= 0 && fd < tracked_files;
}

static void track(int fd, const char* name)
{
    if (!is_tracked(fd))
        return;
    snprintf(files[fd].name, name_bytes, "%s", name);
    files[fd].calls = 0;
}

static const char* name_of(int fd)
{
    return is_tracked(fd) && files[fd].name[0] != '\0' ? files[fd].name : "-";
}

static bool strikes_descriptor(enum call kind, int fd)
{
    return strikes(kind, name_of(fd), is_tracked(fd) ? files[fd].calls++ : 0);
}

void* malloc(size_t size)
{
    return strikes(call_malloc, "-", 0) ? NULL : __libc_malloc(size);
}

void* aligned_alloc(size_t alignment, size_t size)
{
    return strikes(call_malloc, "-", 0) ? NULL : __libc_memalign(alignment, size);
}

int open(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if (strikes(call_open, path, 0))
        return -1;
    const int fd = (int)syscall(SYS_openat, AT_FDCWD, path, flags, mode);
    track(fd, path);
    return fd;
}

ssize_t write(int fd, const void* data, size_t size)
{
    if (fd > STDERR_FILENO && strikes_descriptor(call_write, fd)) {
        if (!fault_short)
            return -1;
        size = 1;
    }
    return syscall(SYS_write, fd, data, size);
}

ssize_t read(int fd, void* data, size_t size)
{
    if (strikes(call_read, "-", 0)) {
        if (!fault_short)
            return -1;
        size = size > 0 ? 1 : 0;
    }
    return syscall(SYS_read, fd, data, size);
}

// As on Linux, a close that fails has closed the descriptor all the same.
int close(int fd)
{
    const bool fails = strikes(call_close, name_of(fd), 0);
    const int error = errno;
    const int result = (int)syscall(SYS_close, fd);
    if (!fails)
        return result;
    errno = error;
    return -1;
}

int rename(const char* from, const char* to)
{
    return strikes(call_rename, from, 0) ? -1 : (int)syscall(SYS_rename, from, to);
}

int unlink(const char* path)
{
    return strikes(call_unlink, path, 0) ? -1 : (int)syscall(SYS_unlink, path);
}

// What libc does below a stream of its own: goes on after a short write, gives up at an error.
static ssize_t stream_write(void* cookie, const char* data, size_t size)
{
    const int fd = (int)(long)cookie;
    size_t done = 0;
    while (done < size) {
        size_t part = size - done;
        if (strikes_descriptor(call_stdio, fd)) {
            if (!fault_short)
                break;
            part = 1;
        }
        const long count = syscall(SYS_write, fd, data + done, part);
        if (count < 0)
            break;
        done += (size_t)count;
    }
    return (ssize_t)done;
}

static int stream_close(void* cookie)
{
    const int fd = (int)(long)cookie;
    const bool fails = strikes(call_fclose, name_of(fd), 0);
    const int result = (int)syscall(SYS_close, fd);
    return fails ? -1 : result;
}

FILE* fopen(const char* path, const char* mode)
{
    if (mode[0] != 'w')
        abort(); // the program only writes streams
    if (strikes(call_fopen, path, 0))
        return NULL;
    const int fd = (int)syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (fd < 0)
        return NULL;
    track(fd, path);
    FILE* stream =
        fopencookie((void*)(long)fd, mode,
                    (cookie_io_functions_t){.write = stream_write, .close = stream_close});
    if (stream == NULL)
        syscall(SYS_close, fd);
    return stream;
}
