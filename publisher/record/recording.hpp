// Takes the segments of a live presentation between two times, as links, and makes a presentation
// of its own of them: one that has ended.
//
// Nothing is shown before it is whole. Until then each list stands in a journal, a dot file that
// only grows and from which a recording that was killed goes on: the list's header, again whenever
// it changed, and the lines of each segment taken.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "publisher/base/descriptor.hpp"
#include "publisher/compose/output_directory.hpp"
#include "publisher/text/media_list.hpp"

constexpr int64_t whenever = -1; // no time was given

struct recording_settings {
    std::string from;                    // directory of the live presentation
    std::string to;                      // directory of the recording; it is made
    std::string playlist = "index.m3u8"; // the master playlist in both
    // On the dated timeline of the presentation: ticks since 1970.
    int64_t begin = whenever; // then with the newest segment
    int64_t end = whenever;   // then when it is stopped, or the presentation ends
};

enum class recording_state {
    going_on,
    failed,   // something cannot be written now; it is tried again
    complete, // nothing more comes
};

class recording
{
public:
    explicit recording(recording_settings settings) : settings_(std::move(settings)) {}

    // Opens the directory and takes up what a killed recording left there; false: it cannot be, and
    // `error` says why.
    [[nodiscard]] bool open(std::string& error);

    // Takes what is new. `error` says what failed.
    [[nodiscard]] recording_state step(std::string& error);

    // Whether all lists have been taken as far as the first one, so that it may be closed.
    [[nodiscard]] bool is_even() const;

    // Makes the presentation of what was taken.
    [[nodiscard]] bool close(std::string& error);

private:
    // One media playlist. The first one that the master names says how far the recording goes.
    struct track_journal {
        std::string name;
        std::string header;                // the newest
        std::set<std::string> date_ranges; // lines that were taken
        size_t range_bytes = 0;            // of these lines
        bool is_full_told = false;
        uint64_t bytes = 0;       // that are whole
        int64_t begin = whenever; // date of the first segment taken
        int64_t last = whenever;  // that of the last one
        int64_t end = whenever;   // date behind it
    };

    enum class linking { done, gone, failed };

    track_journal& journal_of(const std::string& name);
    [[nodiscard]] media_list taken_of(const track_journal& journal) const;
    [[nodiscard]] bool write_journal(track_journal& journal, const std::string& text,
                                     std::string& error) const;
    [[nodiscard]] bool take_list(track_journal& journal, const media_list& list,
                                 std::string& error);
    [[nodiscard]] bool take_range(track_journal& journal, const std::string& line,
                                  std::string& error);
    [[nodiscard]] bool take_segment(track_journal& journal, const listed_segment& listed,
                                    std::string& error);
    [[nodiscard]] linking link(const std::string& name, std::string& error);
    [[nodiscard]] std::string vod_text(const media_list& taken) const;

    recording_settings settings_;
    std::shared_ptr<descriptor> live_;
    output_directory output_;
    std::vector<track_journal> journals_; // also of lists that the presentation has no longer
    std::string master_;                  // the last one all of whose lists have been begun
};
