// Faults that the system itself makes: disks that fill, limits, a directory that goes, descriptors
// that run out, a parent that dies.

#include <algorithm>
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/faults/presentation.hpp"
#include "tests/faults/short_programme.hpp"
#include "tests/support/program_run.hpp"

namespace
{

const std::string failed_write = "HLS out write error\nI/O proc fail\n";

std::vector<std::string> with_backlog(const short_programme& programme, const std::string& backlog)
{
    std::vector<std::string> arguments = {"--frag-backlog", backlog};
    arguments.insert(arguments.end(), programme.arguments.begin(), programme.arguments.end());
    return arguments;
}

// Everything that a programme without a control socket leaves when nothing goes wrong.
whole_fragments all_of(const short_programme& programme)
{
    return whole_fragments(run_program({.arguments = with_backlog(programme, "1000"),
                                        .input = {.bytes = programme.stream}})
                               .files);
}

// A playlist that met the full disk may be cut short, and only that is forgiven: what it can still
// be read to list must be there and whole.
std::set<std::string> torn_playlists(const file_map& files)
{
    std::set<std::string> torn;
    for (const auto& [name, bytes] : files) {
        const std::string text(bytes.begin(), bytes.end());
        if (is_playlist(name) && !is_master_playlist(text) && !parse_media_playlist(text))
            torn.insert(name);
    }
    return torn;
}

// A file system that is reached through its descriptor alone and goes with it. So it shows up in no
// directory, nothing is left mounted, and a chroot has it too.
class small_disk
{
public:
    explicit small_disk(size_t bytes)
    {
        const int context = fsopen("tmpfs", FSOPEN_CLOEXEC);
        if (context < 0)
            return;
        const std::string size = std::to_string(bytes);
        if (fsconfig(context, FSCONFIG_SET_STRING, "size", size.c_str(), 0) == 0 &&
            fsconfig(context, FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) == 0)
            root_ = fsmount(context, FSMOUNT_CLOEXEC, 0);
        close(context);
    }
    ~small_disk()
    {
        if (root_ >= 0)
            close(root_);
    }
    small_disk(const small_disk&) = delete;
    small_disk& operator=(const small_disk&) = delete;

    [[nodiscard]] bool mounted() const { return root_ >= 0; }
    [[nodiscard]] std::string path() const { return "/proc/self/fd/" + std::to_string(root_); }

private:
    int root_ = -1;
};

TEST(RealFault, ADiskThatFillsEndsTheRun)
{
    constexpr size_t page = 4096; // each file takes whole ones
    const short_programme programme = separate_programme();
    const whole_fragments whole = all_of(programme);
    size_t filled = 0;
    for (size_t pages = 1; pages <= 40; pages += 3) {
        SCOPED_TRACE(std::to_string(pages) + " pages");
        const small_disk disk(pages * page);
        if (!disk.mounted())
            GTEST_SKIP() << "mounting needs root";
        const run_result got = run_program({.arguments = with_backlog(programme, "1000"),
                                            .input = {.bytes = programme.stream},
                                            .directory = disk.path()});
        const file_map files = files_below(disk.path());
        if (got.ending != "exit 0") {
            filled++;
            EXPECT_EQ(got.ending, "exit 2");
            EXPECT_NE(got.standard_error.find(failed_write), std::string::npos);
        }
        EXPECT_EQ(fault_in(files, whole, torn_playlists(files)), "");
    }
    EXPECT_GT(filled, 0u);
}

// Larger files than the limit are not written: a limit below a fragment's length ends the run.
TEST(RealFault, AFileSizeLimitEndsTheRunAtTheFirstFragmentThatReachesIt)
{
    const short_programme programme = separate_programme();
    const whole_fragments whole = all_of(programme);
    for (rlim_t limit = 1; limit < 8 * packet_bytes; limit += packet_bytes / 2) {
        SCOPED_TRACE(limit);
        const run_result got = run_program({.arguments = with_backlog(programme, "1"),
                                            .input = {.bytes = programme.stream},
                                            .file_size_limit = limit});
        if (got.ending != "exit 0") {
            EXPECT_EQ(got.ending, "exit 2");
            EXPECT_NE(got.standard_error.find(failed_write), std::string::npos);
        }
        EXPECT_EQ(fault_in(got.files, whole, torn_playlists(got.files)), "");
    }
}

TEST(RealFault, AWorkingDirectoryThatIsGoneEndsTheRunAtTheFirstPacket)
{
    const short_programme programme = audio_programme();
    const scratch_directory beside;
    const std::string gone = beside.path() / "gone";
    std::filesystem::create_directory(gone);
    const run_result got = run_program({.arguments = programme.arguments,
                                        .input = {.bytes = programme.stream},
                                        .directory = gone,
                                        .before_start = [&] {
                                            return rmdir(gone.c_str()) == 0;
                                        }});
    EXPECT_EQ(got.ending, "exit 2");
    EXPECT_TRUE(got.standard_error.ends_with(failed_write)) << got.standard_error;
}

// Descriptors 0 to 2 and `more` others, none of which whoever started the tests has left open.
// Three renditions have a fragment open each, and a playlist is written beside them.
TEST(RealFault, DescriptorsThatRunOutLeaveAWholePresentation)
{
    const short_programme programme = separate_programme();
    const whole_fragments whole = all_of(programme);
    for (rlim_t more = 0; more <= 4; more++) {
        SCOPED_TRACE(more);
        const run_result got = run_program({.arguments = with_backlog(programme, "1000"),
                                            .input = {.bytes = programme.stream},
                                            .before_start = [more] {
                                                const rlimit limit{3 + more, 3 + more};
                                                return close_range(3, ~0U, 0) == 0 &&
                                                       setrlimit(RLIMIT_NOFILE, &limit) == 0;
                                            }});
        // The loader needs a descriptor too.
        EXPECT_EQ(got.ending, more == 0 ? "exit 127" : more < 3 ? "exit 2" : "exit 0");
        EXPECT_EQ(got.ending == "exit 2", got.standard_error.ends_with(failed_write))
            << got.standard_error;
        EXPECT_EQ(fault_in(got.files, whole), "");
    }
}

TEST(RealFault, ANonBlockingInputGivesWhatABlockingOneGives)
{
    const short_programme programme = separate_programme();
    const auto run_from_pipe = [&](bool blocking) {
        return run_program(
            {.arguments = programme.arguments,
             .input = {.from = program_input::source::pipe, .bytes = programme.stream},
             .before_start = [blocking] {
                 return blocking || fcntl(STDIN_FILENO, F_SETFL, O_NONBLOCK) == 0;
             }});
    };
    const run_result got = run_from_pipe(false);
    const run_result want = run_from_pipe(true);
    EXPECT_EQ(got.ending, "exit 0");
    EXPECT_EQ(got.standard_error, want.standard_error);
    EXPECT_TRUE(got.files == want.files);
}

TEST(RealFault, AParentThatLeavesTheControlSocketEndsTheRun)
{
    const short_programme programme = captioned_programme();
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    ASSERT_EQ(write(ends[0], programme.captions.data(), programme.captions.size()),
              static_cast<ssize_t>(programme.captions.size()));
    close(ends[0]);
    const run_result got = run_program({.arguments = programme.arguments,
                                        .input = {.bytes = programme.stream},
                                        .before_start = [&] {
                                            return dup2(ends[1], control_socket_number) >= 0;
                                        }});
    close(ends[1]);
    EXPECT_EQ(got.ending, "exit 1");
    EXPECT_EQ(fault_in(got.files, whole_fragments({})), "");
}

// Nobody reads the messages any more: the first one ends the run, as it does any filter's.
TEST(RealFault, AParentThatLeavesStandardErrorEndsTheRun)
{
    const short_programme programme = separate_programme();
    const run_result got = run_program({.arguments = programme.arguments,
                                        .input = {.bytes = programme.stream},
                                        .before_start = [] {
                                            int ends[2];
                                            return pipe(ends) == 0 && dup2(ends[1], 2) == 2 &&
                                                   close(ends[0]) == 0 && close(ends[1]) == 0;
                                        }});
    EXPECT_EQ(got.ending, "signal " + std::to_string(SIGPIPE));
    EXPECT_EQ(fault_in(got.files, whole_fragments({})), "");
}

} // namespace
