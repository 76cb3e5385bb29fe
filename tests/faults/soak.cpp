// soak PROGRAM CUTS: feeds a programme of few bytes and many hours as fast as the program takes it:
// a fragment of 5 s per cut, with the 33-bit clock wrapping as it will. On the way resident memory,
// descriptors and files are counted. Status 1, and why, unless all stay flat and every fragment is
// numbered in turn.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <unistd.h>

#include "tests/faults/child.hpp"
#include "tests/faults/presentation.hpp"
#include "tests/support/stream_builder.hpp"
#include "toolkit/pts_clock.hpp"

namespace
{

namespace fs = std::filesystem;

constexpr int64_t cut_step = 450000;
constexpr uint64_t backlog = 10;
constexpr uint64_t files_kept = backlog + 4; // listed, three unlisted, one being written
constexpr long descriptors_used = 5;         // the standard ones, a fragment and a playlist
constexpr size_t piece_bytes = 1 << 20;      // what is handed over at a time
constexpr size_t window_bytes = 8 << 20;     // the program's buffer, filled once ahead of the cuts

// The programme's packets, made once; each cut changes the times in them.
class endless_programme
{
public:
    endless_programme()
    {
        const byte_string keyframe = h264_keyframe({}, 20);
        const byte_string picture = h264_p_picture(20);
        keyframe_ = keyframe;
        picture_ = picture;
    }

    void append_cut(byte_string& out, int64_t cut)
    {
        const int64_t pts = 900000 + cut * cut_step;
        append(out,
               packets_.pes(0x101, build_pes({.pts = pts % pts_modulus, .payload = keyframe_})));
        append(out, packets_.pes(0x101, build_pes({.pts = (pts + cut_step / 2) % pts_modulus,
                                                   .payload = picture_})));
        append(out, packets_.pes(0x102, build_pes({.stream_id = 0xC0,
                                                   .length = pes_length::true_length,
                                                   .pts = pts % pts_modulus,
                                                   .payload = byte_string(60, 0x5A)})));
    }

private:
    byte_string keyframe_;
    byte_string picture_;
    packetiser packets_;
};

struct sample {
    long resident_kb = 0;
    long descriptors = 0;
    uint64_t fragments = 0;
    uint64_t first = 0; // numbers of the oldest and the newest fragment
    uint64_t last = 0;
};

long resident_kb(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string word; status >> word;) {
        long kb = 0;
        if (word == "VmRSS:" && status >> kb)
            return kb;
    }
    return 0;
}

// The program stands still meanwhile, so that all is seen at one instant.
sample take_sample(const child& run, const fs::path& directory)
{
    run.stop();
    const pid_t pid = run.pid();
    sample s{.resident_kb = resident_kb(pid), .first = UINT64_MAX};
    const fs::path descriptors = "/proc/" + std::to_string(pid) + "/fd";
    s.descriptors = std::distance(fs::directory_iterator(descriptors), fs::directory_iterator());
    for (const auto& entry : fs::directory_iterator(directory)) {
        const std::string name = entry.path().filename();
        if (!name.ends_with(".ts"))
            continue;
        const uint64_t number = std::stoull(name.substr(name.find('.') + 1));
        s.fragments++;
        s.first = std::min(s.first, number);
        s.last = std::max(s.last, number);
    }
    run.resume();
    return s;
}

// In the middle of a cut the oldest fragment is gone, and the next one not there yet.
bool is_steady(const sample& now, const sample& start)
{
    return now.resident_kb <= start.resident_kb + 1024 && now.descriptors <= descriptors_used &&
           (now.fragments == files_kept || now.fragments == files_kept - 1) &&
           now.last - now.first + 1 == now.fragments;
}

void print(const char* when, const sample& s)
{
    std::printf("%-10s %ld kB resident, %ld descriptors, %llu fragments, %llu to %llu\n", when,
                s.resident_kb, s.descriptors, static_cast<unsigned long long>(s.fragments),
                static_cast<unsigned long long>(s.first), static_cast<unsigned long long>(s.last));
    std::fflush(stdout);
}

int fail(const char* why)
{
    std::printf("%s\n", why);
    return 1;
}

// The end: the newest fragment is the last cut's, and those before it have its predecessors'
// numbers and are listed.
bool is_complete(const fs::path& directory, uint64_t cuts)
{
    const byte_string bytes = read_file(directory / "ch1.m3u8.av.m3u8");
    const auto listed = parse_media_playlist({bytes.begin(), bytes.end()});
    if (!listed || listed->names.size() != backlog || listed->first_sequence != cuts - 1 - backlog)
        return false;
    uint64_t number = cuts - 1 - files_kept + 1;
    for (; number < cuts; number++) {
        char name[64];
        std::snprintf(name, sizeof(name), "ch1.%08llu.ts", static_cast<unsigned long long>(number));
        if (!fs::exists(directory / name))
            return false;
    }
    return true;
}

int soak(const std::string& program, int64_t cuts)
{
    const scratch_directory scratch;
    child run(program, {"--start-pat-pmt"}, scratch.path(), piece_bytes);
    run.feed(stream_builder().start_up().null_until(window_bytes + (window_bytes / 2)).bytes());

    endless_programme programme;
    byte_string piece;
    sample start;
    const int64_t settled = 7000; // all that is read ahead, and a backlog
    const int64_t sample_step = std::max<int64_t>(cuts / 40, 500);
    for (int64_t cut = 0; cut < cuts; cut++) {
        programme.append_cut(piece, cut);
        if (piece.size() >= piece_bytes || cut == cuts - 1) {
            if (!run.feed(piece))
                return fail("the program has ended");
            piece.clear();
        }
        if (cut < settled || cut % sample_step != 0)
            continue;
        const sample now = take_sample(run, scratch.path());
        if (start.fragments == 0)
            print("settled", start = now);
        if (!is_steady(now, start)) {
            print("not steady", now);
            return 1;
        }
    }
    print("at the end", take_sample(run, scratch.path()));
    if (run.finish() != 0)
        return fail("no normal end");
    if (!is_complete(scratch.path(), static_cast<uint64_t>(cuts)))
        return fail("fragments are missing, or not numbered in turn");
    const double hours = static_cast<double>(cuts * cut_step) / 90000 / 3600;
    std::printf("%lld fragments, %.1f h, %lld wraps of the clock\n", static_cast<long long>(cuts),
                hours, static_cast<long long>((900000 + cuts * cut_step) / pts_modulus));
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: soak PROGRAM CUTS\n");
        return 1;
    }
    return soak(argv[1], std::strtoll(argv[2], nullptr, 10));
}
