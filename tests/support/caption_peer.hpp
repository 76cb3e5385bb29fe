// The parent's side of a run with captions: the far end of the control socket, and a stream cut
// into what the program reads for each pass.
//
// The program takes at most one caption packet a pass. Passes are countable: the start-up fill is
// exactly 2 MiB, of which the PAT phase, the PMT phase and the first pass of the main loop process
// all but the look-ahead; from then on each pass reads until it has 16 packets beyond the
// look-ahead, so a read(2) that yields just these 16 packets makes a pass, and the end of the input
// makes the last one. A caption packet that stands ready when the program starts is therefore taken
// in the pass of its number.
#pragma once

#include "tests/support/caption_packet.hpp"
#include "tests/support/program_run.hpp"
#include "tests/support/stream_builder.hpp"

// A connected pair of sockets of which the program inherits one end.
class control_socket
{
public:
    control_socket();
    ~control_socket();
    control_socket(const control_socket&) = delete;
    control_socket& operator=(const control_socket&) = delete;

    // The value of --anon-sock.
    [[nodiscard]] std::string number() const { return std::to_string(programs_end_); }

    // Sends as much as the kernel takes without blocking; how much that was.
    size_t send(std::span<const uint8_t> bytes);

    // Closes the peer's end. What was sent before is delivered all the same.
    void close_peer();

private:
    int peers_end_ = -1;
    int programs_end_ = -1;
};

// A packet that the program releases unread: it only uses up a pass.
byte_string idle_caption_packet();

// A stream and the caption packets that go with it, pass by pass.
class stepped_stream
{
public:
    explicit stepped_stream(const programme_fields& programme = {});

    // The stream; packets are added between two calls of pass().
    stream_builder stream;

    // Ends the packets of one pass, at most 16, and fills it up with null packets. `captions`
    // stands ready when it begins: one packet, or bytes that are none.
    stepped_stream& pass(const byte_string& captions = idle_caption_packet());

    // One video PES in a pass of its own.
    stepped_stream& keyframe(int64_t at_ms, const byte_string& captions = idle_caption_packet());
    stepped_stream& picture(int64_t at_ms, const byte_string& captions = idle_caption_packet());

    // All captions, with one packet for each of the passes before the first of pass().
    [[nodiscard]] byte_string all_captions() const;

    // The whole stream, read in the steps that make the passes. Ends the stream.
    program_input input();

    // Where in the stream the next pass begins.
    [[nodiscard]] size_t mark() const { return stream.mark(); }

private:
    size_t passes_ = 0;
    byte_string captions_;
};
