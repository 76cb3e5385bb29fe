#include "publisher/compose/torn_file.hpp"

#include <gtest/gtest.h>

#include "tests/support/scratch_directory.hpp"
#include "tests/support/stream_builder.hpp"
#include "toolkit/pts_clock.hpp"
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

    byte_string filled_up(const std::string& name, uint64_t bytes, int64_t later = 0)
    {
        EXPECT_EQ(fill_up(output_, name, bytes, "main.1.ts", later), bytes);
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

// Nothing tells whether the last picture and the last sound are whole.
TEST_F(TornFile, KeepsThePicturesAndTheSoundThatAreWhole)
{
    stream_builder stream;
    stream.tables().keyframe(900000, 1000).audio(900000).picture(903600, 1000);
    const size_t last_sound = stream.mark();
    stream.audio(903600);
    const size_t tables = stream.mark();
    stream.tables();
    const size_t torn = stream.mark();
    stream.picture(907200, 1000);

    byte_string left = stream.between(0, torn + 100);
    left.resize(torn + 3 * ts_packet_bytes); // a block that was not written is zeros
    write_file(scratch_.path() / "main.2.ts", left);
    const byte_string found = filled_up("main.2.ts", stream.mark());
    const auto between = [&found](size_t begin, size_t end) {
        return byte_string(found.begin() + static_cast<std::ptrdiff_t>(begin),
                           found.begin() + static_cast<std::ptrdiff_t>(end));
    };
    EXPECT_EQ(between(0, last_sound), stream.between(0, last_sound));
    EXPECT_EQ(between(tables, torn), stream.between(tables, torn));
    for (size_t at = last_sound; at < found.size(); at += ts_packet_bytes)
        EXPECT_EQ(is_null(found, at), at < tables || at >= torn) << at / ts_packet_bytes;
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

// Through the end of the clock of 33 bits.
TEST_F(TornFile, RepeatsTheOneBeforeLaterWherePictureOrSoundIsMissing)
{
    constexpr int64_t second = 90000;
    const auto segment_at = [](int64_t pts) {
        const int64_t clock = stamp_sum(pts, -second);
        stream_builder stream;
        stream.tables()
            .packet({.pid = 0x101,
                     .adaptation =
                         adaptation_fields{.pcr = pcr_fields{.base = static_cast<uint64_t>(clock),
                                                             .extension = 299}},
                     .has_payload = false})
            .pes(0x101, {.pts = pts, .dts = clock, .payload = byte_string(400, 5)})
            .audio(pts);
        return stream;
    };
    const int64_t begin = pts_modulus - 3 * second / 2;
    const size_t whole = segment_at(begin).mark();
    stream_builder before = segment_at(begin);
    before.pes(0x101, {.payload = byte_string(400, 5)}).audio(begin);
    write_file(scratch_.path() / "main.1.ts", before.bytes());
    byte_string sound_alone = before.between(0, whole);
    append(sound_alone, stream_builder().audio(begin).audio(begin).bytes());
    for (const byte_string& left : {byte_string(), sound_alone}) {
        write_file(scratch_.path() / "main.2.ts", left);
        const byte_string found = filled_up("main.2.ts", before.mark(), 2 * second);
        EXPECT_EQ(byte_string(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(whole)),
                  segment_at(stamp_sum(begin, 2 * second)).bytes());
        EXPECT_TRUE(is_null(found, whole));
    }
}

TEST_F(TornFile, OfAnyKindIsNeverEmpty)
{
    EXPECT_EQ(fill_up(output_, "main.2.ts", 0, "", 0), static_cast<uint64_t>(ts_packet_bytes));
    EXPECT_EQ(fill_up(output_, "main.sub-eng.2.vtt", 0, "", 0), 8u);
}

TEST_F(TornFile, OfSubtitlesStaysWebVTT)
{
    write_file(scratch_.path() / "main.sub-eng.1.vtt", byte_string{'W', 'E', 'B'});
    const byte_string found = filled_up("main.sub-eng.1.vtt", 12);
    EXPECT_EQ(std::string(found.begin(), found.end()), "WEBVTT\n\n\n\n\n\n");
}
