// Starts vorn_mpegts_to_hls on this process's standard input and sends it one caption: "Hello", in
// English, from stream time 10 s to 12 s. The arguments are passed on.
//
//     c++ -std=c++20 send_cue.cpp $(pkg-config --cflags --libs vorn_control_socket) -o send_cue
//     ./send_cue --frag-duration 3 < stream.ts

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include <toolkit/comm/comm_packet_builder.hpp>
#include <toolkit/comm/comm_sender.hpp>

namespace
{

bool build_cue(comm_packet_builder& cue)
{
    constexpr int64_t start_ms = 10000;
    constexpr int64_t end_ms = 12000;
    constexpr uint64_t ticks_per_ms = 90;
    return cue.begin("vtt") && cue.add_uint64("service", 1) && cue.add_text("language", "eng") &&
           cue.add_int64("start", start_ms) && cue.add_int64("end", end_ms) &&
           cue.add_int64("now", start_ms) &&
           cue.add_uint64("mpeg timestamp", start_ms * ticks_per_ms) &&
           cue.add_text("text", "Hello");
}

// Does not come back, unless the program is not there.
void become_program(int receivers_end, int argc, char** argv)
{
    if (!comm_keep_across_exec(receivers_end))
        return;
    std::string name = "vorn_mpegts_to_hls";
    std::string option = "--anon-sock";
    std::string number = std::to_string(receivers_end);
    std::vector<char*> arguments = {name.data(), option.data(), number.data()};
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    arguments.push_back(nullptr);
    execvp(name.c_str(), arguments.data());
}

} // namespace

int main(int argc, char** argv)
{
    comm_sender sender;
    int receivers_end = -1;
    comm_packet_builder cue;
    if (!comm_sender_open(sender, receivers_end) || !build_cue(cue)) {
        std::perror("send_cue");
        return 1;
    }

    const pid_t child = fork();
    if (child == 0) {
        become_program(receivers_end, argc, argv);
        std::perror("send_cue: vorn_mpegts_to_hls");
        _exit(127);
    }
    close(receivers_end); // or the program's death would go unnoticed
    if (child < 0) {
        std::perror("send_cue: fork");
        return 1;
    }
    if (sender.send(cue.packet()) == comm_send_result::failed)
        std::perror("send_cue: send"); // were the program gone, its status would tell

    // The program takes a socket that closes for a reason to end, so it stays open until then.
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
