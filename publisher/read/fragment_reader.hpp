// Reads the fragments of one run in one pass, packet by packet, and takes them apart into GOPs.
//
// Bytes are handed over as they come, also of a fragment that still grows: a GOP is given out when
// the next one begins or its fragment ends. What a fragment holds is not trusted: a packet that is
// none is passed over, counts are bounded, and nothing is remembered by the packet.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "publisher/read/gop.hpp"
#include "publisher/read/picture.hpp"
#include "publisher/read/tables.hpp"
#include "toolkit/ts/section_gatherer.hpp"

// A place in an audio fragment where it may be cut.
struct audio_point {
    uint64_t offset = 0;
    int64_t pts = 0;
};

class fragment_reader
{
public:
    // A GOP that lasts longer than this is taken apart at pictures that are no keyframes.
    explicit fragment_reader(int64_t longest_gop) : longest_gop_(longest_gop) {}

    // Tells the content of GOPs, which takes a look at every byte of the pictures.
    void tell_contents() { tells_contents_ = true; }

    // The PID of the splice information; 0: the PMT says it.
    void read_splices_of(uint16_t pid) { told_splice_pid_ = pid; }

    // The next fragment of the run begins. What earlier ones taught is kept.
    void begin_fragment();

    // The fragment's next bytes. Those of an unfinished packet must be handed over again.
    // Returns how many were taken: whole packets.
    size_t read(std::span<const uint8_t> bytes);

    // No more of this fragment will come.
    void end_fragment();

    // GOPs that are complete, oldest first.
    [[nodiscard]] bool has_gop() const { return !complete_.empty(); }
    [[nodiscard]] gop take_gop();
    [[nodiscard]] const gop& next_gop() const { return complete_.front(); }
    // Ticks that all of them last.
    [[nodiscard]] int64_t queued_length() const;

    // Where the GOP being read begins, as far as that is known; -1: not yet.
    [[nodiscard]] int64_t current_start() const { return begun_ ? current_.start : -1; }

    // Whether the fragment before this one lost packets at its end, as far as is known. It shows in
    // the first packet here of the picture and of each sound; sound whose last PES packet has come
    // to its end is not waited for, since what would be missing is all of another one.
    [[nodiscard]] bool lost_before_fragment() const { return lost_before_fragment_; }
    [[nodiscard]] bool knows_end_before() const;

    // Bytes of this fragment taken so far.
    [[nodiscard]] uint64_t offset() const { return offset_; }

    // Whether the streams of the programme are known, without which no GOP is found.
    [[nodiscard]] bool knows_tables() const { return tables_.complete; }
    [[nodiscard]] const fragment_tables& tables() const { return tables_; }

    // The tables of a fragment that is read anew afterwards: where they stand behind its first
    // keyframe, the first reading learns them.
    void learn_tables(std::span<const uint8_t> bytes);

    // PES starts of the first audio stream in this fragment, while there is no video.
    [[nodiscard]] const std::vector<audio_point>& audio_points() const { return points_; }

private:
    struct elementary_stream {
        uint16_t pid = 0; // 0: none
        uint8_t stream_type = 0;
    };
    struct audio_stream {
        elementary_stream stream;
        audio_facts facts;
        std::string format;    // what of the header is part of the layout
        int64_t pes_lacks = 0; // bytes of its latest PES packet that are still to come
        bool seen_in_gop = false;
        bool seen_in_fragment = false;
        bool pes_began = false;        // one, in the fragment
        bool heard_in_gop = false;     // a PES packet came to its end
        bool heard_in_picture = false; // the same since the latest picture began
    };

    void take_packet(uint8_t* packet);
    bool count_errors(const mpeg_ts_packet& pkt);
    void take_errors_of_picture();
    void choose_streams();
    void take_video_packet(const mpeg_ts_packet& pkt, bool behind_gap);
    void note_first_packet(bool& seen, bool behind_gap);
    [[nodiscard]] bool has_sound() const;
    void take_audio_packet(const mpeg_ts_packet& pkt, bool behind_gap);
    static bool follow_pes(audio_stream& stream, const mpeg_ts_packet& pkt);
    void take_date_packet(const mpeg_ts_packet& pkt);
    void take_splice_packet(const mpeg_ts_packet& pkt);
    void finish_picture();
    void note_picture_end();
    void add_content(uint64_t& content, const uint8_t* p, const uint8_t* end) const;
    void take_content_of_picture();
    void take_frame(uint64_t offset, int64_t pts, bool keyframe, bool independent);
    void begin_gop(uint64_t offset, int64_t pts, bool keyframe, bool independent);
    void describe_gop();
    void finish_gop(uint64_t end);
    [[nodiscard]] std::string layout() const;

    static constexpr size_t picture_bytes = 8192; // of a picture's beginning that are looked at

    int64_t longest_gop_;
    std::deque<gop> complete_;
    uint64_t offset_ = 0;
    fragment_tables tables_;
    std::string tables_layout_; // what of them is part of the layout

    elementary_stream video_;
    uint16_t told_splice_pid_ = 0; // where the PMT does not say it; 0: it does
    uint16_t splice_pid_ = 0;      // 0: none
    bool video_is_h264_ = false;
    bool tells_contents_ = false;
    std::vector<audio_stream> audio_;
    ts_section_gatherer splice_sections_;
    std::array<uint8_t, 8192> counters_ = filled_counters();
    int64_t pcr_ = -1; // 90 kHz

    // The picture whose beginning is gathered.
    bool picture_open_ = false;
    uint64_t picture_offset_ = 0;
    uint64_t video_end_ = 0;        // of the latest packet with video
    bool picture_is_whole_ = false; // as far as that packet says
    std::array<uint8_t, picture_bytes> picture_{};
    size_t picture_size_ = 0;
    uint64_t picture_content_ = 0;
    uint64_t picture_continuity_errors_ = 0; // since its first packet, of all streams
    uint64_t picture_transport_errors_ = 0;
    h264_parameter_sets sets_;
    video_facts format_;
    std::string headers_;
    caption_facts captions_;

    // The GOP that is read.
    gop current_;
    bool begun_ = false;
    bool skipping_ = false; // its time stamps jumped: nothing is taken until a keyframe
    bool video_seen_in_fragment_ = false;
    bool lost_before_fragment_ = false;
    int64_t latest_ = 0;           // ticks from its start to its latest picture
    int64_t latest_before_ = 0;    // the same when the last one in decoding order had not begun
    bool sound_is_before_ = false; // and whether all sound had
    int64_t previous_ = 0;         // the same of the picture before in decoding order
    uint64_t frames_ = 0;      // pictures or audio frames at or behind its start; 0: only the time
                               // of the first picture is known yet
    uint64_t tables_seen_ = 0; // PAT and PMT packets at the fragment's very start, in this order
    std::optional<date_mark> date_;
    std::vector<splice_cue> splices_;
    std::vector<audio_point> points_;

    static constexpr uint8_t no_counter = 0xFF;
    static constexpr std::array<uint8_t, 8192> filled_counters()
    {
        std::array<uint8_t, 8192> counters{};
        counters.fill(no_counter);
        return counters;
    }
};
