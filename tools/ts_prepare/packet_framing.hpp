// Finds transport packets in a stream of bytes: 188 bytes each, or with 4 or 16 bytes between them
// (192 and 204), or behind RTP headers (RFC 3550; payload type 33, RFC 3551). What is no packet is
// skipped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

enum class packet_format {
    unknown,
    plain,
    bytes_192, // as in the files of cameras and Blu-ray discs: 4 bytes with a time before each
               // packet
    bytes_204, // 16 bytes of Reed-Solomon code behind each packet
    rtp,
};

const char* packet_format_name(packet_format format);

struct packet_framing {
    packet_format format = packet_format::unknown; // in which packets were found last
    bool in_sync = false;
    size_t between = 0;     // bytes still to be passed over before the next packet
    size_t in_datagram = 0; // packets behind the last RTP header
    bool padded = false;    // of the RTP datagram in hand: bytes of no meaning follow its packets
};

enum class more_input { may_come, none };

enum class framing_event {
    need_more,  // nothing can be said before more bytes have come
    packet,     // 188 bytes at `at`
    rtp_header, // a datagram begins, whose packets follow
    skipped,    // bytes that are no packet
    lost,       // where a packet should begin none does; consumes nothing
    found,      // packets follow, in `format`; consumes nothing
};

struct rtp_fields {
    uint16_t sequence_number = 0;
    uint32_t ssrc = 0;
};

struct framing_step {
    framing_event event = framing_event::need_more;
    uint8_t* at = nullptr;
    size_t consumed = 0; // bytes, from the first one passed in
    rtp_fields rtp = {};
};

// Takes the next step into `bytes`. What it did not consume has to be passed in again.
framing_step next_framing_step(packet_framing& framing, std::span<uint8_t> bytes, more_input more);
