// The sending end of the control socket, for the process that starts the receiver:
//
//     comm_sender sender;
//     int receivers_end = -1;
//     bool good = comm_sender_open(sender, receivers_end);
//     if (fork() == 0) {
//         good = comm_keep_across_exec(receivers_end);  // "--anon-sock" and its number
//         execvp(...);
//     }
//     close(receivers_end);  // or the receiver's death would go unnoticed
//     sender.send(packet.packet());
//
// No call raises SIGPIPE.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

enum class comm_send_result {
    sent,      // everything has been handed to the kernel
    pending,   // some of it waits for the receiver to read on
    peer_gone, // the receiver has closed its end; nothing can be sent any more
    failed,    // an error of the system, in errno; nothing can be sent any more
};

// Owns its descriptor and the bytes that the kernel has not taken yet.
struct comm_sender {
    comm_sender() = default;
    explicit comm_sender(int stream_socket) : fd(stream_socket) {}
    comm_sender(const comm_sender&) = delete;
    comm_sender& operator=(const comm_sender&) = delete;
    ~comm_sender();

    // Sends a whole packet, behind those queued before, and waits as long as that takes.
    [[nodiscard]] comm_send_result send(std::span<const uint8_t> packet);

    // Queues a whole packet; flush() sends it. The caller bounds the queue, by pending_bytes().
    void queue(std::span<const uint8_t> packet);

    // Sends as much of the queue as the kernel takes without blocking. On `pending`, poll `fd` for
    // POLLOUT and call again.
    [[nodiscard]] comm_send_result flush();

    size_t pending_bytes() const { return unsent.size() - unsent_begin; }

    void close();

    int fd = -1;
    std::vector<uint8_t> unsent; // from unsent_begin
    size_t unsent_begin = 0;
    // What ended the connection. A packet may have been cut off then, so it cannot be used again.
    comm_send_result ended_by = comm_send_result::sent;
    int ended_errno = 0;
};

// Makes a socketpair and gives one end to `sender`; `receivers_end` is the caller's. Both have
// their close-on-exec flag set. False, with errno, when none can be made.
[[nodiscard]] bool comm_sender_open(comm_sender& sender, int& receivers_end);

// Clears the close-on-exec flag, so that the program executed next inherits the descriptor. To be
// called in the child, between fork and exec, where no other child can inherit it by accident; it
// is safe there.
[[nodiscard]] bool comm_keep_across_exec(int fd);
