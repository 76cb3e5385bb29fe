// Streams that are hardly longer than what the program reads before it starts, so that a run takes
// milliseconds, and yet pass through every kind of file that it writes.
#pragma once

#include <string>
#include <vector>

#include "tests/support/stream_builder.hpp"

// The descriptor that the program's control socket has in these runs.
constexpr int control_socket_number = 9;

struct short_programme {
    std::string name;
    byte_string stream;
    std::vector<std::string> arguments; // without --frag-backlog
    byte_string captions = {};          // packets that wait on the control socket; empty: no socket
};

// Video and audio in one rendition with tables at the fragment starts, and captions.
short_programme captioned_programme(int cuts = 7);

// Video, audio and secondary audio apart, with tables.
short_programme separate_programme();

// Audio alone, whose fragments are opened by the first packet.
short_programme audio_programme();
