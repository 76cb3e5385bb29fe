// Reading from and writing to descriptors of any kind: pipes, sockets and files, blocking or not.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include <sys/uio.h>

// Writes all of it, however long that takes. False on failure, with errno.
[[nodiscard]] bool write_all(int fd, std::vector<iovec>& pieces);
[[nodiscard]] bool write_all(int fd, std::span<const uint8_t> bytes);

// Bytes that can be read from a descriptor now, or that stand in a pipe whose writing end it is; 0
// where that cannot be told.
size_t bytes_waiting(int fd);

// Whether a read would find bytes or the end.
bool is_readable(int fd);

// The size of a pipe, made as large as is allowed up to `wanted`; 0 for what is no pipe.
size_t widen_pipe(int fd, size_t wanted);
