#include "publisher/config/settings.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "tests/support/scratch_directory.hpp"

namespace
{

constexpr const char* whole = "output = \"/srv/hls/ch1\"\n"
                              "playlist = \"tv.m3u8\"\n"
                              "segment = 4\n"
                              "target_duration = 5\n"
                              "window = 30\n"
                              "state = \"/var/lib/ch1\"\n"
                              "[http]\n"
                              "listen = \"127.0.0.1:9180\"\n"
                              "[[rendition]]\n"
                              "name = \"hd\"\n"
                              "sources = [\"/run/vorn-hls/ch1a\", \"/run/vorn-hls/ch1b\"]\n"
                              "wait = 1.5\n"
                              "scte35_pid = 500\n"
                              "m3u8_name = \"x.m3u8\"\n";

class Settings : public testing::Test
{
protected:
    bool read(const std::string& text)
    {
        settings_ = {};
        error_.clear();
        path_ = scratch_.path() / "ch1.toml";
        write_file(path_, bytes_of(text));
        return read_settings(path_, settings_, error_);
    }

    // The error behind the file's name.
    std::string error_of(const std::string& text)
    {
        EXPECT_FALSE(read(text)) << text;
        EXPECT_TRUE(error_.starts_with(path_ + ':')) << error_;
        return error_.substr(std::min(error_.size(), path_.size() + 1));
    }

    scratch_directory scratch_;
    std::string path_;
    publisher_settings settings_;
    std::string error_;
};

const std::string rendition = "[[rendition]]\nsources = [\"a\"]\n";

} // namespace

TEST_F(Settings, AreRead)
{
    ASSERT_TRUE(read(whole)) << error_;
    EXPECT_EQ(settings_.output, "/srv/hls/ch1");
    EXPECT_EQ(settings_.playlist, "tv.m3u8");
    EXPECT_EQ(settings_.segment, 4);
    EXPECT_EQ(settings_.target_duration, 5);
    EXPECT_EQ(settings_.window, 30);
    EXPECT_EQ(settings_.state, "/var/lib/ch1");
    EXPECT_EQ(settings_.listen, "127.0.0.1:9180");
    ASSERT_EQ(settings_.renditions.size(), 1u);
    EXPECT_EQ(settings_.renditions[0].name, "hd");
    EXPECT_EQ(settings_.renditions[0].sources,
              (std::vector<std::string>{"/run/vorn-hls/ch1a", "/run/vorn-hls/ch1b"}));
    EXPECT_EQ(settings_.renditions[0].wait, 1.5);
    EXPECT_EQ(settings_.renditions[0].scte35_pid, 500);
    EXPECT_EQ(settings_.renditions[0].m3u8_name, "x.m3u8");
}

TEST_F(Settings, SayHowMuchIsKeptToSeekBackIn)
{
    ASSERT_TRUE(
        read("output = \"o\"\ndvr = \"24h\"\ndvr_bytes = \"200G\"\nevent = true\n" + rendition))
        << error_;
    EXPECT_EQ(settings_.window, 24 * 3600);
    EXPECT_EQ(settings_.most_bytes, 200000000000u);
    EXPECT_TRUE(settings_.in_folders);
    EXPECT_TRUE(settings_.event);
    const std::string time = "2: dvr: a time up to 7d is wanted, like 24h";
    for (const char* wrong : {"24", "h", "0h", "8d", "-1h", "24hh", "99999999999999999999s"})
        EXPECT_EQ(error_of(fmt::format("output = \"o\"\ndvr = \"{}\"\n", wrong) + rendition), time);
    EXPECT_EQ(error_of("output = \"o\"\ndvr = \"1h\"\ndvr_bytes = \"1\"\n" + rendition),
              "3: dvr_bytes: a number of bytes is wanted, like 200G");
    EXPECT_EQ(error_of("output = \"o\"\ndvr = \"1h\"\nwindow = 60\n" + rendition),
              "2: dvr: window says how much is listed already");
    EXPECT_EQ(error_of("output = \"o\"\nevent = true\n" + rendition),
              "2: event: it goes with dvr, which is not there");
    EXPECT_EQ(error_of("output = \"o\"\ndvr_bytes = \"1G\"\n" + rendition),
              "2: dvr_bytes: it goes with dvr, which is not there");
}

TEST_F(Settings, HaveDefaults)
{
    ASSERT_TRUE(read("output = \"/o/\"\nsegment = 2.5\n" + rendition)) << error_;
    EXPECT_EQ(settings_.output, "/o");
    EXPECT_EQ(settings_.target_duration, 3);
    EXPECT_EQ(settings_.window, 60);
    EXPECT_EQ(settings_.state, "/o/.index.m3u8.sqlite3");
    EXPECT_EQ(settings_.renditions[0].name, "main");
    EXPECT_EQ(settings_.renditions[0].m3u8_name, "ch1.m3u8");
}

TEST_F(Settings, WithAMistakeNameLineAndKey)
{
    EXPECT_EQ(error_of("output = \"o\"\nwindow = 0\n" + rendition),
              "2: window: a whole number from 1 to 604800 is wanted");
    EXPECT_EQ(error_of("output = \"o\"\nsegmnet = 6\n" + rendition),
              "2: segmnet: there is no such key");
    EXPECT_EQ(error_of("output = 5\n" + rendition),
              "1: output: a text that is not empty is wanted");
    EXPECT_EQ(error_of("output = \"o\"\nplaylist = \"../x\"\n" + rendition),
              "2: playlist: a file name of letters, digits, '.', '-' and '_' is wanted");
    EXPECT_EQ(error_of("output = \"o\"\nsegment = 0.2\n" + rendition),
              "2: segment: seconds from 0.5 to 60 are wanted");
    EXPECT_EQ(error_of("output = \"o\"\n[[rendition]]\nsources = []\n"),
              "3: rendition.sources: a list of directories or URLs is wanted");
    EXPECT_EQ(error_of("output = \"o\"\n[[rendition]]\nsources = [\"a\", \"b\", \"a\"]\n"),
              "3: rendition.sources: a is there twice");
    EXPECT_EQ(error_of("output = \"o\"\n" + rendition + "wait = 31\n"),
              "4: rendition.wait: seconds from 0 to 30 are wanted");
    EXPECT_EQ(error_of("output = \"o\"\n" + rendition + "scte35_pid = 8191\n"),
              "4: rendition.scte35_pid: a whole number from 16 to 8190 is wanted");
    EXPECT_EQ(error_of("output = \"o\"\n" + rendition + "name = \"a.b\"\n"),
              "4: rendition.name: a name without dots is wanted");
    EXPECT_EQ(error_of("output = \"o\"\nplaylist = \"main.sap.m3u8\"\n" + rendition),
              "3: rendition.name: main is the master playlist's");
    EXPECT_EQ(error_of("output = \"o\"\n[http]\nlisten = 1\n" + rendition),
              "3: http.listen: a text that is not empty is wanted");
    for (const char* address : {"localhost:80", "127.0.0.1", "::1:80", "127.0.0.1:65536"})
        EXPECT_EQ(error_of("output = \"o\"\n[http]\nlisten = \"" + std::string(address) + "\"\n" +
                           rendition),
                  "3: http.listen: ADDRESS:PORT is wanted, with [ADDRESS] where it is IPv6");
    EXPECT_TRUE(read("output = \"o\"\n[http]\nlisten = \"[::1]:9180\"\n" + rendition)) << error_;
    EXPECT_EQ(error_of("output = \"o\"\n"), "1: rendition: there is none");
    EXPECT_EQ(error_of("output = \"o\"\n" + rendition + rendition),
              "4: rendition.name: there is another main");
    EXPECT_EQ(error_of("output = \"o\"\n" + rendition + rendition + "name = \"low\"\n"),
              "5: rendition.sources: a is there twice");
    EXPECT_TRUE(error_of("output = \"o\nwindow = 1\n").starts_with("1: "));
    EXPECT_EQ(error_of("output = \"o\"\nsegment = 6\ntarget_duration = 4\n" + rendition),
              "2: segment: 6 s, rounded, are more than the target duration of 4 s");
}

TEST_F(Settings, SayHowSourcesOnOtherMachinesAreReached)
{
    const std::string ca_file = scratch_.path() / "ca.pem";
    const std::string fetch = "[fetch]\nca_file = \"" + ca_file + "\"\n";
    const std::string url = "[[rendition]]\nsources = [\"a\", \"https://b.example/ch1\"]\n";
    EXPECT_EQ(error_of("output = \"o\"\n" + fetch + url),
              "3: fetch.ca_file: " + ca_file + ": No such file or directory");
    write_file(ca_file, {});
    ASSERT_TRUE(read("output = \"o\"\n" + fetch + url)) << error_;
    EXPECT_EQ(settings_.fetch.ca_file, ca_file);
    EXPECT_EQ(error_of("output = \"o\"\n[fetch]\nverify = false\n" + url),
              "3: fetch.verify: there is no such key");
    EXPECT_EQ(
        error_of("output = \"o\"\n[[rendition]]\nsources = [\"http://b/?x\"]\n"),
        "3: rendition.sources: http://b/?x: the URL of a directory is wanted, without '?' and "
        "'#'");
}

TEST_F(Settings, SayWhereNumbersComeFrom)
{
    const std::string stream = "output = \"o\"\nnumbers = \"stream\"\n";
    const auto target_of = [&](const std::string& segment) {
        EXPECT_TRUE(read(stream + "segment = " + segment + "\n" + rendition)) << error_;
        return settings_.target_duration;
    };
    EXPECT_EQ(target_of("6"), 8);
    EXPECT_EQ(target_of("2"), 4);
    EXPECT_EQ(target_of("0.5"), 2);
    EXPECT_EQ(target_of("0.6"), 2);
    EXPECT_EQ(target_of("59"), 60);
    EXPECT_EQ(error_of(stream + "segment = 60\n" + rendition),
              "1: target_duration: segments of 60 s and up to a group of pictures more are longer "
              "than 60 s, rounded");
    EXPECT_EQ(target_of("3.84"), 6);
    ASSERT_TRUE(read(stream + "peers = [\"http://b/ch1\", \"https://c/ch1\"]\n" + rendition))
        << error_;
    EXPECT_EQ(settings_.numbers, numbering::stream);
    EXPECT_EQ(settings_.peers, (std::vector<std::string>{"http://b/ch1", "https://c/ch1"}));

    EXPECT_EQ(error_of("output = \"o\"\nnumbers = \"time\"\n" + rendition),
              "2: numbers: \"count\" or \"stream\" is wanted");
    EXPECT_EQ(error_of("output = \"o\"\npeers = [\"http://b\"]\n" + rendition),
              "2: peers: they go with numbers = \"stream\", which is not there");
    EXPECT_EQ(error_of(stream + "peers = []\n" + rendition), "3: peers: a list of URLs is wanted");
    EXPECT_EQ(error_of(stream + "peers = [\"/srv/hls\"]\n" + rendition),
              "3: peers: /srv/hls: a URL is wanted");
    EXPECT_EQ(error_of(stream + "peers = [\"http://u:p@b/\"]\n" + rendition),
              "3: peers: http://u:p@b/: users and passwords belong into a netrc file");
    EXPECT_EQ(error_of(stream + "target_duration = 6\n" + rendition),
              "3: target_duration: segments of 6 s and up to a group of pictures more are longer "
              "than 6 s, rounded");
    for (const char* key : {"event", "iframes"})
        EXPECT_EQ(
            error_of(stream + "dvr = \"1h\"\n" + key + " = true\n" + rendition),
            fmt::format("4: {}: it goes not with numbers = \"stream\": two publishers tell it "
                        "differently",
                        key));
}

TEST_F(Settings, ThatViewersRelyOnDoNotChange)
{
    ASSERT_TRUE(read(whole));
    const publisher_settings now = settings_;
    publisher_settings wanted = now;
    wanted.window = 90;
    wanted.segment = 3;
    EXPECT_TRUE(may_change(now, wanted, error_));
    wanted.target_duration = 6;
    EXPECT_FALSE(may_change(now, wanted, error_));
    EXPECT_EQ(error_, "target_duration cannot change while the presentation is live");

    wanted = now;
    wanted.numbers = numbering::stream;
    EXPECT_FALSE(may_change(now, wanted, error_));
    EXPECT_EQ(error_, "numbers cannot change while the presentation is live");
    publisher_settings streamed = wanted;
    wanted.segment = 3;
    EXPECT_FALSE(may_change(streamed, wanted, error_));
    EXPECT_EQ(error_, "segment cannot change while the presentation is live");
    wanted = streamed;
    wanted.peers = {"http://b/ch1"};
    EXPECT_FALSE(may_change(streamed, wanted, error_));
    EXPECT_EQ(error_, "peers cannot change while the presentation is live");
}
