#include "publisher/follow/source_playlist.hpp"

#include <gtest/gtest.h>

TEST(FragmentNames, AreTakenApart)
{
    EXPECT_EQ(parse_fragment_name("ch1.00000007.ts"), (fragment_name{"ch1", 7}));
    EXPECT_EQ(parse_fragment_name("a.v.123456789.ts"), (fragment_name{"a.v", 123456789}));
    for (const char* name : {"ch1.0000007.ts", "ch1.00000007.ts.eng.vtt", ".00000007.ts",
                             "00000007.ts", "ch1.0000000x.ts", "ch1.-0000007.ts",
                             "ch1.99999999999999999999.ts", "ch1.9223372036854775808.ts"})
        EXPECT_FALSE(parse_fragment_name(name)) << name;
    EXPECT_EQ(fragment_file_name({"ch1", 7}), "ch1.00000007.ts");
    EXPECT_EQ(fragment_file_name({"ch1", 123456789}), "ch1.123456789.ts");
}

TEST(Uris, LeadToPlainFileNames)
{
    EXPECT_EQ(file_name_of_uri("http://host/x/ch%201.00000007.ts"), "ch 1.00000007.ts");
    EXPECT_EQ(file_name_of_uri("100%.ts"), "100%.ts");
    for (const char* uri : {"", "x/", "..", "a/..", "..%2Fetc", "a%00b", "%2E%2E"})
        EXPECT_EQ(file_name_of_uri(uri), "") << uri;
    EXPECT_EQ(file_name_of_uri(std::string(300, 'a')), "");
}

TEST(SourceMediaPlaylist, GivesItsFragments)
{
    const auto list = parse_source_media("#EXTM3U\n#EXT-X-VERSION:4\n#EXT-X-TARGETDURATION:1\n"
                                         "#EXT-X-MEDIA-SEQUENCE:7\n\n#EXTINF:1.040,\n"
                                         "ch1.00000007.ts\n\n#EXTINF:1.040,\r\n"
                                         "ch1.00000008.ts\r\n\nreadme.txt\n");
    ASSERT_EQ(list.fragments.size(), 2u);
    EXPECT_EQ(list.fragments[0], (fragment_name{"ch1", 7}));
    EXPECT_EQ(list.fragments[1], (fragment_name{"ch1", 8}));
}

TEST(SourceMediaPlaylist, IsBounded)
{
    std::string text;
    for (int i = 0; i < 100000; i++)
        text += "ch1.00000007.ts\n";
    EXPECT_LE(parse_source_media(text).fragments.size(), 4096u);
}

TEST(SourceMasterPlaylist, GivesRenditions)
{
    const auto master = parse_source_master(
        "#EXTM3U\n#EXT-X-VERSION:4\n"
        "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",NAME=\"English, or so\",LANGUAGE=\"eng\","
        "URI=\"ch1.m3u8.v.m3u8.eng.vtt.m3u8\"\n"
        "#EXT-X-MEDIA:TYPE=SUBTITLES,NAME=\"x\",LANGUAGE=\"../../x\",URI=\"x\"\n"
        "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aud\",AUTOSELECT=YES,DEFAULT=YES,LANGUAGE=\"eng\","
        "NAME=\"Main\",URI=\"ch1.m3u8.a.m3u8\"\n"
        "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aud\",AUTOSELECT=NO,DEFAULT=NO,LANGUAGE=\"spa\","
        "NAME=\"SAP\",URI=\"ch1.m3u8.sap.m3u8\"\n\n"
        "#EXT-X-STREAM-INF:BANDWIDTH=1,CLOSED-CAPTIONS=\"caps\"\nhttp://x/ch1.m3u8.v.m3u8\n\n");
    EXPECT_EQ(master.lead, "ch1.m3u8.v.m3u8");
    EXPECT_TRUE(master.separate_audio);
    EXPECT_TRUE(master.secondary_audio);
    ASSERT_EQ(master.subtitles.size(), 1u);
    EXPECT_EQ(master.subtitles[0].language, "eng");
    EXPECT_EQ(master.subtitles[0].name, "English, or so");
}

TEST(SourceMasterPlaylist, OfNonsenseIsEmpty)
{
    for (const char* text : {"", "#EXT-X-MEDIA:", "#EXT-X-MEDIA:TYPE", "#EXT-X-MEDIA:TYPE=\"",
                             "#EXT-X-STREAM-INF:\n", "#EXT-X-MEDIA:TYPE=SUBTITLES\n"}) {
        const auto master = parse_source_master(text);
        EXPECT_TRUE(master.lead.empty() && master.subtitles.empty()) << text;
    }
}
