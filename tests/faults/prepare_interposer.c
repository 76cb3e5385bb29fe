// Descriptors that answer badly: every second call by which vorn_ts_prepare reads, writes or waits
// is interrupted, has nothing to give, or takes or gives a part. Preloaded; VORN_BAD_CALLS says
// which: "interrupted", "again" or "short".

#include <errno.h>
#include <poll.h>
#include <stdbool.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

enum { part_bytes = 1000 }; // no whole packets

static const char* kind = "";
static unsigned calls;

__attribute__((constructor)) static void begin(void)
{
    const char* wanted = getenv("VORN_BAD_CALLS");
    kind = wanted != NULL ? wanted : "";
}

static bool is_kind(const char* name)
{
    return strcmp(kind, name) == 0;
}

// True: the call is to fail, with errno.
static bool fails(void)
{
    if (calls++ % 2 == 0 || is_kind("short"))
        return false;
    errno = is_kind("interrupted") ? EINTR : EAGAIN;
    return is_kind("interrupted") || is_kind("again");
}

static size_t part_of(size_t size)
{
    return is_kind("short") && calls % 2 == 0 && size > part_bytes ? part_bytes : size;
}

ssize_t read(int fd, void* data, size_t size)
{
    return fails() ? -1 : syscall(SYS_read, fd, data, part_of(size));
}

ssize_t write(int fd, const void* data, size_t size)
{
    return fails() ? -1 : syscall(SYS_write, fd, data, part_of(size));
}

ssize_t writev(int fd, const struct iovec* pieces, int count)
{
    if (fails())
        return -1;
    const struct iovec first = {.iov_base = pieces[0].iov_base,
                                .iov_len = part_of(pieces[0].iov_len)};
    return first.iov_len == pieces[0].iov_len ? syscall(SYS_writev, fd, pieces, count)
                                              : syscall(SYS_writev, fd, &first, 1);
}

ssize_t vmsplice(int fd, const struct iovec* pieces, size_t count, unsigned flags)
{
    (void)count; // always 1
    if (fails())
        return -1;
    const struct iovec piece = {.iov_base = pieces->iov_base, .iov_len = part_of(pieces->iov_len)};
    return syscall(SYS_vmsplice, fd, &piece, 1, flags);
}

int ppoll(struct pollfd* fds, nfds_t count, const struct timespec* wait, const sigset_t* mask)
{
    if (is_kind("interrupted") && fails())
        return -1;
    struct timespec time_left = *wait; // the kernel writes to it
    return (int)syscall(SYS_ppoll, fds, count, &time_left, mask, 8);
}
