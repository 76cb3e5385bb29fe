#include "publisher/read/fragment_reader.hpp"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <tuple>

#include "publisher/read/audio_header.hpp"
#include "publisher/read/date_table.hpp"
#include "toolkit/pes/pes_scanner.hpp"
#include "toolkit/pts_clock.hpp"
#include "toolkit/ts/program_map.hpp"

namespace
{

// Time stamps of neighbouring pictures or frames lie closer together than this; further apart they
// are a jump of the clock.
constexpr int64_t longest_step = 2 * pts_ticks_per_second;

constexpr int64_t usual_frame = pts_ticks_per_second / 25;

// More PES packets than a fragment that the segmenter lets grow to its limit can hold.
constexpr size_t most_audio_points = 1 << 17;

constexpr size_t most_audio_streams = 8;

// PES_packet_length and what stands before it, ISO/IEC 13818-1, 2.4.3.6.
constexpr size_t pes_length_end = 6;
constexpr int64_t unknown_length = INT64_MAX;

// Of a GOP: a section is sent a few times, and more make no sense to a player.
constexpr size_t most_splices = 32;

// No more than telling contents apart is asked of it, at little cost for each byte.
uint64_t mixed(uint64_t hash, std::span<const uint8_t> bytes)
{
    constexpr uint64_t multiplier = 0x9E3779B97F4A7C15;
    const auto add = [&hash](uint64_t word) {
        hash = (hash ^ word) * multiplier;
        hash ^= hash >> 32;
    };
    for (; bytes.size() >= sizeof(uint64_t); bytes = bytes.subspan(sizeof(uint64_t))) {
        uint64_t word = 0;
        std::memcpy(&word, bytes.data(), sizeof(word));
        add(word);
    }
    for (const uint8_t byte : bytes)
        add(byte);
    return hash;
}

bool is_mpeg_video(uint8_t stream_type)
{
    return stream_type == stream_type_mpeg1_video || stream_type == stream_type_mpeg2_video;
}

bool is_h264(uint8_t stream_type)
{
    return stream_type == stream_type_h264;
}

bool is_mpeg_audio(uint8_t stream_type)
{
    return stream_type == stream_type_mpeg1_audio || stream_type == stream_type_mpeg2_audio;
}

bool is_adts(uint8_t stream_type)
{
    return stream_type == stream_type_aac_adts;
}

// Stuffing fills the packet in which a PES packet ends, and no other, ISO/IEC 13818-1, 2.4.3.5. A
// PES packet that happens to fill its last packet ends without it.
bool has_stuffing(const mpeg_ts_packet& pkt)
{
    if ((pkt.adaptation_field_control & ts_adaptation_field_bit) == 0)
        return false;
    const uint8_t* const field = pkt.raw + 4;
    const size_t length = field[0];
    if (length == 0 || field[1] == 0)
        return true;
    const uint8_t flags = field[1];
    const bool is_of_any_length = (flags & 0x03) != 0; // private data, extension
    const size_t needed =
        1u + (flags & 0x10 ? 6 : 0) + (flags & 0x08 ? 6 : 0) + (flags & 0x04 ? 1 : 0);
    return !is_of_any_length && length > needed;
}

// The time stamp and the payload of a PES packet that begins at `p`; no time stamp where the header
// is not whole or not sound.
std::pair<int64_t, const uint8_t*> read_pes_header(const uint8_t* p, const uint8_t* end)
{
    mpeg_pes pes;
    std::ignore = mpeg_pes_scan(&pes, p, end);
    if (pes.packet_start != p || pes.payload == nullptr || pes.payload > end)
        return {-1, nullptr};
    return {pes.pts, pes.payload};
}

} // namespace

void fragment_reader::begin_fragment()
{
    offset_ = 0;
    begun_ = false;
    picture_open_ = false;
    picture_offset_ = 0;
    video_end_ = 0;
    picture_content_ = 0;
    picture_continuity_errors_ = 0;
    picture_transport_errors_ = 0;
    tables_seen_ = 0;
    video_seen_in_fragment_ = false;
    lost_before_fragment_ = false;
    for (audio_stream& stream : audio_) {
        stream.seen_in_fragment = false;
        stream.pes_began = false;
    }
    points_.clear();
    skipping_ = false;
}

size_t fragment_reader::read(std::span<const uint8_t> bytes)
{
    size_t taken = 0;
    while (bytes.size() - taken >= ts_packet_bytes) {
        // The decoder's view is writable; it is not written to here.
        take_packet(const_cast<uint8_t*>(bytes.data() + taken));
        taken += ts_packet_bytes;
        offset_ += ts_packet_bytes;
    }
    return taken;
}

void fragment_reader::learn_tables(std::span<const uint8_t> bytes)
{
    mpeg_ts_packet pkt;
    for (; bytes.size() >= ts_packet_bytes && !tables_.complete;
         bytes = bytes.subspan(ts_packet_bytes)) {
        if (mpeg_ts_decode(pkt, const_cast<uint8_t*>(bytes.data()), ts_packet_bytes) == 0 ||
            pkt.transport_error_indicator)
            continue;
        if (pkt.pid == ts_pat_pid || (tables_.pmt_pid != 0 && pkt.pid == tables_.pmt_pid))
            std::ignore = take_table_packet(tables_, pkt);
    }
    choose_streams();
}

void fragment_reader::take_packet(uint8_t* packet)
{
    mpeg_ts_packet pkt;
    if (mpeg_ts_decode(pkt, packet, ts_packet_bytes) == 0) {
        current_.transport_errors++;
        picture_transport_errors_++;
        return;
    }
    if (pkt.transport_error_indicator) {
        current_.transport_errors++;
        picture_transport_errors_++;
        return; // not even its PID can be relied on
    }
    if (pkt.pid == ts_null_pid)
        return;
    if (pkt.pid == ts_pat_pid || (tables_.pmt_pid != 0 && pkt.pid == tables_.pmt_pid)) {
        if (take_table_packet(tables_, pkt)) {
            // They come before the pictures that they are for.
            if (begun_ && frames_ > 0)
                describe_gop();
            choose_streams();
        }
        const bool is_pmt = pkt.pid != ts_pat_pid;
        if (offset_ == tables_seen_ * ts_packet_bytes && is_pmt == (tables_seen_ > 0))
            tables_seen_++;
        return;
    }
    const bool behind_gap = count_errors(pkt);
    if (pkt.pid == video_.pid)
        take_video_packet(pkt, behind_gap);
    else if (pkt.pid == date_table_pid)
        take_date_packet(pkt);
    else if (splice_pid_ != 0 && pkt.pid == splice_pid_)
        take_splice_packet(pkt);
    else
        take_audio_packet(pkt, behind_gap);
}

// The counter of a PID goes up with each packet that has a payload. A packet may come twice, and
// the stream may announce that the count begins anew, ISO/IEC 13818-1, 2.4.3.3. True: packets of
// its PID are missing before this one.
bool fragment_reader::count_errors(const mpeg_ts_packet& pkt)
{
    mpeg_ts_packet details = pkt;
    if (pkt.adaptation_field_control & ts_adaptation_field_bit) {
        mpeg_ts_decode_adaptation_field(details);
        if (details.pcr >= 0 && pkt.pid == tables_.pcr_pid)
            pcr_ = (details.pcr / 300) & (pts_modulus - 1);
    }
    if (pkt.payload == nullptr)
        return false;
    uint8_t& last = counters_[pkt.pid];
    const bool goes_on = last == no_counter || pkt.continuity_counter == last ||
                         pkt.continuity_counter == ((last + 1) & 0x0F);
    last = pkt.continuity_counter;
    if (goes_on || details.discontinuity_indicator)
        return false;
    current_.continuity_errors++;
    picture_continuity_errors_++;
    return true;
}

// The streams that the segmenter follows: the first video, and audio of the kinds that it knows.
void fragment_reader::choose_streams()
{
    tables_layout_ = std::to_string(tables_.program_number);
    tables_layout_ += ' ' + std::to_string(tables_.pmt_pid) + ' ' + std::to_string(tables_.pcr_pid);
    for (const table_stream& stream : tables_.streams)
        tables_layout_ +=
            ' ' + std::to_string(stream.stream_type) + ':' + std::to_string(stream.pid);

    elementary_stream video;
    std::vector<audio_stream> audio;
    const uint16_t splice_pid_before = std::exchange(splice_pid_, told_splice_pid_);
    for (const table_stream& stream : tables_.streams) {
        const elementary_stream chosen{.pid = stream.pid, .stream_type = stream.stream_type};
        if (is_h264(stream.stream_type) || is_mpeg_video(stream.stream_type)) {
            if (video.pid == 0)
                video = chosen;
        } else if (stream.splices) {
            if (splice_pid_ == 0)
                splice_pid_ = stream.pid;
        } else if ((is_mpeg_audio(stream.stream_type) || is_adts(stream.stream_type)) &&
                   audio.size() < most_audio_streams) {
            audio_stream added{.stream = chosen, .facts = {}, .format = {}};
            for (const audio_stream& known : audio_) {
                if (known.stream.pid == chosen.pid &&
                    known.stream.stream_type == chosen.stream_type)
                    added = known;
            }
            added.facts.language = stream.language;
            audio.push_back(std::move(added));
        }
    }
    if (video.pid != video_.pid || video.stream_type != video_.stream_type) {
        sets_ = {};
        format_ = {};
        headers_.clear();
        picture_open_ = false;
    }
    if (splice_pid_ != splice_pid_before)
        splice_sections_ = {.section = {}, .takes_short_form = true, .complete = {}};
    video_ = video;
    video_is_h264_ = is_h264(video.stream_type);
    audio_ = std::move(audio);
}

void fragment_reader::take_video_packet(const mpeg_ts_packet& pkt, bool behind_gap)
{
    if (pkt.payload == nullptr)
        return;
    note_first_packet(video_seen_in_fragment_, behind_gap);
    const uint8_t* content = pkt.payload;
    if (pkt.payload_unit_start) {
        finish_picture();
        note_picture_end();
        take_content_of_picture();
        picture_open_ = true;
        picture_offset_ = offset_;
        latest_before_ = latest_;
        sound_is_before_ = has_sound();
        for (audio_stream& stream : audio_)
            stream.heard_in_picture = false;
        picture_size_ = 0;
        picture_continuity_errors_ = 0;
        picture_transport_errors_ = 0;
        // The first picture of a fragment begins a GOP whatever it is: the segmenter cut there. Its
        // time is what the GOP before it waits for, so it is not gathered first.
        const auto [pts, payload] = read_pes_header(pkt.payload, pkt.payload_end);
        content = payload;
        if (!begun_ && !skipping_ && pts >= 0) {
            if (behind_gap)
                current_.continuity_errors--; // it hurt what came before
            begin_gop(0, pts, false, false);
            frames_ = 0;
        }
    }
    if (content != nullptr)
        add_content(picture_content_, content, pkt.payload_end);
    video_end_ = offset_ + ts_packet_bytes;
    picture_is_whole_ = has_stuffing(pkt);
    if (!picture_open_)
        return;
    const auto count = std::min<size_t>(picture_.size() - picture_size_,
                                        static_cast<size_t>(pkt.payload_end - pkt.payload));
    std::memcpy(picture_.data() + picture_size_, pkt.payload, count);
    picture_size_ += count;
    if (picture_size_ == picture_.size())
        finish_picture();
}

void fragment_reader::finish_picture()
{
    if (!picture_open_)
        return;
    picture_open_ = false;
    const uint8_t* const end = picture_.data() + picture_size_;
    const auto [pts, payload] = read_pes_header(picture_.data(), end);
    if (pts < 0)
        return;

    const std::span<const uint8_t> bytes{payload, end};
    const picture_facts picture = video_is_h264_ ? read_h264_picture(bytes, sets_, captions_)
                                                 : read_mpeg_picture(bytes, captions_);
    // It may end the GOP before it, to which its headers are not of interest.
    take_frame(picture_offset_, pts, picture.keyframe, picture.independent);
    if (picture.has_headers && (picture.keyframe || headers_.empty())) {
        format_ = picture.format;
        headers_ = picture.headers;
    }
}

// The latest packet with video was the picture's last: another picture begins, or nothing follows.
void fragment_reader::note_picture_end()
{
    if (begun_ && video_.pid != 0 && current_.picture_begin == picture_offset_)
        current_.picture_end = video_end_;
}

void fragment_reader::note_first_packet(bool& seen, bool behind_gap)
{
    lost_before_fragment_ = lost_before_fragment_ || (behind_gap && !seen);
    seen = true;
}

bool fragment_reader::knows_end_before() const
{
    return (video_seen_in_fragment_ || video_.pid == 0) &&
           std::all_of(audio_.begin(), audio_.end(), [](const audio_stream& stream) {
               return stream.seen_in_fragment || stream.pes_lacks == 0;
           });
}

// All sound that has been heard before, in this GOP too.
bool fragment_reader::has_sound() const
{
    return std::all_of(audio_.begin(), audio_.end(), [](const audio_stream& stream) {
        return stream.heard_in_gop || stream.format.empty();
    });
}

// How far the PES packet has come that the packet belongs to. One that stands in a single packet
// says nothing: the loss of a packet may take another like it. True: one that began in the fragment
// has come to its end.
bool fragment_reader::follow_pes(audio_stream& stream, const mpeg_ts_packet& pkt)
{
    const auto size = pkt.payload_end - pkt.payload;
    if (!pkt.payload_unit_start) {
        stream.pes_lacks -= size;
        return stream.pes_began && stream.pes_lacks <= 0;
    }
    int64_t length = 0; // of what follows the field; 0: not said
    if (std::cmp_greater_equal(size, pes_length_end))
        length = pkt.payload[pes_length_end - 2] << 8 | pkt.payload[pes_length_end - 1];
    const int64_t lacks = static_cast<int64_t>(pes_length_end) + length - size;
    stream.pes_lacks = length > 0 && lacks > 0 ? lacks : unknown_length;
    return std::exchange(stream.pes_began, true) || (length > 0 && lacks <= 0);
}

void fragment_reader::add_content(uint64_t& content, const uint8_t* p, const uint8_t* end) const
{
    if (tells_contents_)
        content = mixed(content, {p, end});
}

void fragment_reader::take_content_of_picture()
{
    if (begun_)
        current_.content = (current_.content ^ picture_content_) * 31;
    picture_content_ = 0;
}

// A picture is known for a keyframe when more of it has come: what was lost meanwhile is its own.
void fragment_reader::take_errors_of_picture()
{
    if (video_.pid == 0)
        return;
    gop& before = complete_.back();
    const uint64_t continuity = std::min(before.continuity_errors, picture_continuity_errors_);
    const uint64_t transport = std::min(before.transport_errors, picture_transport_errors_);
    before.continuity_errors -= continuity;
    before.transport_errors -= transport;
    current_.continuity_errors += continuity;
    current_.transport_errors += transport;
}

void fragment_reader::take_audio_packet(const mpeg_ts_packet& pkt, bool behind_gap)
{
    if (pkt.payload == nullptr)
        return;
    const auto stream =
        std::find_if(audio_.begin(), audio_.end(), [&pkt](const audio_stream& candidate) {
            return candidate.stream.pid == pkt.pid;
        });
    if (stream == audio_.end())
        return;
    note_first_packet(stream->seen_in_fragment, behind_gap);
    if (follow_pes(*stream, pkt)) {
        stream->heard_in_gop = true;
        stream->heard_in_picture = true;
    }
    if (!pkt.payload_unit_start) {
        if (video_.pid == 0 && stream == audio_.begin() && begun_)
            add_content(current_.content, pkt.payload, pkt.payload_end);
        return;
    }
    const auto [pts, payload] = read_pes_header(pkt.payload, pkt.payload_end);
    if (payload == nullptr)
        return;
    if (!stream->seen_in_gop) {
        const std::span<const uint8_t> bytes{payload, pkt.payload_end};
        const auto format = is_adts(stream->stream.stream_type) ? find_adts_header(bytes)
                                                                : find_mpeg_audio_header(bytes);
        if (format) {
            stream->seen_in_gop = true;
            stream->facts.codec = format->codec;
            stream->facts.channels = format->channels;
            stream->format = format->codec + "/" + std::to_string(format->sample_rate) + "/" +
                             std::to_string(format->channels) + "/" + std::to_string(format->layer);
        }
    }
    if (video_.pid == 0 && stream == audio_.begin() && pts >= 0) {
        if (points_.size() < most_audio_points)
            points_.push_back({.offset = offset_, .pts = pts});
        take_frame(offset_, pts, true, true);
        add_content(current_.content, payload, pkt.payload_end);
    }
}

void fragment_reader::take_date_packet(const mpeg_ts_packet& pkt)
{
    if (pcr_ < 0 || date_)
        return;
    if (const auto unix_ms = read_date_table(pkt))
        date_ = date_mark{.clock = pcr_, .unix_ms = *unix_ms};
}

// What is to happen at once happens at the latest picture.
void fragment_reader::take_splice_packet(const mpeg_ts_packet& pkt)
{
    const int64_t now = begun_ ? stamp_sum(current_.start, latest_) : pcr_;
    ts_section_gatherer_take(splice_sections_, pkt);
    std::span<const uint8_t> rest = splice_sections_.complete;
    for (auto section = ts_next_section(rest); !section.empty(); section = ts_next_section(rest)) {
        for (splice_cue& told : read_splices(section)) {
            told.time = told.immediate ? now : told.time;
            if (told.time >= 0 && splices_.size() < most_splices)
                splices_.push_back(std::move(told));
        }
    }
}

// A picture, or an audio frame where there is no video, in decoding order.
void fragment_reader::take_frame(uint64_t offset, int64_t pts, bool keyframe, bool independent)
{
    if (!begun_) {
        if (skipping_ && !keyframe)
            return;
        begin_gop(skipping_ ? offset : 0, pts, keyframe, independent);
        return;
    }
    const int64_t since_start = stamp_distance(current_.start, pts);
    if (frames_ == 0) { // its own first picture, known by its time until now
        frames_ = 1;
        current_.keyframe = keyframe;
        current_.independent = independent;
        return;
    }
    const int64_t step = since_start - previous_;
    if (step > longest_step || step < -longest_step) {
        current_.cut_at_jump = !keyframe;
        finish_gop(offset);
        take_errors_of_picture();
        if (keyframe)
            begin_gop(offset, pts, true, independent);
        else
            skipping_ = true;
        return;
    }
    // Where a keyframe is missing for too long any picture that none shown later precedes will do.
    const bool too_long = since_start >= longest_gop_ && since_start > latest_;
    const bool begins = too_long || (keyframe && video_.pid != 0);
    if (begins && since_start != 0) {
        finish_gop(offset);
        take_errors_of_picture();
        begin_gop(offset, pts, keyframe, independent);
        return;
    }
    previous_ = since_start;
    if (since_start >= 0) {
        frames_++;
        latest_ = std::max(latest_, since_start);
    }
}

void fragment_reader::begin_gop(uint64_t offset, int64_t pts, bool keyframe, bool independent)
{
    const uint64_t continuity_errors = current_.continuity_errors;
    const uint64_t transport_errors = current_.transport_errors;
    current_ = gop{};
    current_.continuity_errors = continuity_errors;
    current_.transport_errors = transport_errors;
    current_.begin = offset;
    current_.picture_begin = video_.pid != 0 ? picture_offset_ : offset;
    current_.picture_end = current_.picture_begin;
    if (offset != 0 || tables_seen_ < 2) {
        current_.tables = tables_.pat_packets;
        current_.tables.insert(current_.tables.end(), tables_.pmt_packets.begin(),
                               tables_.pmt_packets.end());
    }
    current_.start = pts;
    current_.keyframe = keyframe;
    current_.independent = independent;
    begun_ = true;
    skipping_ = false;
    latest_ = 0;
    latest_before_ = 0;
    previous_ = 0;
    frames_ = 1;
}

std::string fragment_reader::layout() const
{
    std::string text = tables_layout_;
    for (const audio_stream& stream : audio_)
        text += ' ' + stream.format;
    text += ' ';
    constexpr std::string_view digits = "0123456789ABCDEF";
    for (const char c : headers_) {
        const auto byte = static_cast<unsigned char>(c);
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

// What the GOP holds, unless that was told before: its streams, and how they are coded.
void fragment_reader::describe_gop()
{
    if (!current_.layout.empty())
        return;
    current_.facts.video = video_.pid != 0 ? format_ : video_facts{};
    for (const audio_stream& stream : audio_)
        current_.facts.audio.push_back(stream.facts);
    current_.facts.captions = captions_;
    current_.layout = layout();
}

void fragment_reader::finish_gop(uint64_t end)
{
    if (!begun_)
        return;
    begun_ = false;
    current_.end = end;
    const auto intervals = static_cast<int64_t>(frames_) - 1;
    const int64_t frame = intervals > 0 ? latest_ / intervals
                          : format_.frame_rate > 0
                              ? static_cast<int64_t>(pts_ticks_per_second / format_.frame_rate)
                              : usual_frame;
    const int64_t last = std::clamp<int64_t>(frame, 1, longest_step);
    current_.length = latest_ + last;
    const bool is_whole = video_.pid == 0 || picture_is_whole_;
    const bool has_more_pictures = picture_offset_ > current_.picture_begin;
    const uint64_t before_last =
        has_more_pictures ? std::min(picture_offset_, end) : current_.begin;
    current_.usable_end = is_whole ? end : before_last;
    current_.usable_length = is_whole ? current_.length : latest_before_ + last;
    current_.lacks_sound = is_whole ? !has_sound() : !sound_is_before_;
    current_.date = std::exchange(date_, std::nullopt);
    current_.splices = std::exchange(splices_, {});
    describe_gop();
    if (video_.pid != 0 && current_.facts.video.frame_rate == 0 && intervals > 0 && latest_ > 0)
        current_.facts.video.frame_rate =
            static_cast<double>(intervals) * pts_ticks_per_second / static_cast<double>(latest_);
    for (audio_stream& stream : audio_) {
        stream.seen_in_gop = false;
        stream.heard_in_gop = // that came with the picture that the next one begins with
            std::exchange(stream.heard_in_picture, false) && end == picture_offset_;
    }
    complete_.push_back(std::move(current_));
    current_ = gop{};
}

void fragment_reader::end_fragment()
{
    finish_picture();
    note_picture_end();
    finish_gop(offset_);
}

int64_t fragment_reader::queued_length() const
{
    int64_t length = 0;
    for (const gop& g : complete_)
        length += g.length;
    return length;
}

gop fragment_reader::take_gop()
{
    gop taken = std::move(complete_.front());
    complete_.pop_front();
    return taken;
}
