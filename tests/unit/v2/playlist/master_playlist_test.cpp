#include "v2/playlist/master_playlist.hpp"

#include <gtest/gtest.h>

#include "v2/playlist/rendition_groups.hpp"

namespace
{

// The group names are process-wide; each test sets what it needs and leaves none.
class MasterPlaylistText : public testing::Test
{
protected:
    void SetUp() override
    {
        audio_group = "aud";
        captions_group.clear();
        subtitles_group.clear();
        list.master = true;
        list.variant_uri = "v.m3u8";
        list.bandwidth = 4000000;
    }

    void TearDown() override
    {
        audio_group.clear();
        captions_group.clear();
        subtitles_group.clear();
    }

    [[nodiscard]] std::string body() const { return master_playlist_body(list); }

    m3u8_list list;
};

const std::string independent = "#EXT-X-INDEPENDENT-SEGMENTS\n";

TEST_F(MasterPlaylistText, WithoutGroupsAndRenditionsNamesTheVariantAlone)
{
    EXPECT_EQ(body(), independent + "\n#EXT-X-STREAM-INF:BANDWIDTH=4000000\nv.m3u8\n\n");
}

TEST_F(MasterPlaylistText, AnnouncesFourCaptionChannels)
{
    captions_group = "caps";
    EXPECT_EQ(
        body(),
        independent +
            "#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"caps\",NAME=\"CC1\",INSTREAM-ID=\"CC1\",AUTOSELECT=YES,DEFAULT=YES\n"
            "#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"caps\",NAME=\"CC2\",INSTREAM-ID=\"CC2\"\n"
            "#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"caps\",NAME=\"CC3\",INSTREAM-ID=\"CC3\"\n"
            "#EXT-X-MEDIA:TYPE=CLOSED-CAPTIONS,GROUP-ID=\"caps\",NAME=\"CC4\",INSTREAM-ID=\"CC4\"\n"
            "\n"
            "#EXT-X-STREAM-INF:BANDWIDTH=4000000,CLOSED-CAPTIONS=\"caps\"\n"
            "v.m3u8\n\n");
}

TEST_F(MasterPlaylistText, ListsAudioRenditionsAndThenIsNotIndependent)
{
    list.audio_playlist = "a ?.m3u8";
    list.sap_playlist = "sap.m3u8";
    list.base_url = "http://h/?/";
    EXPECT_EQ(
        body(),
        "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aud\",AUTOSELECT=YES,DEFAULT=YES,LANGUAGE=\"eng\",NAME=\"Main\",URI=\"http://h/?/a%20%3F.m3u8\"\n"
        "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aud\",AUTOSELECT=NO,DEFAULT=NO,LANGUAGE=\"spa\",NAME=\"SAP\",URI=\"http://h/?/sap.m3u8\"\n"
        "\n"
        "#EXT-X-STREAM-INF:BANDWIDTH=4000000,AUDIO=\"aud\"\n"
        "http://h/?/v.m3u8\n\n");
}

TEST_F(MasterPlaylistText, WithoutAnAudioGroupTheRenditionsHaveNone)
{
    audio_group.clear();
    list.audio_playlist = "a.m3u8";
    EXPECT_EQ(
        body(),
        "#EXT-X-MEDIA:TYPE=AUDIO,AUTOSELECT=YES,DEFAULT=YES,LANGUAGE=\"eng\",NAME=\"Main\",URI=\"a.m3u8\"\n"
        "\n"
        "#EXT-X-STREAM-INF:BANDWIDTH=4000000\n"
        "v.m3u8\n\n");
}

TEST_F(MasterPlaylistText, SecondaryAudioAloneGivesTheVariantNoAudioGroup)
{
    list.sap_playlist = "sap.m3u8";
    EXPECT_EQ(
        body(),
        "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aud\",AUTOSELECT=NO,DEFAULT=NO,LANGUAGE=\"spa\",NAME=\"SAP\",URI=\"sap.m3u8\"\n"
        "\n"
        "#EXT-X-STREAM-INF:BANDWIDTH=4000000\n"
        "v.m3u8\n\n");
}

struct language_case {
    std::string code;
    std::string want_name;
};

TEST_F(MasterPlaylistText, NamesCaptionLanguages)
{
    const language_case cases[] = {
        {.code = "eng", .want_name = "English"},
        {.code = "fr", .want_name = "French"},
        {.code = "v0", .want_name = "Primary"},
        {.code = "v1", .want_name = "Secondary 1"},
        {.code = "v12", .want_name = "Secondary 12"},
        {.code = "v3", .want_name = "Secondary 3"},
        {.code = "v00", .want_name = "Secondary 00"},
        {.code = "vx", .want_name = "vx"},
        {.code = "x", .want_name = "x"},
        {.code = "v", .want_name = "v"},
        {.code = "ENG", .want_name = "ENG"},
        {.code = "en-US", .want_name = "en-US"},
        {.code = "a b&?%", .want_name = "a b&?%"}, // only URIs are escaped
    };
    for (const language_case& c : cases) {
        SCOPED_TRACE(c.code);
        list.subtitles = {
            {.code = c.code, .base_url = "http://h/", .playlist_name = "a b.vtt.m3u8"}};
        EXPECT_EQ(body(), independent + "#EXT-X-MEDIA:TYPE=SUBTITLES,NAME=\"" + c.want_name +
                              "\",LANGUAGE=\"" + c.code +
                              "\",URI=\"http://h/a%20b.vtt.m3u8\"\n"
                              "\n#EXT-X-STREAM-INF:BANDWIDTH=4000000\nv.m3u8\n\n");
    }
}

TEST_F(MasterPlaylistText, ListsEachLanguageInTheSubtitleGroup)
{
    subtitles_group = "subs";
    list.subtitles = {{.code = "eng", .base_url = "", .playlist_name = "e"},
                      {.code = "v0", .base_url = "", .playlist_name = "p"}};
    EXPECT_EQ(
        body(),
        independent +
            "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",NAME=\"English\",LANGUAGE=\"eng\",URI=\"e\"\n"
            "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",NAME=\"Primary\",LANGUAGE=\"v0\",URI=\"p\"\n"
            "\n"
            "#EXT-X-STREAM-INF:BANDWIDTH=4000000,SUBTITLES=\"subs\"\n"
            "v.m3u8\n\n");
}

TEST_F(MasterPlaylistText, NamesAllThatTheVariantHasInOrder)
{
    captions_group = "caps";
    subtitles_group = "subs";
    list.audio_playlist = "a.m3u8";
    list.width = 1920;
    list.height = 1080;
    const std::string text = body();
    EXPECT_EQ(
        text.substr(text.find("#EXT-X-STREAM-INF")),
        "#EXT-X-STREAM-INF:BANDWIDTH=4000000,CLOSED-CAPTIONS=\"caps\",SUBTITLES=\"subs\",AUDIO=\"aud\",RESOLUTION=1920x1080\n"
        "v.m3u8\n\n");
}

struct resolution_case {
    uint32_t width;
    uint32_t height;
    std::string want;
};

TEST_F(MasterPlaylistText, LeavesOutAResolutionThatIsHalfKnown)
{
    const resolution_case cases[] = {
        {.width = 1920, .height = 0, .want = ""},
        {.width = 0, .height = 1080, .want = ""},
        {.width = 1, .height = 2, .want = ",RESOLUTION=1x2"},
    };
    for (const resolution_case& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
        list.width = c.width;
        list.height = c.height;
        EXPECT_EQ(body(),
                  independent + "\n#EXT-X-STREAM-INF:BANDWIDTH=4000000" + c.want + "\nv.m3u8\n\n");
    }
}

TEST_F(MasterPlaylistText, EscapesTheVariantAndNotTheBaseUrl)
{
    list.base_url = "http://h/?a&b/";
    list.variant_uri = "c?d&e";
    EXPECT_EQ(body(),
              independent + "\n#EXT-X-STREAM-INF:BANDWIDTH=4000000\nhttp://h/?a&b/c%3Fd%26e\n\n");
}

} // namespace
