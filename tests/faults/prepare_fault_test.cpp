// vorn_ts_prepare where every second call is interrupted, or does a part of what was asked.

#include <array>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/clocked_stream.hpp"
#include "tests/support/scratch_directory.hpp"

namespace
{

constexpr int64_t second = 90000;

// Its exit status, -1 for a signal.
int run_shell(std::string command)
{
    std::array<std::string, 2> words{"sh", "-c"};
    std::array<char*, 4> argv{words[0].data(), words[1].data(), command.data(), nullptr};
    const pid_t pid = fork();
    if (pid == 0) {
        execv("/bin/sh", argv.data());
        _exit(98);
    }
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class PrepareFault : public testing::TestWithParam<const char*>
{
};

TEST_P(PrepareFault, LosesNothing)
{
    const scratch_directory scratch;
    const std::string input = scratch.path() / "input";
    const std::string output = scratch.path() / "output";
    clocked_stream stream;
    stream.tables().frames(10 * second, 250);
    std::ofstream(input, std::ios::binary)
        .write(reinterpret_cast<const char*>(stream.bytes.data()),
               static_cast<std::streamsize>(stream.bytes.size()));

    const std::string command = "cat '" + input + "' | (VORN_BAD_CALLS=" + GetParam() +
                                " LD_PRELOAD='" VORN_PREPARE_INTERPOSER "' '" TS_PREPARE
                                "'; echo $? > '" +
                                output + ".status') | cat > '" + output + "'";
    ASSERT_EQ(run_shell(command), 0);

    int status = -1;
    std::ifstream(output + ".status") >> status;
    EXPECT_EQ(status, 0);
    std::ifstream file(output, std::ios::binary);
    const byte_string got{std::istreambuf_iterator<char>(file), {}};
    EXPECT_EQ(packets_without_pids(got, {0, 0x1000, null_pid}),
              packets_without_pids(stream.bytes, {0, 0x1000}));
    EXPECT_EQ(got.size() % packet_bytes, 0U);
    EXPECT_FALSE(packets_of_pid(got, null_pid).empty());
}

INSTANTIATE_TEST_SUITE_P(Calls, PrepareFault, testing::Values("interrupted", "again", "short"),
                         [](const auto& which) { return std::string(which.param); });

} // namespace
