#include "toolkit/ts/splice_stream.hpp"

#include "toolkit/big_endian.hpp"

std::span<const uint8_t> find_descriptor(uint8_t tag, size_t least,
                                         std::span<const uint8_t> descriptors)
{
    while (descriptors.size() >= 2 && descriptors.size() - 2 >= descriptors[1]) {
        const auto payload = descriptors.subspan(2, descriptors[1]);
        if (descriptors[0] == tag && payload.size() >= least)
            return payload;
        descriptors = descriptors.subspan(2 + payload.size());
    }
    return {};
}

// By the registration_descriptor, ISO/IEC 13818-1, 2.6.8, that ANSI/SCTE 35 asks for. Streams of
// the type that it takes often lack it.
bool carries_splices(uint8_t stream_type, std::span<const uint8_t> descriptors)
{
    constexpr uint8_t registration_descriptor = 0x05;
    const auto registered = find_descriptor(registration_descriptor, 4, descriptors);
    return registered.empty() ? stream_type == stream_type_splice
                              : load_be32(registered.data()) == cuei_identifier;
}
