// One call of the program fails, and all that follow go well; for each call in turn. Or all that
// follow fail too. After each run: how it ended, what it said, and what a player finds.
//
// Beyond reading, the program asks no call why it failed: the errors take turns over the calls.
// With VORN_EVERY_ACTION in the environment, each call fails with each of them.

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/faults/presentation.hpp"
#include "tests/faults/short_programme.hpp"
#include "tests/support/program_run.hpp"

namespace
{

// The call at which the fault struck first.
struct struck_call {
    std::string call = {};
    std::string file = {};
    unsigned index = 0; // of this call on the open file
};

struct faulty_run {
    run_result result = {};
    std::map<std::string, unsigned> counts = {}; // missing when the run ended by a signal
    struck_call struck = {};
};

faulty_run read_log(const std::filesystem::path& log)
{
    faulty_run run;
    std::ifstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string kind;
        std::string call;
        words >> kind >> call;
        if (kind == "count") {
            words >> run.counts[call];
        } else {
            run.struck.call = call;
            words >> run.struck.file >> run.struck.index;
        }
    }
    return run;
}

// A control socket on which packets wait; both ends stay open as long as this lives.
class waiting_packets
{
public:
    explicit waiting_packets(const byte_string& packets)
    {
        if (packets.empty())
            return;
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_) != 0 ||
            write(ends_[0], packets.data(), packets.size()) != static_cast<ssize_t>(packets.size()))
            throw std::runtime_error("no control socket");
    }
    ~waiting_packets()
    {
        for (const int fd : ends_) {
            if (fd >= 0)
                close(fd);
        }
    }
    waiting_packets(const waiting_packets&) = delete;
    waiting_packets& operator=(const waiting_packets&) = delete;

    [[nodiscard]] bool pass_on() const
    {
        return ends_[1] < 0 || dup2(ends_[1], control_socket_number) >= 0;
    }

private:
    int ends_[2] = {-1, -1};
};

bool leave_no_core()
{
    const rlimit none{0, 0};
    return setrlimit(RLIMIT_CORE, &none) == 0;
}

faulty_run run_with(const short_programme& programme, const std::string& fault,
                    const std::string& backlog)
{
    const scratch_directory beside;
    const std::string log = beside.path() / "log";
    const waiting_packets captions(programme.captions);
    std::vector<std::string> arguments = {"--frag-backlog", backlog};
    arguments.insert(arguments.end(), programme.arguments.begin(), programme.arguments.end());

    const run_result result = run_program(
        {.arguments = arguments, .input = {.bytes = programme.stream}, .before_start = [&] {
             return leave_no_core() && captions.pass_on() &&
                    setenv("LD_PRELOAD", VORN_INTERPOSER, 1) == 0 &&
                    setenv("VORN_FAULT_LOG", log.c_str(), 1) == 0 &&
                    (fault.empty() || setenv("VORN_FAULT", fault.c_str(), 1) == 0);
         }});
    faulty_run run = read_log(log);
    run.result = result;
    return run;
}

// What a programme gives when nothing goes wrong.
struct sound_run {
    sound_run(const short_programme& programme, const std::string& backlog)
        : whole(run_with(programme, "", "1000").result.files), run(run_with(programme, "", backlog))
    {
    }
    whole_fragments whole;
    faulty_run run;
};

// How a run ends, and the lines it ends with.
struct ending {
    std::string status;
    std::string last_lines;

    bool operator==(const ending&) const = default;
};

const ending at_end_of_input = {"exit 0", "Stream EOF\n"};
const ending at_failed_write = {"exit 2", "HLS out write error\nI/O proc fail\n"};
const ending before_start = {"exit 1", "Failed to refill until\n"};

// Renditions that are given up at the end may still warn of an entry without a name.
std::string without_last_warnings(std::string text)
{
    for (;;) {
        const size_t last_line = text.rfind('\n', text.size() - std::min<size_t>(text.size(), 2));
        const size_t begin = last_line == std::string::npos ? 0 : last_line + 1;
        if (!text.substr(begin).starts_with("M3U8 warning: "))
            return text;
        text.resize(begin);
    }
}

testing::AssertionResult ended(const run_result& got, const ending& want)
{
    if (got.ending == want.status &&
        without_last_warnings(got.standard_error).ends_with(want.last_lines))
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << got.ending << ", wanted " << want.status << " after "
                                       << want.last_lines << "standard error:\n"
                                       << got.standard_error;
}

using check_function =
    std::function<void(const faulty_run& run, const sound_run& sound, unsigned number)>;

// For each number of a call in turn, in steps of `stride`, until there is no such call any more:
// one of the actions. With VORN_EVERY_ACTION in the environment all of them, and every number.
void for_each_number(const short_programme& programme, const std::string& backlog,
                     const std::string& call, const std::vector<std::string>& actions,
                     unsigned stride, const check_function& check)
{
    static std::map<std::string, sound_run> sound_runs;
    const sound_run& sound =
        sound_runs.try_emplace(programme.name + backlog, programme, backlog).first->second;
    ASSERT_TRUE(ended(sound.run.result, at_end_of_input));

    const bool all = std::getenv("VORN_EVERY_ACTION") != nullptr;
    const size_t actions_each = all ? actions.size() : 1;
    unsigned runs = 0;
    for (unsigned number = 1;; number += all ? 1 : stride) {
        for (size_t i = 0; i < actions_each; i++, runs++) {
            const std::string& action = actions[(number + i) % actions.size()];
            const std::string fault = call + ":" + std::to_string(number) + ":" + action;
            const faulty_run run = run_with(programme, fault, backlog);
            if (run.struck.call.empty()) {
                EXPECT_GT(number, 1u) << programme.name << " makes no " << call;
                std::printf("%s, %s: %u runs\n", programme.name.c_str(), call.c_str(), runs);
                return;
            }
            SCOPED_TRACE(programme.name + ", " + fault + ", at " + run.struck.call + " of " +
                         run.struck.file);
            check(run, sound, number);
            if (testing::Test::HasFailure())
                return;
        }
    }
}

std::vector<short_programme> all_programmes()
{
    return {captioned_programme(), separate_programme(), audio_programme()};
}

std::vector<std::string> actions_of(std::initializer_list<int> errors)
{
    std::vector<std::string> actions;
    for (const int error : errors)
        actions.push_back(std::to_string(error));
    return actions;
}

// Every error that the tests know, though one system call reports only some of them.
std::vector<std::string> all_errors()
{
    return actions_of({ENOSPC, EIO, EMFILE, EINTR, EAGAIN});
}

const std::string all_listed = "1000"; // a backlog in which every fragment stays and is checked
const std::string most_deleted = "1";

void for_each_fault(const std::string& backlog, const std::string& call,
                    const std::vector<std::string>& actions, const check_function& check,
                    unsigned stride = 1)
{
    for (const short_programme& programme : all_programmes())
        for_each_number(programme, backlog, call, actions, stride, check);
}

bool is_captions(const std::string& file)
{
    return file.ends_with(".vtt");
}

bool is_audio_programme(const sound_run& sound)
{
    return sound.run.result.standard_error.find("video=0101h") == std::string::npos;
}

// A fragment's first two packets are its tables. At a cut of video the fragments are opened ahead
// of the packet, and nothing is asked about it: the packet that does not find one opens another.
bool opened_ahead(const struck_call& struck, const sound_run& sound)
{
    return !is_audio_programme(sound) && struck.index < 2;
}

TEST(FailingCall, AFragmentThatCannotBeOpenedIsTriedOnceMore)
{
    const auto check = [](const faulty_run& run, const sound_run& sound, unsigned) {
        const bool asked_about = is_audio_programme(sound) && run.struck.file.ends_with(".ts");
        EXPECT_TRUE(ended(run.result, asked_about ? at_failed_write : at_end_of_input));
        EXPECT_EQ(fault_in(run.result.files, sound.whole), "");
    };
    for_each_fault(all_listed, "open", all_errors(), check);
}

TEST(FailingCall, AFailedWriteEndsTheRunAndTheFragmentIsNotListed)
{
    std::vector<std::string> actions = all_errors();
    actions.emplace_back("short");
    const auto check = [](const faulty_run& run, const sound_run& sound, unsigned) {
        const bool goes_on = is_captions(run.struck.file) || opened_ahead(run.struck, sound);
        EXPECT_TRUE(ended(run.result, goes_on ? at_end_of_input : at_failed_write));
        EXPECT_EQ(fault_in(run.result.files, sound.whole), "");
    };
    for_each_fault(all_listed, "write", actions, check);
}

bool begins_as_webvtt(const byte_string& content)
{
    const std::string text(content.begin(), content.end());
    const std::string header = "WEBVTT\n";
    return text.starts_with(header) || header.starts_with(text);
}

// With a single cut, so that the fragment that follows the failed one is the last.
TEST(FailingCall, AWebvttFragmentBeginsWithItsHeaderWhateverFailedBefore)
{
    for_each_number(captioned_programme(1), all_listed, "write", actions_of({EINTR}), 1,
                    [](const faulty_run& run, const sound_run&, unsigned) {
                        for (const auto& [name, content] : run.result.files) {
                            EXPECT_TRUE(!is_captions(name) || begins_as_webvtt(content)) << name;
                        }
                    });
}

// All that follow fail too: a disk that is full. A short write inside a playlist goes unnoticed; in
// the run's last moments, in which all playlists are written once more, that can be any of them.
TEST(FailingCall, AFullDiskEndsTheRun)
{
    const auto check = [](const faulty_run& run, const sound_run& sound, unsigned) {
        std::set<std::string> any;
        for (const auto& [name, bytes] : run.result.files) {
            if (is_playlist(name))
                any.insert(name);
        }
        EXPECT_TRUE(ended(run.result, at_failed_write) || ended(run.result, at_end_of_input));
        EXPECT_EQ(fault_in(run.result.files, sound.whole, any), "");
    };
    for_each_fault(all_listed, "disk", {std::to_string(ENOSPC) + ":on"}, check);
}

TEST(FailingCall, DescriptorsThatAreUsedUpEndTheRun)
{
    const auto check = [](const faulty_run& run, const sound_run& sound, unsigned) {
        EXPECT_TRUE(ended(run.result, at_failed_write) || ended(run.result, at_end_of_input));
        EXPECT_EQ(fault_in(run.result.files, sound.whole), "");
    };
    for_each_fault(most_deleted, "descriptor", {std::to_string(EMFILE) + ":on"}, check);
}

// Nothing of these calls' results is looked at, nor of what they do more than a file that stays
// where it is; the next cut tries again.
TEST(FailingCall, APlaylistThatCannotBeReplacedStaysAsItWas)
{
    for (const std::string call : {"rename", "fopen"}) {
        for_each_fault(most_deleted, call, all_errors(),
                       [](const faulty_run& run, const sound_run& sound, unsigned) {
                           EXPECT_TRUE(ended(run.result, at_end_of_input));
                           EXPECT_EQ(fault_in(run.result.files, sound.whole), "");
                       });
    }
}

TEST(FailingCall, AFragmentThatCannotBeDeletedStays)
{
    for_each_fault(most_deleted, "unlink", all_errors(),
                   [](const faulty_run& run, const sound_run& sound, unsigned) {
                       EXPECT_TRUE(ended(run.result, at_end_of_input));
                       EXPECT_EQ(fault_in(run.result.files, sound.whole), "");
                       file_map files = run.result.files;
                       EXPECT_EQ(files.erase(run.struck.file), 1u);
                       EXPECT_TRUE(files == sound.run.result.files);
                   });
}

TEST(FailingCall, AFailedCloseChangesNothing)
{
    for (const std::string call : {"close", "fclose"}) {
        for_each_fault(all_listed, call, actions_of({ENOSPC, EIO, EINTR}),
                       [](const faulty_run& run, const sound_run& sound, unsigned) {
                           EXPECT_EQ(run.result.standard_error, sound.run.result.standard_error);
                           EXPECT_TRUE(run.result.files == sound.run.result.files);
                       });
    }
}

// The one exception: the playlist in which a write failed may be published cut short. It is whole
// again after the next cut, and no other playlist suffers.
TEST(FailingCall, AFailedWriteInsideAPlaylistCutsOnlyThatPlaylist)
{
    for_each_fault(all_listed, "stdio", all_errors(),
                   [](const faulty_run& run, const sound_run& sound, unsigned) {
                       const std::string temporary = run.struck.file;
                       const std::string suffix = ".tmp";
                       ASSERT_TRUE(temporary.ends_with(suffix));
                       const std::string playlist =
                           temporary.substr(0, temporary.size() - suffix.size());
                       EXPECT_TRUE(ended(run.result, at_end_of_input));
                       EXPECT_EQ(fault_in(run.result.files, sound.whole, {playlist}), "");
                   });
}

TEST(FailingCall, AShortWriteInsideAPlaylistIsGoneOnWith)
{
    for_each_fault(all_listed, "stdio", {"short"},
                   [](const faulty_run& run, const sound_run& sound, unsigned) {
                       EXPECT_TRUE(ended(run.result, at_end_of_input));
                       EXPECT_TRUE(run.result.files == sound.run.result.files);
                   });
}

// The first read brings the start of the stream.
TEST(FailingCall, AReadErrorIsTheEndOfTheInput)
{
    for_each_fault(all_listed, "read", actions_of({EIO, ENOSPC, EMFILE}),
                   [](const faulty_run& run, const sound_run& sound, unsigned number) {
                       EXPECT_TRUE(ended(run.result, number == 1 ? before_start : at_end_of_input));
                       EXPECT_EQ(fault_in(run.result.files, sound.whole), "");
                   });
}

TEST(FailingCall, AnInterruptedOrEmptyReadIsTriedAgain)
{
    std::vector<std::string> actions = actions_of({EINTR, EAGAIN});
    actions.emplace_back("short");
    for_each_fault(all_listed, "read", actions,
                   [](const faulty_run& run, const sound_run& sound, unsigned) {
                       EXPECT_TRUE(ended(run.result, at_end_of_input));
                       EXPECT_TRUE(run.result.files == sound.run.result.files);
                   });
}

// Memory that is asked for without a way to do without ends the run at once, as a signal would.
TEST(FailingCall, MemoryThatCannotBeHadLeavesAWholePresentation)
{
    const auto check = [](const faulty_run& run, const sound_run& sound, unsigned) {
        const bool known = ended(run.result, at_end_of_input) ||
                           ended(run.result, {"exit 0", ""}) || // no control socket
                           ended(run.result, at_failed_write) ||
                           ended(run.result, {"exit 2", "I/O proc fail\n"}) ||
                           ended(run.result, {"exit 1", "Failed to create sliding window\n"}) ||
                           ended(run.result, {"exit 1", ""}) || // the control socket's packets
                           run.result.ending == "signal 6";
        EXPECT_TRUE(known) << run.result.ending << "\n" << run.result.standard_error;
        EXPECT_EQ(fault_in(run.result.files, sound.whole), "");
    };
    const std::string error = std::to_string(ENOMEM);
    for_each_fault(all_listed, "malloc", {error, error + ":on"}, check, 17);
}

} // namespace
