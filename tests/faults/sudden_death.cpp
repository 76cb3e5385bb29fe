// sudden_death PROGRAM INSTANTS: kills the program after so many bytes of its input, that many
// times over, each time further into the stream, and starts it again in the same directory, every
// other time with --clear-old. A reader beside it takes up every playlist at every change, and
// every fragment that it lists. Status 1 and a line for each fault that it sees.

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <thread>
#include <tuple>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "tests/faults/child.hpp"
#include "tests/faults/presentation.hpp"
#include "tests/support/stream_builder.hpp"

namespace
{

constexpr int cuts = 60;
constexpr size_t pipe_bytes = 4096; // the program is hardly behind what it was fed
const std::vector<std::string> options = {"--start-pat-pmt", "--separate-streams", "--sap",
                                          "--frag-backlog", "3"};

// The program keeps so much unread behind the packet in hand: as much padding at the end lets it
// reach the last cut while its input still goes on.
constexpr size_t look_ahead_bytes = 8192 * packet_bytes;

byte_string long_stream()
{
    stream_builder stream({.sap = audio_codec::aac});
    stream.start_up();
    for (int64_t pts = 900000; pts < 900000 + cuts * 450000; pts += 450000)
        stream.keyframe(pts, 4000).audio(pts, 1500).sap(pts, 1500);
    return stream.null_until(stream.mark() + look_ahead_bytes).bytes();
}

std::optional<byte_string> content_of(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return std::nullopt;
    return byte_string{std::istreambuf_iterator<char>(file), {}};
}

class reader
{
public:
    reader(std::filesystem::path directory, const whole_fragments& whole)
        : directory_(std::move(directory)), whole_(whole), notices_(inotify_init1(IN_NONBLOCK)),
          stop_(eventfd(0, 0))
    {
        inotify_add_watch(notices_, directory_.c_str(), IN_MOVED_TO);
        thread_ = std::thread([this] { watch(); });
    }
    ~reader()
    {
        const uint64_t one = 1;
        std::ignore = write(stop_, &one, sizeof(one));
        thread_.join();
        close(notices_);
        close(stop_);
    }
    reader(const reader&) = delete;
    reader& operator=(const reader&) = delete;

    // Reads the playlist and every fragment that it lists.
    void read_playlist(const std::string& name)
    {
        const auto bytes = content_of(directory_ / name);
        if (!bytes)
            return; // cleared
        playlists_++;
        const std::string text(bytes->begin(), bytes->end());
        if (is_master_playlist(text))
            return;
        const auto listed = parse_media_playlist(text);
        if (!listed)
            return report(name + " is torn:\n" + text);
        for (const std::string& fragment : listed->names) {
            fragments_++;
            const auto content = content_of(directory_ / fragment);
            if ((!content || !whole_.contains(fragment, *content)) && still_lists(name, fragment))
                report(name + " lists " + fragment +
                       (content ? ", which is not whole" : ", which is not there"));
        }
    }

    std::atomic<unsigned long> playlists_ = 0;
    std::atomic<unsigned long> fragments_ = 0;
    std::atomic<unsigned long> faults_ = 0;

private:
    // A slow reader may hold a playlist that has been replaced since; what was gone then was so by
    // right. A fragment's number does not come back while the playlist of its run is there.
    bool still_lists(const std::string& name, const std::string& fragment)
    {
        const auto bytes = content_of(directory_ / name);
        if (!bytes)
            return false;
        const auto listed = parse_media_playlist({bytes->begin(), bytes->end()});
        return !listed || std::find(listed->names.begin(), listed->names.end(), fragment) !=
                              listed->names.end();
    }

    void report(const std::string& fault)
    {
        faults_++;
        std::printf("%s\n", fault.c_str());
    }

    void watch()
    {
        pollfd fds[] = {{notices_, POLLIN, 0}, {stop_, POLLIN, 0}};
        while (poll(fds, 2, -1) > 0) {
            take_notices();
            if (fds[1].revents != 0)
                return;
        }
    }

    void take_notices()
    {
        alignas(inotify_event) char buffer[16384];
        ssize_t size = 0;
        while ((size = read(notices_, buffer, sizeof(buffer))) > 0) {
            for (const char* p = buffer; p < buffer + size;) {
                const auto* notice = reinterpret_cast<const inotify_event*>(p);
                if (notice->len > 0 && is_playlist(notice->name))
                    read_playlist(notice->name);
                p += sizeof(inotify_event) + notice->len;
            }
        }
    }

    std::filesystem::path directory_;
    const whole_fragments& whole_;
    int notices_;
    int stop_;
    std::thread thread_;
};

whole_fragments undisturbed(const std::string& program, const byte_string& stream)
{
    const scratch_directory scratch;
    std::vector<std::string> arguments = options;
    arguments.back() = "1000";
    child run(program, arguments, scratch.path(), pipe_bytes);
    run.feed(stream);
    if (run.finish() != 0)
        std::abort();
    return whole_fragments(scratch.files());
}

int kill_at(const std::string& program, unsigned instants)
{
    const byte_string stream = long_stream();
    const whole_fragments whole = undisturbed(program, stream);
    const scratch_directory scratch;
    reader player(scratch.path(), whole);
    const size_t first = start_up_fill_bytes + look_ahead_bytes; // the first keyframe's turn
    unsigned with_fragments = 0;
    for (unsigned i = 1; i <= instants; i++) {
        std::vector<std::string> arguments = options;
        if (i % 2 == 0)
            arguments.emplace_back("--clear-old");
        child run(program, arguments, scratch.path(), pipe_bytes);
        const size_t bytes = first + (stream.size() - first) * i / instants;
        run.feed(std::span(stream).first(bytes));
        run.kill();

        bool any = false;
        for (const auto& [name, content] : scratch.files()) {
            any = any || name.ends_with(".ts");
            if (is_playlist(name))
                player.read_playlist(name);
        }
        with_fragments += any ? 1 : 0;
    }
    std::printf("%u instants, %u of them with fragments there; %lu playlists and %lu listed "
                "fragments read; %lu faults\n",
                instants, with_fragments, player.playlists_.load(), player.fragments_.load(),
                player.faults_.load());
    return player.faults_ == 0 && player.fragments_ > 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: sudden_death PROGRAM INSTANTS\n");
        return 1;
    }
    return kill_at(argv[1], static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)));
}
