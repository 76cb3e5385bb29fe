// Makes the files of a segment: one of each rung, and those of the tracks that the rungs share.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "publisher/compose/output_directory.hpp"
#include "publisher/ladder/gathering.hpp"
#include "publisher/subtitles/webvtt.hpp"
#include "publisher/text/presentation.hpp"

enum class making {
    made,
    source_failed, // trying again would not bring it back
    failed,
};

struct made_segment {
    segment what;
    std::vector<track> shared;    // its tracks that are no leads
    std::vector<bool> linked;     // by rung: its file is a link
    std::vector<uint64_t> filled; // earlier segments that have got a file of subtitles, each time
    std::vector<std::string> languages;                    // of subtitles, since the beginning
    std::map<std::string, std::vector<subtitle_cue>> cues; // by language: not all shown yet
};

class segment_files
{
public:
    // `counts_keyframes`: those of the rungs are told of, to be listed.
    segment_files(output_directory& output, std::vector<std::string> rungs, bool counts_keyframes);

    // Takes up the languages, and cues that reach beyond the last segment.
    void resume(const presentation& p, const timeline& line);
    // The timeline is another one from now on.
    void forget_cues() { cues_.clear(); }

    // Makes the files of `made.what`, and those of segments that are listed and lack a language
    // that is new. A rung whose source has failed is left out, and told.
    making make(const planned_segment& plan, made_segment& made, presentation& p);

    // Goes on behind a segment. One that could not be saved is made again as if for the first time.
    void go_on_behind(made_segment& made);

    [[nodiscard]] const std::string& failure() const { return failure_; } // the last one

    // Lines for the operator.
    std::vector<std::string> take_lines();

private:
    making make_rung(const std::vector<source_gop>& gops, const std::string& name,
                     made_segment& made, const presentation& p);
    making make_shared(const std::vector<source_gop>& gops, made_segment& made);
    making make_file(const std::string& name, const std::vector<uint8_t>& tables,
                     const std::vector<source_range>& ranges, segment& s);
    bool make_subtitles(const planned_segment& plan, made_segment& made, presentation& p);
    bool make_text(const std::string& name, const std::string& text, segment& s);
    bool fill(const std::string& track, made_segment& made, presentation& p);

    output_directory& output_;
    std::vector<std::string> rungs_;
    bool counts_keyframes_;
    std::vector<std::string> languages_; // as behind the last segment
    std::map<std::string, std::vector<subtitle_cue>> cues_;
    std::string failure_;
    bool last_was_link_ = false;
    std::vector<std::string> lines_;
};
