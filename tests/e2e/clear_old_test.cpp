// Which files of an earlier run are removed before anything is read.

#include <algorithm>
#include <sstream>

#include <gtest/gtest.h>

#include "tests/support/expected_default_run.hpp"

namespace
{

const std::string scanning_playlists = "Removing old: scanning directory . for ch1.m3u8\n";
const std::string scanning_fragments = "Removing old: scanning directory . for ch1\n";

// One old file for each name.
file_map old_files(const std::vector<std::string>& names)
{
    file_map files;
    for (const std::string& name : names)
        files[name] = bytes_of("old");
    return files;
}

run_result clear_only(const file_map& files, std::vector<std::string> arguments = {})
{
    arguments.push_back("--clear-old-only");
    return run_program({.arguments = arguments, .files = files});
}

// The lines, those between two scanning lines in ascending order: a directory is read in the
// order that the system gives.
std::string sorted_within_scans(const std::string& text)
{
    std::istringstream in(text);
    std::vector<std::string> lines;
    size_t scan_begin = 0;
    const auto sort_scan = [&] {
        std::sort(lines.begin() + static_cast<std::ptrdiff_t>(scan_begin), lines.end());
        scan_begin = lines.size();
    };
    for (std::string line; std::getline(in, line);) {
        const bool scan = line.find("scanning directory") != std::string::npos;
        if (scan)
            sort_scan();
        lines.push_back(line + "\n");
        if (scan)
            scan_begin = lines.size();
    }
    sort_scan();
    std::string sorted;
    for (const std::string& line : lines)
        sorted += line;
    return sorted;
}

// "Removing old: ./<name>" for each, in ascending order.
std::string removal_lines(std::vector<std::string> names)
{
    std::ranges::sort(names);
    std::string lines;
    for (const std::string& name : names)
        lines += "Removing old: ./" + name + "\n";
    return lines;
}

TEST(ClearOld, WithoutEarlierOutputOnlyScans)
{
    EXPECT_TRUE(
        same_run(clear_only({}), {.standard_error = scanning_playlists + scanning_fragments}));
}

TEST(ClearOld, RemovesTheMasterPlaylist)
{
    EXPECT_TRUE(same_run(
        clear_only(old_files({"ch1.m3u8"})),
        {.standard_error = "Removing old: ch1.m3u8\n" + scanning_playlists + scanning_fragments}));
}

TEST(ClearOld, RemovesEveryKindOfPlaylist)
{
    const std::vector<std::string> names = {
        "ch1.m3u8.av.m3u8",
        "ch1.m3u8.v.m3u8",
        "ch1.m3u8.a.m3u8",
        "ch1.m3u8.sap.m3u8",
        "ch1.m3u8.av.m3u8.en.vtt.m3u8",
        "ch1.m3u8.v.m3u8.pt-BR.vtt.m3u8",
        "ch1.m3u8.sap.m3u8.v0.vtt.m3u8",
        "ch1.m3u8.a.m3u8..vtt.m3u8", // an empty language
    };
    run_result got = clear_only(old_files(names));
    got.standard_error = sorted_within_scans(got.standard_error);
    EXPECT_TRUE(same_run(
        got, {.standard_error = scanning_playlists + removal_lines(names) + scanning_fragments}));
}

TEST(ClearOld, RemovesEveryKindOfFragment)
{
    const std::vector<std::string> names = {
        "ch1.00000012.ts",
        "ch1.123456789.ts",
        "ch1.v.00000012.ts",
        "ch1.a.00000012.ts",
        "ch1.av.00000012.ts",
        "ch1.sap.7.ts",
        "ch1.sap.7.ts.en-US.vtt",
        "ch1.00000003.ts.eng.vtt",
        "ch1.00000003.ts.v1.vtt",
        "ch1.00000003.ts..vtt", // an empty language
        "ch1..ts",              // no digits
        "ch1.v..ts",
    };
    run_result got = clear_only(old_files(names));
    got.standard_error = sorted_within_scans(got.standard_error);
    EXPECT_TRUE(same_run(
        got, {.standard_error = scanning_playlists + scanning_fragments + removal_lines(names)}));
}

TEST(ClearOld, LeavesEverythingElse)
{
    const file_map files = old_files({
        ".ch1.00000000.ts",
        ".tmp",
        "ch1.00000012.ts.tmp",
        "ch1.12x.ts",
        "ch1.m3u8.av.m3u8.e_n.vtt.m3u8",
        "ch1.m3u8.av.m3u8.en.vtt",
        "ch1.m3u8.av.m3u8.en.vtt.m3u8x",
        "ch1.m3u8.av.m3u8.en.x.vtt.m3u8",
        "ch1.m3u8.av.m3u8.tmp",
        "ch1.m3u8.bak",
        "ch1.m3u8.m3u8",
        "ch1.m3u8.tmp",
        "ch1.m3u8.v.m3u8x",
        "ch1.m3u8.vtt.m3u8",
        "ch1.m3u8x",
        "ch1.sap.av.1.ts", // one kind only
        "ch1.ts",          // the dot behind the base comes before the digits
        "ch1.v.ts",
        "ch1.v1.ts",
        "ch1.x.00000012.ts",
        "ch1.00000012.TS",
        "ch1.00000012.ts.e.n.vtt",
        "ch1.00000012.ts.en.vtt.x",
        "ch1.00000012.tsx",
        "ch1x.00000012.ts",
        "ch2.00000012.ts",
        "sub/ch1.00000012.ts",
    });
    const run_result got = clear_only(files);
    file_map want = files;
    want["sub/"] = {};
    EXPECT_TRUE(
        same_run(got, {.standard_error = scanning_playlists + scanning_fragments, .files = want}));
}

TEST(ClearOld, LeavesWhatIsNoRegularFile)
{
    const file_map files = {
        {"target", bytes_of("kept")},
        {"ch1.m3u8/", {}},
        {"ch1.m3u8.av.m3u8@", bytes_of("target")},
        {"ch1.00000001.ts@", bytes_of("target")},
        {"ch1.00000002.ts@", bytes_of("nowhere")},
        {"ch1.00000003.ts/", {}},
    };
    EXPECT_TRUE(
        same_run(clear_only(files),
                 {.standard_error = scanning_playlists + scanning_fragments, .files = files}));
}

TEST(ClearOld, FollowsTheNamesOfTheOptions)
{
    const run_result got = clear_only(
        old_files({"p/x.m3u8", "p/x.m3u8.av.m3u8", "p/f.00000000.ts", "q/r/f.00000000.ts",
                   "q/r/f.v.1.ts.x", "ch1.00000000.ts", "ch1.m3u8"}),
        {"--m3u8-name", "p/x.m3u8", "--frag-name", "q/r/f"});
    file_map want = old_files({"p/f.00000000.ts", "q/r/f.v.1.ts.x", "ch1.00000000.ts", "ch1.m3u8"});
    want["p/"] = want["q/"] = want["q/r/"] = {};
    EXPECT_TRUE(same_run(got, {.standard_error = "Removing old: p/x.m3u8\n"
                                                 "Removing old: scanning directory p for x.m3u8\n"
                                                 "Removing old: p/x.m3u8.av.m3u8\n"
                                                 "Removing old: scanning directory q/r for f\n"
                                                 "Removing old: q/r/f.00000000.ts\n",
                               .files = want}));
}

TEST(ClearOld, PassesOverDirectoriesThatCannotBeRead)
{
    EXPECT_TRUE(
        same_run(clear_only({}, {"--m3u8-name", "none/x.m3u8", "--frag-name", "nor/this/f"}),
                 {.standard_error = "Removing old: scanning directory none for x.m3u8\n"
                                    "Removing old: scanning directory nor/this for f\n"}));
}

TEST(ClearOld, EndsTheRunWhenAFileCannotBeRemoved)
{
    struct {
        std::string_view name;
        std::string file;
        std::string want_error;
    } const cases[] = {
        {.name = "the master playlist",
         .file = "ch1.m3u8",
         .want_error = "Removing old: ch1.m3u8\n"},
        {.name = "a playlist",
         .file = "ch1.m3u8.av.m3u8",
         .want_error = scanning_playlists + "Removing old: ./ch1.m3u8.av.m3u8\n"},
        {.name = "a fragment",
         .file = "ch1.00000000.ts",
         .want_error =
             scanning_playlists + scanning_fragments + "Removing old: ./ch1.00000000.ts\n"},
    };
    for (const auto& c : cases) {
        for (const char* option : {"--clear-old", "--clear-old-only"}) {
            SCOPED_TRACE(std::string(c.name) + " with " + option);
            const file_map files = old_files({c.file});
            EXPECT_TRUE(same_run(
                run_program({.arguments = {option}, .files = files, .read_only_directory = true}),
                {.ending = "exit 1", .standard_error = c.want_error, .files = files}));
        }
    }
}

TEST(ClearOld, ComesBeforeARun)
{
    stream_builder stream;
    stream.start_up();
    const size_t begin = stream.mark();
    stream.keyframe(900000);
    expected_run want = expected_default_run(stream, {.starts = {begin}});
    want.standard_error = scanning_playlists + scanning_fragments +
                          "Removing old: ./ch1.00000077.ts\n" + want.standard_error;
    EXPECT_TRUE(same_run(run_program({.arguments = {"--clear-old"},
                                      .input = {.bytes = stream.bytes()},
                                      .files = old_files({"ch1.00000077.ts"})}),
                         want));
}

TEST(ClearOld, HappensOnlyWhenAskedFor)
{
    const file_map files = old_files({"ch1.m3u8", "ch1.00000077.ts"});
    EXPECT_TRUE(same_run(
        run_program({.files = files}),
        {.ending = "exit 1", .standard_error = "Failed to refill until\n", .files = files}));
}

} // namespace
