// Captions that come over a real inherited socket, in step with the stream.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/address_sanitizer.hpp"
#include "tests/support/caption_peer.hpp"
#include "tests/support/expect_run.hpp"
#include "tests/support/expected_text.hpp"

namespace
{

std::vector<std::string> with_socket(const control_socket& socket,
                                     std::vector<std::string> arguments = {})
{
    arguments.insert(arguments.end(), {"--anon-sock", socket.number()});
    return arguments;
}

// Runs with all captions ready before the stream begins. The peer stays connected unless it has
// closed before.
run_result run_with_captions(stepped_stream& stream, control_socket& socket,
                             std::vector<std::string> arguments = {})
{
    const byte_string captions = stream.all_captions();
    EXPECT_EQ(socket.send(captions), captions.size());
    return run_program(
        {.arguments = with_socket(socket, std::move(arguments)), .input = stream.input()});
}

run_result run_with_captions(stepped_stream& stream, std::vector<std::string> arguments = {})
{
    control_socket socket;
    return run_with_captions(stream, socket, std::move(arguments));
}

std::string text_of(const byte_string& bytes)
{
    return {bytes.begin(), bytes.end()};
}

// A master playlist with these subtitle lines.
byte_string captions_master(const std::string& subtitles, const std::string& variant)
{
    const std::string plain = text_of(master_playlist({}));
    const size_t end_of_media = plain.find("\n\n") + 1;
    return bytes_of(plain.substr(0, end_of_media) + subtitles + "\n" + variant + "\n");
}

// The playlists of the two renditions without packets, whose last one stays behind.
byte_string nameless_playlist(size_t entries)
{
    return media_playlist({.first_sequence = 0, .fragments = nameless(entries)});
}

std::string new_language(const std::string& key)
{
    return "New language '" + key + "'\n";
}

std::string never_got_any(const std::string& key)
{
    return "WebVTT language fragment '" + key + "' never got any events, writing empty file\n";
}

// Both renditions without packets warn of each listed fragment.
std::string cut_warnings(uint64_t last)
{
    return nameless_warnings(0, last) + nameless_warnings(0, last);
}

const std::string eof_line = "Stream EOF\n";

TEST(Captions, TakesOnePacketInEachPassFromTheStartOn)
{
    control_socket socket;
    for (const char* language : {"one", "two", "three"})
        socket.send(build_cue_event({.language = language}));
    stepped_stream stream;
    stream.stream.null_until(start_up_fill_bytes + 2 * packet_bytes);
    const run_result got =
        run_program({.arguments = with_socket(socket), .input = {.bytes = stream.stream.bytes()}});
    EXPECT_EQ(got.standard_error, "New language 'one'\n"
                                  "PAT: Locking onto Program 0001h PMT 1000h\n"
                                  "Got PAT. Chose PMT=1000h\n"
                                  "New language 'two'\n"
                                  "Got PMT. Chose audio=0102h video=0101h.\n"
                                  "New language 'three'\n"
                                  "Stream EOF\n");
    EXPECT_EQ(got.ending, "exit 0");
}

TEST(Captions, WritesFragmentsAndPlaylistsOfEachLanguageInStepWithTheStream)
{
    stepped_stream stream;
    std::vector<size_t> starts = {stream.mark()};
    stream.keyframe(10000)
        .picture(11000, build_cue_event({.text = "one\r\ntwo", .at_ms = 11000}))
        .picture(12000, build_cue_event({.language = "",
                                         .text = "service\n\none",
                                         .at_ms = 12000,
                                         .settings = "line:0 align:left"}));
    starts.push_back(stream.mark());
    stream.keyframe(16000)
        .picture(17000, build_cue_event({.text = "open", .at_ms = 16500, .open = true}))
        .picture(18000, build_cue_event({.text = "known", .at_ms = 17250, .length_ms = 2000}));
    starts.push_back(stream.mark());
    stream.keyframe(22000).picture(23000);
    const run_result got = run_with_captions(stream);

    expected_run want{
        .standard_error = programme_lines() + new_language("eng") + new_language("v0") +
                          cut_warnings(0) + cut_warnings(1) + never_got_any("v0") + eof_line,
        .files = {
            {"ch1.m3u8.av.m3u8", media_playlist({.first_sequence = 0,
                                                 .fragments = {{"6.000", "ch1.00000000.ts"},
                                                               {"6.000", "ch1.00000001.ts"}}})},
            {".tmp", nameless_playlist(2)},
            {"ch1.00000000.ts", stream.stream.between(starts[0], starts[1])},
            {"ch1.00000001.ts", stream.stream.between(starts[1], starts[2])},
            {"ch1.00000002.ts", stream.stream.from(starts[2])},
            // 48 packets in 6 s.
            {"ch1.m3u8",
             captions_master(
                 "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",NAME=\"English\",LANGUAGE=\"eng\",URI=\"ch1.m3u8.av.m3u8.eng.vtt.m3u8\"\n"
                 "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",NAME=\"Primary\",LANGUAGE=\"v0\",URI=\"ch1.m3u8.av.m3u8.v0.vtt.m3u8\"\n",
                 "#EXT-X-STREAM-INF:BANDWIDTH=12032,CLOSED-CAPTIONS=\"caps\",SUBTITLES=\"subs\",RESOLUTION=320x240\n"
                 "ch1.m3u8.av.m3u8\n")},
            {"ch1.m3u8.av.m3u8.eng.vtt.m3u8",
             media_playlist({.first_sequence = 0,
                             .fragments = {{"6.000", "ch1.00000000.ts.eng.vtt"},
                                           {"6.000", "ch1.00000001.ts.eng.vtt"}}})},
            {"ch1.m3u8.av.m3u8.v0.vtt.m3u8",
             media_playlist({.first_sequence = 0,
                             .fragments = {{"6.000", "ch1.00000000.ts.v0.vtt"},
                                           {"6.000", "ch1.00000001.ts.v0.vtt"}}})},
            {"ch1.00000000.ts.eng.vtt", bytes_of("WEBVTT\n"
                                                 "X-TIMESTAMP-MAP=MPEGTS:900000,LOCAL:0:00:10.000\n"
                                                 "Kind: captions\n"
                                                 "Language: eng\n"
                                                 "\n"
                                                 "0:00:11.000 --> 0:00:12.000\n"
                                                 "one\n"
                                                 "two\n"
                                                 "\n")},
            {"ch1.00000000.ts.v0.vtt", bytes_of("WEBVTT\n"
                                                "X-TIMESTAMP-MAP=MPEGTS:900000,LOCAL:0:00:10.000\n"
                                                "Kind: captions\n"
                                                "\n"
                                                "0:00:12.000 --> 0:00:13.000 line:0 align:left\n"
                                                "service\n"
                                                " \n"
                                                "one\n"
                                                "\n")},
            {"ch1.00000001.ts.eng.vtt",
             bytes_of("WEBVTT\n"
                      "X-TIMESTAMP-MAP=MPEGTS:1440000,LOCAL:0:00:16.000\n"
                      "Kind: captions\n"
                      "Language: eng\n"
                      "\n"
                      "0:00:16.500 --> 0:00:17.250\n"
                      "open\n"
                      "\n"
                      "0:00:17.250 --> 0:00:19.250\n"
                      "known\n"
                      "\n")},
            {"ch1.00000001.ts.v0.vtt", bytes_of("WEBVTT\n"
                                                "Kind: captions\n"
                                                "\n")},
            {"ch1.00000002.ts.eng.vtt", {}},
            {"ch1.00000002.ts.v0.vtt", {}},
        }};
    EXPECT_TRUE(same_run(got, want));
}

TEST(Captions, DeletesWebvttFragmentsWithThoseOfTheStream)
{
    stepped_stream stream;
    stream.keyframe(10000).picture(11000, build_cue_event({.at_ms = 11000}));
    for (int64_t at_ms = 16000; at_ms <= 40000; at_ms += 6000)
        stream.keyframe(at_ms).picture(at_ms + 1000, build_cue_event({.at_ms = at_ms + 1000}));
    const run_result got = run_with_captions(stream, {"--frag-backlog", "1"});

    // Five fragments are finished: one listed, three kept, the oldest deleted.
    EXPECT_NE(got.standard_error.find("Deleting old fragment ch1.00000000.ts\n"),
              std::string::npos);
    EXPECT_NE(got.standard_error.find("Deleting old fragment ch1.00000000.ts.eng.vtt\n"),
              std::string::npos);
    std::vector<std::string> names;
    for (const auto& [name, content] : got.files)
        if (name.starts_with("ch1.0"))
            names.push_back(name);
    EXPECT_EQ(names, std::vector<std::string>({"ch1.00000001.ts", "ch1.00000001.ts.eng.vtt",
                                               "ch1.00000002.ts", "ch1.00000002.ts.eng.vtt",
                                               "ch1.00000003.ts", "ch1.00000003.ts.eng.vtt",
                                               "ch1.00000004.ts", "ch1.00000004.ts.eng.vtt",
                                               "ch1.00000005.ts", "ch1.00000005.ts.eng.vtt"}));
    EXPECT_EQ(text_of(got.files.at("ch1.m3u8.av.m3u8.eng.vtt.m3u8")),
              text_of(media_playlist(
                  {.first_sequence = 4, .fragments = {{"6.000", "ch1.00000004.ts.eng.vtt"}}})));
}

TEST(Captions, StandBesideTheVideoRenditionWithSeparateStreams)
{
    stepped_stream stream;
    stream.keyframe(10000).picture(11000, build_cue_event({.at_ms = 11000}));
    stream.keyframe(16000).picture(17000);
    run_result got =
        run_with_captions(stream, {"--separate-streams", "--start-pat-pmt", "--m3u8-name",
                                   "tv.m3u8", "--frag-name", "tv", "--base-url", "http://h/"});
    EXPECT_EQ(got.ending, "exit 0");
    EXPECT_EQ(got.standard_error, programme_lines() + new_language("eng") +
                                      nameless_warnings(0, 0, "tv.m3u8.sap.m3u8") + eof_line);

    file_map vtt;
    for (const auto& [name, content] : got.files)
        if (name.find("vtt") != std::string::npos)
            vtt[name] = content;
    EXPECT_TRUE(same_files(
        vtt,
        {{"tv.m3u8.v.m3u8.eng.vtt.m3u8",
          media_playlist({.first_sequence = 0,
                          .fragments = {{"6.000", "http://h/tv.v.00000000.ts.eng.vtt"}}})},
         {"tv.v.00000000.ts.eng.vtt", bytes_of("WEBVTT\n"
                                               "X-TIMESTAMP-MAP=MPEGTS:900000,LOCAL:0:00:10.000\n"
                                               "Kind: captions\n"
                                               "Language: eng\n"
                                               "\n"
                                               "0:00:11.000 --> 0:00:12.000\n"
                                               "Hello\n"
                                               "\n")},
         {"tv.v.00000001.ts.eng.vtt", {}}}));
    EXPECT_TRUE(got.files.contains("tv.v.00000001.ts"));
    EXPECT_NE(
        text_of(got.files["tv.m3u8"])
            .find(
                "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"subs\",NAME=\"English\",LANGUAGE=\"eng\",URI=\"http://h/tv.m3u8.v.m3u8.eng.vtt.m3u8\"\n"
                "#EXT-X-MEDIA:TYPE=AUDIO,"),
        std::string::npos);
    EXPECT_NE(text_of(got.files["tv.m3u8"]).find(",SUBTITLES=\"subs\",AUDIO=\"aud\""),
              std::string::npos);
}

// What a run leaves whose control socket breaks in the pass behind the one that writes "Hello".
expected_run broken_in_the_third_pass(const stepped_stream& stream, size_t start)
{
    return {
        .ending = "exit 1",
        .standard_error = programme_lines() + new_language("eng"),
        .files = {
            {"ch1.m3u8.av.m3u8", media_playlist({})},
            {".tmp", media_playlist({})},
            {"ch1.00000000.ts", stream.stream.between(start, start + 2 * 16 * packet_bytes)},
            // As the second pass found it: without the language that it made.
            {"ch1.m3u8", master_playlist({.resolution = "320x240"})},
            {"ch1.m3u8.av.m3u8.eng.vtt.m3u8", media_playlist({})},
            {"ch1.00000000.ts.eng.vtt", bytes_of("WEBVTT\n"
                                                 "X-TIMESTAMP-MAP=MPEGTS:900000,LOCAL:0:00:10.000\n"
                                                 "Kind: captions\n"
                                                 "Language: eng\n"
                                                 "\n"
                                                 "0:00:11.000 --> 0:00:12.000\n"
                                                 "Hello\n"
                                                 "\n")}}};
}

struct broken_case {
    std::string_view name;
    byte_string last; // what the peer sends behind its cue
    bool closes;
};

TEST(Captions, ABrokenControlSocketEndsTheRunWithStatus1BehindWhatHadArrivedWhole)
{
    const byte_string cue = build_cue_event({.at_ms = 12000});
    const broken_case cases[] = {
        {"the peer closes", {}, true},
        {"half a packet, then the peer closes", {cue.begin(), cue.begin() + 60}, true},
        {"garbage", bytes_of("GET / HTTP/1.1\r\n\r\n"), false},
    };
    for (const broken_case& c : cases) {
        SCOPED_TRACE(c.name);
        stepped_stream stream;
        const size_t start = stream.mark();
        stream.keyframe(10000)
            .picture(11000, build_cue_event({.at_ms = 11000}))
            .picture(12000, c.last);
        const byte_string captions = stream.all_captions();
        control_socket socket;
        ASSERT_EQ(socket.send(captions), captions.size());
        if (c.closes)
            socket.close_peer();
        const run_result got =
            run_program({.arguments = with_socket(socket), .input = stream.input()});
        EXPECT_TRUE(same_run(got, broken_in_the_third_pass(stream, start)));
    }
}

// Sends cue after cue as fast as the program takes them, a second apart for the last 129.
class cue_burst
{
public:
    cue_burst(control_socket& socket, size_t count) : socket_(socket), count_(count) {}

    void send()
    {
        while (made_ < count_ || sent_ < unsent_.size()) {
            if (sent_ == unsent_.size()) {
                unsent_ = build_cue_event({.text = text(made_), .at_ms = at_ms(made_)});
                sent_ = 0;
                made_++;
            }
            const size_t more = socket_.send(std::span(unsent_).subspan(sent_));
            if (more == 0)
                return;
            sent_ += more;
        }
    }

    [[nodiscard]] static std::string text(size_t number)
    {
        return std::to_string(number) + std::string(10000, '.');
    }

    [[nodiscard]] int64_t at_ms(size_t number) const
    {
        const size_t first_kept = count_ - 129;
        return 10000 + (number > first_kept ? static_cast<int64_t>(number - first_kept) * 1000 : 0);
    }

private:
    control_socket& socket_;
    size_t count_;
    size_t made_ = 0;
    byte_string unsent_;
    size_t sent_ = 0;
};

// The peer is held back by the socket, and the queue by its limit: of 10,000 cues of 10 kB the
// last 129 are there when the first keyframe comes.
TEST(Captions, ABurstOfCuesNeedsNoMoreMemoryThanTheQueueHolds)
{
    constexpr size_t count = sanitized ? 1000 : 10000;
    control_socket socket;
    cue_burst burst(socket, count);
    burst.send();

    // One pass for each cue and more, then a fragment for the cues that are left.
    stream_builder last_pass;
    last_pass.keyframe(900000).picture(990000).null_until(16 * packet_bytes);
    program_input input = stepped_stream().pass().input();
    input.next = [&, first_pass = input.next, passes = size_t{0}](
                     byte_string& piece, const std::filesystem::path& path) mutable {
        burst.send();
        if (passes > count)
            return false;
        piece = passes == count ? last_pass.bytes() : null_packets(16);
        return passes++ > 0 || first_pass(piece, path);
    };
    run_result got = run_program({.arguments = with_socket(socket), .input = input});
    EXPECT_EQ(got.ending, "exit 0");

    std::string overflows;
    for (size_t i = 129; i < count; i++)
        overflows += "VTT queue 'eng' overflow by 1\n";
    const std::string reports = got.standard_error;
    EXPECT_TRUE(reports.starts_with(new_language("eng") + programme_lines()));
    EXPECT_TRUE(reports.ends_with(overflows + eof_line));
    EXPECT_EQ(reports.size(), new_language("eng").size() + programme_lines().size() +
                                  overflows.size() + eof_line.size());

    std::string cues = "WEBVTT\n"
                       "X-TIMESTAMP-MAP=MPEGTS:900000,LOCAL:0:00:10.000\n"
                       "Kind: captions\n"
                       "Language: eng\n"
                       "\n";
    for (size_t i = count - 129; i < count; i++) {
        const auto stamp = [&](int64_t ms) {
            const std::string seconds = std::to_string(ms / 1000 % 60);
            return "0:0" + std::to_string(ms / 60000) + ":" + (seconds.size() < 2 ? "0" : "") +
                   seconds + ".000";
        };
        cues += stamp(burst.at_ms(i)) + " --> " + stamp(burst.at_ms(i) + 1000) + "\n" +
                cue_burst::text(i) + "\n\n";
    }
    EXPECT_EQ(text_of(got.files["ch1.00000000.ts.eng.vtt"]), cues);

    // The input window takes 8 MiB. All cues together would take 100 MB.
    if (!sanitized) {
        EXPECT_LT(got.peak_kilobytes, 48 * 1024);
    }
}

struct no_socket_case {
    std::string_view name;
    int fd;
};

TEST(Captions, ADescriptorThatIsNoConnectedStreamSocketEndsTheRunSilentlyWithStatus0)
{
    int datagrams[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, datagrams), 0);
    int pipe_ends[2] = {-1, -1};
    ASSERT_EQ(pipe(pipe_ends), 0);
    const int unconnected = socket(AF_UNIX, SOCK_STREAM, 0);
    const int file = open("/dev/null", O_RDWR);
    ASSERT_GE(unconnected, 0);
    ASSERT_GE(file, 0);
    const no_socket_case cases[] = {
        {"not open", 1000},
        {"a file", file},
        {"a pipe", pipe_ends[0]},
        {"a datagram socket", datagrams[0]},
        {"a socket that nobody is connected to", unconnected},
        {"the program's standard error", 2},
    };
    stepped_stream stream;
    stream.keyframe(10000);
    for (const no_socket_case& c : cases) {
        SCOPED_TRACE(c.name);
        const run_result got = run_program(
            {.arguments = {"--anon-sock", std::to_string(c.fd)}, .input = stream.input()});
        EXPECT_TRUE(same_run(got, {}));
    }
    for (const int fd : {datagrams[0], datagrams[1], pipe_ends[0], pipe_ends[1], unconnected, file})
        close(fd);
}

TEST(Captions, ANegativeDescriptorOrNoneMeansNoControlSocket)
{
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"--anon-sock", "-1"}, {"--anon-sock"}}) {
        SCOPED_TRACE(arguments.back());
        stepped_stream stream;
        const size_t start = stream.mark();
        stream.keyframe(10000);
        const run_result got = run_program({.arguments = arguments, .input = stream.input()});
        EXPECT_TRUE(
            same_run(got, {.standard_error = programme_lines() + eof_line,
                           .files = {{"ch1.m3u8", master_playlist({.resolution = "320x240"})},
                                     {"ch1.m3u8.av.m3u8", media_playlist({})},
                                     {".tmp", media_playlist({})},
                                     {"ch1.00000000.ts", stream.stream.from(start)}}}));
    }
}

// Such a language is accepted, and its files fail to open; nothing else is to suffer from it.
TEST(Captions, ALanguageTooLongForAFileNameStopsNothing)
{
    const std::string language(255, 'x');
    stepped_stream stream;
    stream.keyframe(10000)
        .picture(11000, build_cue_event({.language = language, .at_ms = 11000}))
        .picture(12000, build_cue_event({.at_ms = 12000}))
        .keyframe(16000)
        .picture(17000);
    const run_result got = run_with_captions(stream);
    EXPECT_EQ(got.ending, "exit 0");
    EXPECT_TRUE(got.files.contains("ch1.00000001.ts"));
    EXPECT_TRUE(got.files.contains("ch1.00000000.ts.eng.vtt"));
    for (const auto& [name, content] : got.files)
        EXPECT_EQ(name.find(language), std::string::npos) << name;
}

// The names of a language's files begin with those of the programme, so that what a peer puts into
// the language stays below names that are no directories.
TEST(Captions, ALanguageCannotLeadOutOfTheDirectory)
{
    for (const std::string language : {"/../../x", "/x", "..", "../x", "x/../../y"}) {
        SCOPED_TRACE(language);
        stepped_stream stream;
        stream.keyframe(10000)
            .picture(11000, build_cue_event({.language = language, .at_ms = 11000}))
            .keyframe(16000)
            .picture(17000);
        // The program works below the directory that is looked at.
        const scratch_directory scratch;
        scratch.add({{"a/b/c/", {}}});
        const byte_string captions = stream.all_captions();
        control_socket socket;
        ASSERT_EQ(socket.send(captions), captions.size());
        const run_result got = run_program({.arguments = with_socket(socket),
                                            .input = stream.input(),
                                            .directory = (scratch.path() / "a/b/c").string()});
        EXPECT_EQ(got.ending, "exit 0");
        for (const auto& [name, content] : scratch.files()) {
            EXPECT_TRUE(name.ends_with('/') || name.starts_with("a/b/c/ch1.") ||
                        name == "a/b/c/.tmp")
                << name;
        }
        EXPECT_TRUE(scratch.files().contains("a/b/c/ch1.00000001.ts"));
    }
}

} // namespace
