// The road of the transport stream from the feeder's input to the program, and a copy of it for a
// reader. Nothing is copied on the road: splice(2) moves the pages of a pipe on, and tee(2) lets a
// second pipe share them.
//
// The road is a thread of its own and waits for the program, and for the reader a moment at most.
// Where the reader lags so far behind that its pipe stays full, the copy has a gap, and the stream
// goes on.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <thread>

// Owns the pipes and the thread.
struct stream_road {
    stream_road() = default;
    stream_road(const stream_road&) = delete;
    stream_road& operator=(const stream_road&) = delete;
    ~stream_road();

    // Makes the pipes. The input stays the caller's. False on failure, in errno.
    [[nodiscard]] bool open(int input);

    // Begins to move what comes from the input, once the program has inherited its end. False
    // on failure, in errno.
    [[nodiscard]] bool start();

    // The reader has reached the end of the copy and done its work: the program may see the end of
    // its input. Without this call it does twenty seconds later.
    void release_end() const;

    int program_end = -1; // to read from, for the program's standard input; start() closes it
    int copy_end = -1;    // to read from without waiting
    int copy_waits = -1;  // eventfd(2): the copy's pipe is half full, or has reached its end

    // Set when the copy misses bytes behind those in its pipe. The reader empties the pipe and
    // clears this; then the copy goes on.
    std::atomic<bool> copy_has_gap = false;

    enum class input_kind { pipe, file, other };
    int input = -1;
    input_kind kind = input_kind::pipe;
    bool can_splice_input = true;
    int joint[2] = {-1, -1}; // the pipe that input which is none goes through
    int to_program = -1;     // the other ends
    int to_copy = -1;
    int stop = -1;          // eventfd(2)
    size_t copy_enough = 0; // bytes that are worth waking the reader for
    std::thread thread;
};
