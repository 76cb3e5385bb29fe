#include <gtest/gtest.h>

#include "publisher/read/audio_header.hpp"
#include "publisher/read/captions.hpp"
#include "publisher/read/date_table.hpp"
#include "tests/support/packetiser.hpp"
#include "tests/support/psi_builder.hpp"

TEST(AudioHeader, OfAdtsTellsTheCodec)
{
    // AAC LC, 48 kHz, stereo, 150 bytes, as an encoder wrote it, behind two bytes of something
    // else.
    const byte_string bytes = {0x12, 0x34, 0xFF, 0xF1, 0x4C, 0x80, 0x12, 0xDF, 0xFC};
    const auto format = find_adts_header(bytes);
    ASSERT_TRUE(format);
    EXPECT_EQ(format->codec, "mp4a.40.2");
    EXPECT_EQ(format->sample_rate, 48000u);
    EXPECT_EQ(format->channels, 2u);
}

TEST(AudioHeader, OfMpegAudioTellsTheCodec)
{
    const byte_string layer_2 = {0xFF, 0xFD, 0xA4, 0x00}; // 192 kbit/s, 48 kHz, stereo
    const auto format = find_mpeg_audio_header(layer_2);
    ASSERT_TRUE(format);
    EXPECT_EQ(format->codec, "mp4a.40.34");
    EXPECT_EQ(format->layer, 2u);
    EXPECT_EQ(format->sample_rate, 48000u);
    EXPECT_EQ(format->channels, 2u);
}

TEST(AudioHeader, IsNotFoundWhereThereIsNone)
{
    EXPECT_FALSE(find_adts_header(byte_string(100, 0xFF)));
    EXPECT_FALSE(find_adts_header(byte_string{0xFF, 0xF1, 0x4C, 0x80, 0x12, 0xDF})) << "cut off";
    EXPECT_FALSE(find_mpeg_audio_header(byte_string(100, 0xFF)));
    EXPECT_FALSE(find_mpeg_audio_header(byte_string(100, 0x00)));
}

namespace
{

// cc_data() with the triples given.
byte_string cc_data(const byte_string& triples)
{
    return concat({bytes_of("GA94"),
                   byte_string{0x03, static_cast<uint8_t>(0x40 | (triples.size() / 3)), 0xFF},
                   triples, byte_string{0xFF}});
}

} // namespace

TEST(Captions, AreFoundByTheirControlCodes)
{
    caption_facts captions;
    find_captions(captions, cc_data({0xFC, 0x80, 0x80})); // padding
    EXPECT_EQ(captions, caption_facts{});
    find_captions(captions, cc_data({0xFC, 0x94, 0x2C})); // field 1, channel 1
    EXPECT_EQ(captions.channels, 0b0001);
    find_captions(captions, cc_data({0xFD, 0x1D, 0x2C})); // field 2, channel 2
    EXPECT_EQ(captions.channels, 0b1001);
    find_captions(captions, cc_data({0xFF, 0x02, 0x21})); // DTVCC: service 1, one byte
    EXPECT_EQ(captions.services, 0b10u);
}

TEST(Captions, AreNotReadPastTheirEnd)
{
    caption_facts captions;
    byte_string cut = cc_data({0xFC, 0x94, 0x2C});
    for (cut.resize(9); !cut.empty(); cut.pop_back())
        find_captions(captions, cut);
    EXPECT_EQ(captions, caption_facts{});
}

TEST(Captions, AreFoundInAnSeiMessageBehindAnother)
{
    const byte_string user_data = cc_data({0xFC, 0x94, 0x2C});
    const byte_string message = concat({byte_string{0xB5, 0x00, 0x31}, user_data});
    const byte_string rbsp = concat({byte_string{0x01, 0x02, 0xAA, 0xBB}, // pic_timing of 2 bytes
                                     byte_string{0x04, static_cast<uint8_t>(message.size())},
                                     message, byte_string{0x80}});
    caption_facts captions;
    find_captions_in_sei(captions, rbsp);
    EXPECT_EQ(captions.channels, 0b0001);

    byte_string cut = rbsp;
    caption_facts none;
    for (cut.resize(16); !cut.empty(); cut.pop_back())
        find_captions_in_sei(none, cut);
    EXPECT_EQ(none, caption_facts{});
}

TEST(DateTable, GivesTheTimeOfDay)
{
    // The example of ETSI EN 300 468, annex C: 93/10/13 12:45:00 is 0xC079124500.
    const byte_string tdt = {0x00, 0x70, 0x70, 0x05, 0xC0, 0x79, 0x12, 0x45, 0x00};
    packetiser packets;
    byte_string packet =
        packets.packet({.payload_unit_start = true, .pid = date_table_pid, .payload = tdt});
    mpeg_ts_packet pkt;
    ASSERT_NE(mpeg_ts_decode(pkt, packet.data(), packet.size()), 0);
    EXPECT_EQ(read_date_table(pkt), 750516300000);

    packet[4 + 6] = 0x1A; // no decimal digit
    EXPECT_FALSE(read_date_table(pkt));
}
