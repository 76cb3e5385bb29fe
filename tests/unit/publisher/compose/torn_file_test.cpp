#include "publisher/compose/torn_file.hpp"

#include <gtest/gtest.h>

#include "tests/support/scratch_directory.hpp"
#include "tests/support/stream_builder.hpp"
#include "toolkit/ts/ts_packet.hpp"

namespace
{

class TornFile : public testing::Test
{
protected:
    void SetUp() override
    {
        std::string error;
        ASSERT_TRUE(output_.open(scratch_.path(), error)) << error;
        stream_builder stream;
        stream.tables().keyframe(900000);
        whole_ = stream.bytes();
        write_file(scratch_.path() / "main.1.ts", whole_);
    }

    byte_string filled_up(const std::string& name, uint64_t bytes)
    {
        EXPECT_EQ(fill_up(output_, name, bytes, "main.1.ts"), bytes);
        return read_file(scratch_.path() / name);
    }

    static bool is_null(const byte_string& stream, size_t at)
    {
        return stream[at] == 0x47 && stream[at + 1] == 0x1F && stream[at + 2] == 0xFF;
    }

    const scratch_directory scratch_;
    output_directory output_;
    byte_string whole_;
};

} // namespace

TEST_F(TornFile, KeepsThePacketsThatAreLeftOfAStream)
{
    const size_t left = whole_.size() - ts_packet_bytes;
    const auto end = whole_.begin() + static_cast<std::ptrdiff_t>(left);
    write_file(scratch_.path() / "main.2.ts", byte_string(whole_.begin(), end + 100));
    const byte_string found = filled_up("main.2.ts", whole_.size() + ts_packet_bytes);
    EXPECT_EQ(byte_string(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(left)),
              byte_string(whole_.begin(), end));
    EXPECT_TRUE(is_null(found, left));
    EXPECT_TRUE(is_null(found, left + ts_packet_bytes));
}

TEST_F(TornFile, GetsTheTablesOfTheOneBeforeWhereNothingIsLeft)
{
    write_file(scratch_.path() / "main.2.ts", {});
    for (const char* name : {"main.2.ts", "main.3.ts"}) {
        const byte_string found = filled_up(name, ts_packet_bytes * 5);
        EXPECT_TRUE(
            std::equal(whole_.begin(), whole_.begin() + 2 * ts_packet_bytes, found.begin()));
        for (size_t packet = 2; packet < 5; packet++)
            EXPECT_TRUE(is_null(found, packet * ts_packet_bytes));
    }
}

TEST_F(TornFile, OfAnyKindIsNeverEmpty)
{
    EXPECT_EQ(fill_up(output_, "main.2.ts", 0, ""), static_cast<uint64_t>(ts_packet_bytes));
    EXPECT_EQ(fill_up(output_, "main.sub-eng.2.vtt", 0, ""), 8u);
}

TEST_F(TornFile, OfSubtitlesStaysWebVTT)
{
    write_file(scratch_.path() / "main.sub-eng.1.vtt", byte_string{'W', 'E', 'B'});
    const byte_string found = filled_up("main.sub-eng.1.vtt", 12);
    EXPECT_EQ(std::string(found.begin(), found.end()), "WEBVTT\n\n\n\n\n\n");
}
