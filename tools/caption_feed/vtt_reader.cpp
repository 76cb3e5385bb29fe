#include "tools/caption_feed/vtt_reader.hpp"

#include <utility>

#include "tools/caption_feed/utf8.hpp"

namespace
{

constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
constexpr std::string_view map_prefix = "X-TIMESTAMP-MAP=";

void report(vtt_reader& reader, std::string text)
{
    reader.problems.push_back({.line = reader.line_number, .text = std::move(text)});
}

bool is_signature(std::string_view line)
{
    constexpr std::string_view signature = "WEBVTT";
    if (line.starts_with(byte_order_mark))
        line.remove_prefix(byte_order_mark.size());
    if (!line.starts_with(signature))
        return false;
    line.remove_prefix(signature.size());
    return line.empty() || line[0] == ' ' || line[0] == '\t';
}

void begin_header(vtt_reader& reader)
{
    reader.at = vtt_reader::state::header;
    reader.map = {.mpegts = reader.base_ticks, .local_ms = 0};
}

void read_signature(vtt_reader& reader, std::string_view line)
{
    if (is_signature(line)) {
        begin_header(reader);
        return;
    }
    report(reader, "not WebVTT, since the first line is not 'WEBVTT'; ignored up to its end");
    reader.at = vtt_reader::state::rejected;
}

void end_block(vtt_reader& reader)
{
    if (reader.current.has_cue)
        reader.cues.push_back(std::move(reader.current.cue));
    reader.current = {};
}

void drop_cue(vtt_reader& reader, const std::string& problem)
{
    report(reader, problem + "; the cue is skipped");
    reader.current.has_cue = false;
}

void begin_cue(vtt_reader& reader, std::string_view line)
{
    vtt_reader::block& block = reader.current;
    block.seen_arrow = true;
    block.cue.line = reader.line_number;
    block.cue.identifier = block.first_line;

    std::string problem;
    block.has_cue = parse_timing_line(line, block.cue, problem);
    if (block.has_cue)
        block.cue.stream_ticks = stream_ticks_of(block.cue.start_ms, reader.map);
    else
        drop_cue(reader, problem);
}

void append_text(vtt_reader& reader, std::string_view line)
{
    std::string& text = reader.current.cue.text;
    if (text.size() + line.size() >= vtt_line_bytes_max) {
        drop_cue(reader, "the text is too long");
        return;
    }
    if (!text.empty())
        text += '\n';
    text += line;
}

// "Collect a WebVTT block" of the W3C text, a line at a time.
void read_block_line(vtt_reader& reader, std::string_view line)
{
    vtt_reader::block& block = reader.current;
    if (line.empty()) {
        end_block(reader);
        return;
    }

    ++block.lines;
    if (line.find("-->") != std::string_view::npos) {
        const bool may_begin = block.lines == 1 || (block.lines == 2 && !block.seen_arrow);
        if (!may_begin) {
            end_block(reader);
            block.lines = 1;
        }
        begin_cue(reader, line);
    } else if (block.lines == 1 && is_signature(line)) {
        end_block(reader);
        begin_header(reader);
    } else if (block.lines == 1) {
        block.first_line = line;
    } else if (block.has_cue) {
        append_text(reader, line);
    }
}

void read_header_line(vtt_reader& reader, std::string_view line)
{
    if (line.empty() || line.find("-->") != std::string_view::npos) {
        reader.at = vtt_reader::state::blocks;
        read_block_line(reader, line);
        return;
    }
    if (!line.starts_with(map_prefix))
        return;
    line.remove_prefix(map_prefix.size());
    if (!parse_timestamp_map(line, reader.map))
        report(reader, "X-TIMESTAMP-MAP is not of the form MPEGTS:ticks,LOCAL:time; it is ignored");
}

void read_line(vtt_reader& reader, std::string_view line)
{
    switch (reader.at) {
    case vtt_reader::state::signature:
        read_signature(reader, line);
        break;
    case vtt_reader::state::header:
        read_header_line(reader, line);
        break;
    case vtt_reader::state::blocks:
        read_block_line(reader, line);
        break;
    case vtt_reader::state::rejected:
        break;
    }
}

void end_line(vtt_reader& reader)
{
    ++reader.line_number;
    if (reader.line_too_long && reader.current.has_cue)
        drop_cue(reader, "the line is too long");
    // What is kept of a line that is too long still has its say: as the first of a block it may be
    // a signature or an identifier, which nothing depends on.
    read_line(reader, repaired_utf8(reader.partial_line));
    reader.partial_line.clear();
    reader.line_too_long = false;
}

void append_to_line(vtt_reader& reader, std::string_view bytes)
{
    const size_t room = vtt_line_bytes_max - reader.partial_line.size();
    if (bytes.size() > room)
        reader.line_too_long = true;
    reader.partial_line += bytes.substr(0, room);
}

} // namespace

void vtt_reader::feed(std::string_view bytes)
{
    while (!bytes.empty()) {
        if (after_cr && bytes[0] == '\n')
            bytes.remove_prefix(1);
        after_cr = false;

        const size_t line_break = bytes.find_first_of("\r\n");
        append_to_line(*this, bytes.substr(0, line_break));
        if (line_break == std::string_view::npos)
            return;
        after_cr = bytes[line_break] == '\r';
        bytes.remove_prefix(line_break + 1);
        end_line(*this);
    }
}

void vtt_reader::finish()
{
    if (!partial_line.empty())
        end_line(*this);
    end_block(*this);
    at = state::signature;
    line_number = 0;
    after_cr = false;
}
