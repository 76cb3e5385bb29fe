#include "v2/captions/caption_intake.hpp"

#include <limits>
#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/caption_packet.hpp"
#include "tests/support/captured_stderr.hpp"
#include "toolkit/comm/comm_packet_builder.hpp"
#include "toolkit/comm/comm_sender.hpp"

namespace
{

struct pass_result {
    bool connected;
    std::string printed;
};

// The program's end of a real socketpair is the control socket; the test sends through the other.
class CaptionIntake : public testing::Test
{
protected:
    CaptionIntake()
    {
        vtt_queues.clear();
        int receivers_end = -1;
        EXPECT_TRUE(comm_sender_open(sender, receivers_end));
        caption_socket.reset(comm_socket_v4_create());
        EXPECT_EQ(comm_socket_v4_connect_use_socketpair(caption_socket.get(), receivers_end), 0);
    }

    ~CaptionIntake() override
    {
        caption_socket.reset();
        vtt_queues.clear();
    }

    void send(const byte_string& bytes) { EXPECT_EQ(sender.send(bytes), comm_send_result::sent); }

    void send(std::vector<caption_pair> pairs)
    {
        send(build_caption_packet({.pairs = std::move(pairs)}));
    }

    pass_result pass()
    {
        pass_result result{};
        result.printed = stderr_of([&] { result.connected = check_socket(opts); });
        return result;
    }

    // A pass on a connection that is expected to hold; what it prints.
    std::string take()
    {
        const pass_result result = pass();
        EXPECT_TRUE(result.connected);
        return result.printed;
    }

    // Sends a packet of these pairs, and takes it.
    std::string deliver(std::vector<caption_pair> pairs)
    {
        send(std::move(pairs));
        return take();
    }

    static size_t waiting(const std::string& key)
    {
        const auto found = vtt_queues.find(key);
        return found == vtt_queues.end() ? 0 : found->second.size();
    }

    // The texts of the cues that wait under the key.
    static std::vector<std::string> texts(const std::string& key)
    {
        std::vector<std::string> all;
        for (const vtt_cue& cue : vtt_queues[key])
            all.push_back(cue.text);
        return all;
    }

    cmdopts opts;
    comm_sender sender;
};

using texts_list = std::vector<std::string>;

const caption_pair service_1 = unsigned_pair("service", 1);

TEST_F(CaptionIntake, SucceedsWithoutAControlSocket)
{
    caption_socket.reset();
    const pass_result result = pass();
    EXPECT_TRUE(result.connected);
    EXPECT_EQ(result.printed, "");
    EXPECT_TRUE(vtt_queues.empty());
}

TEST_F(CaptionIntake, SucceedsWhenNothingHasCome)
{
    EXPECT_EQ(take(), "");
    EXPECT_TRUE(vtt_queues.empty());
}

TEST_F(CaptionIntake, TakesACueThatTheSenderOfTheToolkitBuilt)
{
    comm_packet_builder cue;
    ASSERT_TRUE(cue.begin("vtt") && cue.add_uint64("service", 3) && cue.add_text("text", "Hi") &&
                cue.add_int64("start", -7));
    ASSERT_EQ(sender.send(cue.packet()), comm_send_result::sent);

    EXPECT_EQ(take(), "New language 'v2'\n");
    ASSERT_EQ(waiting("v2"), 1u);
    EXPECT_EQ(vtt_queues["v2"].front().text, "Hi");
    EXPECT_EQ(vtt_queues["v2"].front().start, -7);
}

TEST_F(CaptionIntake, TakesOnePacketAPassWhateverElseIsWaiting)
{
    send(concat({build_cue_event({.text = "one"}), build_cue_event({.text = "two"})}));
    send(build_cue_event({.text = "three"}));
    EXPECT_EQ(take(), "New language 'eng'\n");
    EXPECT_EQ(texts("eng"), texts_list({"one"}));
    EXPECT_EQ(take(), "");
    EXPECT_EQ(texts("eng"), texts_list({"one", "two"}));
    EXPECT_EQ(take(), "");
    EXPECT_EQ(texts("eng"), texts_list({"one", "two", "three"}));
    EXPECT_EQ(take(), "");
    EXPECT_EQ(waiting("eng"), 3u);
}

TEST_F(CaptionIntake, TakesNoLanguageThatAFileNameOrAPlaylistCannotHold)
{
    const std::string longest(255, 'x');
    const std::string refused[] = {
        longest + "x", "en\n#EXT-X-ENDLIST", "en\r", "en\",URI=\"", "\x7F", "\x01"};
    for (const std::string& language : refused) {
        vtt_queues.clear();
        EXPECT_EQ(deliver({service_1, text_pair("language", "eng"), text_pair("language", language),
                           text_pair("text", "kept")}),
                  "Unhandled nv 'language' '" + language + "'\nNew language 'eng'\n");
        EXPECT_EQ(texts("eng"), texts_list({"kept"}));
        EXPECT_EQ(vtt_queues.size(), 1u);
    }
    for (const std::string& language : {longest, std::string("pt-BR"), std::string("a b/c")})
        EXPECT_EQ(deliver({service_1, text_pair("language", language)}),
                  "New language '" + language + "'\n");
}

TEST_F(CaptionIntake, WaitsForThePacketsLastByte)
{
    const byte_string packet = build_cue_event({});
    for (size_t i = 0; i + 1 < packet.size(); i++) {
        send(byte_string{packet[i]});
        ASSERT_EQ(take(), "") << "byte " << i;
        ASSERT_TRUE(vtt_queues.empty()) << "byte " << i;
    }
    send(byte_string{packet.back()});
    EXPECT_EQ(take(), "New language 'eng'\n");
    EXPECT_EQ(waiting("eng"), 1u);
}

TEST_F(CaptionIntake, FailsOnceThePeerHasClosed)
{
    sender.close();
    const pass_result result = pass();
    EXPECT_FALSE(result.connected);
    EXPECT_EQ(result.printed, "");
}

TEST_F(CaptionIntake, TakesWhatArrivedWholeBeforeThePeerClosed)
{
    const byte_string cue = build_cue_event({});
    send(concat({cue, cue, std::span(cue).first(cue.size() / 2)}));
    sender.close();
    take();
    take();
    EXPECT_EQ(waiting("eng"), 2u);
    EXPECT_FALSE(pass().connected);
    EXPECT_FALSE(pass().connected);
    EXPECT_EQ(waiting("eng"), 2u);
}

TEST_F(CaptionIntake, FailsWhenBytesAreNoPacket)
{
    send(concat({build_cue_event({}), bytes_of("no packet at all")}));
    EXPECT_EQ(take(), "New language 'eng'\n");
    const pass_result result = pass();
    EXPECT_FALSE(result.connected);
    EXPECT_EQ(result.printed, "");
    EXPECT_EQ(waiting("eng"), 1u);
}

struct usable_case {
    std::string_view name;
    std::string command;
    uint8_t status;
    bool want_used;
};

TEST_F(CaptionIntake, UsesOnlyVttPacketsWithBothStatusBits)
{
    using namespace std::string_literals;
    const usable_case cases[] = {
        {"both bits", "vtt", 3, true},
        {"all bits", "vtt", 0xFF, true},
        {"no bit", "vtt", 0, false},
        {"the first bit only", "vtt", 1, false},
        {"the second bit only", "vtt", 2, false},
        {"all bits but the first", "vtt", 0xFE, false},
        {"all bits but the second", "vtt", 0xFD, false},
        {"a longer word", "vttx", 3, false},
        {"a shorter word", "vt", 3, false},
        {"another case", "VTT", 3, false},
        {"no word", "", 3, false},
        {"a NUL ends the word", "vtt\0x"s, 3, true},
    };
    for (const usable_case& c : cases) {
        SCOPED_TRACE(c.name);
        vtt_queues.clear();
        send(
            build_caption_packet({.command = c.command, .status = c.status, .pairs = {service_1}}));
        EXPECT_EQ(take(), c.want_used ? "New language 'v0'\n" : "");
        EXPECT_EQ(waiting("v0"), c.want_used ? 1u : 0u);
    }
}

TEST_F(CaptionIntake, AnUnusablePacketTakesAPassOfItsOwn)
{
    send(build_caption_packet({.command = "hello"}));
    send({service_1});
    EXPECT_EQ(take(), "");
    EXPECT_EQ(take(), "New language 'v0'\n");
}

TEST_F(CaptionIntake, LeavesWhatNoPairSaysAtItsDefault)
{
    deliver({service_1});
    ASSERT_EQ(waiting("v0"), 1u);
    const vtt_cue& cue = vtt_queues["v0"].front();
    EXPECT_EQ(cue.text, "");
    EXPECT_EQ(cue.identifier, "");
    EXPECT_EQ(cue.cue_settings, "");
    EXPECT_EQ(cue.language, "");
    EXPECT_EQ(cue.start, -1);
    EXPECT_EQ(cue.end, -1);
    EXPECT_EQ(cue.now, -1);
    EXPECT_EQ(cue.frame, -1);
    EXPECT_EQ(cue.mpeg_timestamp, 0u);
    EXPECT_EQ(cue.service, 0u);
}

TEST_F(CaptionIntake, ReadsEveryPair)
{
    constexpr int64_t least = std::numeric_limits<int64_t>::min();
    constexpr int64_t greatest = std::numeric_limits<int64_t>::max();
    EXPECT_EQ(
        deliver({unsigned_pair("service", 256), signed_pair("start", least),
                 signed_pair("end", greatest), signed_pair("now", -2), signed_pair("frame", 4),
                 unsigned_pair("mpeg timestamp", std::numeric_limits<uint64_t>::max()),
                 text_pair("text", "one\r\ntwo"), text_pair("identifier", "id 5"),
                 text_pair("cue settings", "line:0"), text_pair("language", "spa")}),
        "New language 'spa'\n");
    ASSERT_EQ(waiting("spa"), 1u);
    const vtt_cue& cue = vtt_queues["spa"].front();
    EXPECT_EQ(cue.text, "one\r\ntwo");
    EXPECT_EQ(cue.identifier, "id 5");
    EXPECT_EQ(cue.cue_settings, "line:0");
    EXPECT_EQ(cue.language, "spa");
    EXPECT_EQ(cue.start, least);
    EXPECT_EQ(cue.end, greatest);
    EXPECT_EQ(cue.now, -2);
    EXPECT_EQ(cue.frame, 4);
    EXPECT_EQ(cue.mpeg_timestamp, std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(cue.service, 255u);
}

TEST_F(CaptionIntake, TakesTheLastOfSeveralPairsWithTheSameName)
{
    deliver({service_1, text_pair("text", "one"), signed_pair("now", 1), signed_pair("now", 2),
             text_pair("text", "two"), unsigned_pair("service", 2)});
    ASSERT_EQ(waiting("v1"), 1u);
    EXPECT_EQ(vtt_queues["v1"].front().text, "two");
    EXPECT_EQ(vtt_queues["v1"].front().now, 2);
}

TEST_F(CaptionIntake, ReadsTheFirstEightBytesOfALongerInteger)
{
    byte_string nine = big_endian_bytes(7);
    nine.push_back(0xFF);
    EXPECT_EQ(deliver({{.type = 2, .name = "service", .value = nine},
                       {.type = 5, .name = "start", .value = nine}}),
              "New language 'v6'\n");
    ASSERT_EQ(waiting("v6"), 1u);
    EXPECT_EQ(vtt_queues["v6"].front().start, 7);
}

TEST_F(CaptionIntake, EndsATextAtItsFirstNul)
{
    using namespace std::string_view_literals;
    EXPECT_EQ(deliver({service_1, text_pair("language", "eng\0/x"sv),
                       text_pair("text", "seen\0unseen"sv)}),
              "New language 'eng'\n");
    EXPECT_EQ(texts("eng"), texts_list({"seen"}));
}

TEST_F(CaptionIntake, PassesOverPairsWithoutAName)
{
    EXPECT_EQ(deliver({text_pair("", "nobody"), service_1}), "New language 'v0'\n");
    EXPECT_EQ(texts("v0"), texts_list({""}));
}

struct unhandled_case {
    std::string_view name;
    caption_pair pair;
    std::string_view want;
};

TEST_F(CaptionIntake, ReportsEveryPairThatFitsNoRowAndUsesTheRest)
{
    const byte_string seven(7, 0x30);
    const unhandled_case cases[] = {
        {"unknown name, text", text_pair("colour", "red"), "Unhandled nv 'colour' 'red'\n"},
        {"unknown name, unsigned", unsigned_pair("n", UINT64_MAX),
         "Unhandled nv 'n' '18446744073709551615'\n"},
        {"unknown name, signed", signed_pair("n", -5), "Unhandled nv 'n' '-5'\n"},
        {"another case", text_pair("Text", "red"), "Unhandled nv 'Text' 'red'\n"},
        {"a longer name", text_pair("text ", "red"), "Unhandled nv 'text ' 'red'\n"},
        {"a shorter name", text_pair("tex", "red"), "Unhandled nv 'tex' 'red'\n"},
        {"service as text", text_pair("service", "2"), "Unhandled nv 'service' '2'\n"},
        {"service as signed", signed_pair("service", 2), "Unhandled nv 'service' '2'\n"},
        {"short service",
         {.type = 2, .name = "service", .value = seven},
         "Unhandled nv 'service' '0x30303030303030'\n"},
        {"start as unsigned", unsigned_pair("start", 9), "Unhandled nv 'start' '9'\n"},
        {"start as text", text_pair("start", "9"), "Unhandled nv 'start' '9'\n"},
        {"short start",
         {.type = 5, .name = "start", .value = seven},
         "Unhandled nv 'start' '0x30303030303030'\n"},
        {"end as unsigned", unsigned_pair("end", 9), "Unhandled nv 'end' '9'\n"},
        {"short end",
         {.type = 5, .name = "end", .value = seven},
         "Unhandled nv 'end' '0x30303030303030'\n"},
        {"now as unsigned", unsigned_pair("now", 9), "Unhandled nv 'now' '9'\n"},
        {"short now",
         {.type = 5, .name = "now", .value = seven},
         "Unhandled nv 'now' '0x30303030303030'\n"},
        {"frame as unsigned", unsigned_pair("frame", 9), "Unhandled nv 'frame' '9'\n"},
        {"short frame, without a byte",
         {.type = 5, .name = "frame", .value = {}},
         "Unhandled nv 'frame' ''\n"},
        {"time stamp as signed", signed_pair("mpeg timestamp", 9),
         "Unhandled nv 'mpeg timestamp' '9'\n"},
        {"short time stamp",
         {.type = 2, .name = "mpeg timestamp", .value = seven},
         "Unhandled nv 'mpeg timestamp' '0x30303030303030'\n"},
        {"text as unsigned", unsigned_pair("text", 9), "Unhandled nv 'text' '9'\n"},
        {"identifier as signed", signed_pair("identifier", 9), "Unhandled nv 'identifier' '9'\n"},
        {"settings as unsigned", unsigned_pair("cue settings", 9),
         "Unhandled nv 'cue settings' '9'\n"},
        {"language as signed", signed_pair("language", 9), "Unhandled nv 'language' '9'\n"},
        {"a type that nobody knows",
         {.type = 1, .name = "text", .value = bytes_of("red")},
         "Unhandled nv 'text' '0x726564'\n"},
    };
    for (const unhandled_case& c : cases) {
        SCOPED_TRACE(c.name);
        vtt_queues.clear();
        EXPECT_EQ(deliver({service_1, c.pair, signed_pair("end", 77)}),
                  std::string(c.want) + "New language 'v0'\n");
        ASSERT_EQ(waiting("v0"), 1u);
        const vtt_cue& cue = vtt_queues["v0"].front();
        EXPECT_EQ(cue.text + cue.identifier + cue.cue_settings + cue.language, "");
        EXPECT_EQ(cue.start, -1);
        EXPECT_EQ(cue.end, 77);
        EXPECT_EQ(cue.now, -1);
        EXPECT_EQ(cue.frame, -1);
        EXPECT_EQ(cue.mpeg_timestamp, 0u);
        EXPECT_EQ(cue.service, 0u);
    }
}

struct service_case {
    std::string_view name;
    std::vector<caption_pair> pairs;
    std::string_view want; // printed
};

TEST_F(CaptionIntake, TakesServicesFrom1To256AndNamesTheLanguageAfterThem)
{
    const service_case cases[] = {
        {"none", {}, "Bad service -1\n"},
        {"0", {unsigned_pair("service", 0)}, "Bad service -1\n"},
        {"1", {unsigned_pair("service", 1)}, "New language 'v0'\n"},
        {"2", {unsigned_pair("service", 2)}, "New language 'v1'\n"},
        {"256", {unsigned_pair("service", 256)}, "New language 'v255'\n"},
        {"257", {unsigned_pair("service", 257)}, "Bad service -1\n"},
        {"the greatest", {unsigned_pair("service", UINT64_MAX)}, "Bad service -1\n"},
        {"1 above 32 bits", {unsigned_pair("service", 0x100000001)}, "Bad service -1\n"},
        {"a bad one changes nothing",
         {unsigned_pair("service", 3), unsigned_pair("service", 0)},
         "New language 'v2'\n"},
        {"a language is no service", {text_pair("language", "eng")}, "Bad service -1\n"},
        {"a language goes before the service",
         {service_1, text_pair("language", "eng")},
         "New language 'eng'\n"},
        {"an empty language is none",
         {service_1, text_pair("language", "")},
         "New language 'v0'\n"},
    };
    for (const service_case& c : cases) {
        SCOPED_TRACE(c.name);
        vtt_queues.clear();
        EXPECT_EQ(deliver(c.pairs), c.want);
        EXPECT_EQ(vtt_queues.size(), c.want.starts_with("Bad") ? 0u : 1u);
    }
}

TEST_F(CaptionIntake, ReportsPairsItCannotUseBeforeItDropsACueWithoutService)
{
    EXPECT_EQ(deliver({text_pair("colour", "red")}), "Unhandled nv 'colour' 'red'\n"
                                                     "Bad service -1\n");
}

TEST_F(CaptionIntake, ReportsEachLanguageOnce)
{
    send(build_cue_event({.language = "eng", .text = "one"}));
    send(build_cue_event({.language = "spa", .text = "uno"}));
    send(build_cue_event({.language = "eng", .text = "two"}));
    EXPECT_EQ(take(), "New language 'eng'\n");
    EXPECT_EQ(take(), "New language 'spa'\n");
    EXPECT_EQ(take(), "");
    EXPECT_EQ(texts("eng"), texts_list({"one", "two"}));
    EXPECT_EQ(texts("spa"), texts_list({"uno"}));
}

struct overflow_case {
    std::string_view name;
    size_t waiting;
    std::string_view want; // printed
    size_t want_waiting;
    std::string_view want_oldest;
};

TEST_F(CaptionIntake, DropsTheOldestCuesBeyond128BeforeItAppends)
{
    const overflow_case cases[] = {
        {"127 wait", 127, "", 128, "0"},
        {"128 wait", 128, "", 129, "0"},
        {"129 wait", 129, "VTT queue 'eng' overflow by 1\n", 129, "1"},
        {"130 wait", 130, "VTT queue 'eng' overflow by 2\n", 129, "2"},
    };
    for (const overflow_case& c : cases) {
        SCOPED_TRACE(c.name);
        std::deque<vtt_cue>& queue = vtt_queues["eng"];
        queue.clear();
        for (size_t i = 0; i < c.waiting; i++)
            queue.emplace_back().text = std::to_string(i);
        send(build_cue_event({.text = "new"}));
        EXPECT_EQ(take(), c.want);
        ASSERT_EQ(queue.size(), c.want_waiting);
        EXPECT_EQ(queue.front().text, c.want_oldest);
        EXPECT_EQ(queue.back().text, "new");
    }
}

TEST_F(CaptionIntake, CountsTheCuesOfEachLanguageApart)
{
    vtt_queues["eng"].resize(129);
    EXPECT_EQ(deliver({service_1}), "New language 'v0'\n");
    EXPECT_EQ(waiting("eng"), 129u);
    EXPECT_EQ(waiting("v0"), 1u);
}

TEST_F(CaptionIntake, RegistersTheLanguageButDropsTheCueWithoutAMultilevelPresentation)
{
    opts.no_multilevel = true;
    EXPECT_EQ(deliver({service_1}), "New language 'v0'\n");
    EXPECT_EQ(deliver({service_1}), "");
    EXPECT_TRUE(vtt_queues.contains("v0"));
    EXPECT_EQ(waiting("v0"), 0u);
    EXPECT_EQ(deliver({}), "Bad service -1\n");
}

} // namespace
