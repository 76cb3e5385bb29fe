// The tracks that a stream announces, and their languages.

#include "tools/caption_feed/broadcast_source.hpp"

#include <algorithm>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/caption_data.hpp"
#include "tests/support/stream_builder.hpp"

namespace
{

// The services of CEA-708 with these numbers, all of them German.
byte_string german_services(const byte_string& numbers)
{
    byte_string services = {static_cast<uint8_t>(0xC0 | numbers.size())};
    for (const uint8_t number : numbers)
        services = concat({services, bytes_of("deu"),
                           byte_string{static_cast<uint8_t>(0xC0 | number), 0x3F, 0xFF}});
    return build_descriptor(0x86, services);
}

TEST(BroadcastSource, NoTwoTracksHaveALanguageInCommon)
{
    broadcast_source source;
    source.captions.all_services = true;
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    source.road.copy_end = ends[0];
    stream_builder stream;
    size_t written = 0;
    const byte_string announced[] = {{1, 2}, {1, 3}, {1, 2, 3}};
    for (const byte_string& numbers : announced) {
        stream.pmt.streams[0].descriptors = german_services(numbers);
        stream.tables();
        const byte_string bytes = stream.bytes();
        written += static_cast<size_t>(
            std::max<ssize_t>(write(ends[1], &bytes[written], bytes.size() - written), 0));
        ASSERT_EQ(written, bytes.size());
        read_broadcast(source, 0);
    }
    ASSERT_EQ(close(ends[1]), 0);
    EXPECT_EQ(source.languages, (std::vector<std::string>{"deu", "deu-x-s2", "deu-x-s2-2"}));
}

} // namespace
