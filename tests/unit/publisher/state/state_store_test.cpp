#include "publisher/state/state_store.hpp"

#include <fstream>
#include <memory>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "tests/support/scratch_directory.hpp"

namespace
{

const presentation_identity identity{
    .output = "/srv/a", .playlist = "index.m3u8", .target_duration = 6};

segment segment_numbered(uint64_t sequence)
{
    return {
        .sequence = sequence,
        .discontinuity_number = 3,
        .discontinuity = true,
        .independent = false,
        .in_folder = true,
        .duration = 540000,
        .date = 161573616000000,
        .list_duration = 5400000,
        .files = {{.track = "main",
                   .bytes = 7,
                   .keyframes = {{.begin = 376, .bytes = 1880, .at = 0}},
                   .first_keyframe = 4},
                  {.track = "main.sub-eng", .bytes = 8}},
    };
}

class StateStore : public testing::Test
{
protected:
    std::string path() { return scratch_.path() / "state"; }

    state_opening open(state_store& store, stored_state& state,
                       const presentation_identity& of = identity)
    {
        error_.clear();
        return store.open(path(), of, state, error_);
    }

    void begin_with(const state_step& step)
    {
        state_store store;
        stored_state state;
        ASSERT_EQ(open(store, state), state_opening::fresh) << error_;
        ASSERT_TRUE(store.save(step, error_)) << error_;
    }

    void run_sql(const char* sql)
    {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(path().c_str(), &db), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(db);
    }

    scratch_directory scratch_;
    std::string error_;
};

} // namespace

TEST_F(StateStore, GivesBackWhatWasSaved)
{
    const stored_head head{
        .next_sequence = 9,
        .discontinuities = 3,
        .ended = true,
        .line = {.begun = true,
                 .clock = 1,
                 .ticks = 2,
                 .date = 3,
                 .ranges = {{.id = "insert-7-1",
                             .event = "insert-7",
                             .type = 0x34,
                             .kind = splice_kind::out,
                             .start = 4,
                             .planned = 5,
                             .returns = true,
                             .end = 6,
                             .section = "0x01",
                             .end_section = "0x02",
                             .clock = 7,
                             .told = 8,
                             .repeated = 9,
                             .end_told = 10}}},
        .rungs = {{.name = "main",
                   .layout = "x",
                   .sources = {{.path = "a",
                                .position = {.base = "ch1",
                                             .number = 4,
                                             .offset = 5,
                                             .last_inode = 6,
                                             .last_bytes = 7,
                                             .last_listed = 3,
                                             .written_ms = 9},
                                .is_matched = true,
                                .clock_offset = -8,
                                .is_last = true},
                               {.path = "b", .position = {}}}},
                  {.name = "low", .layout = "", .sources = {}}},
        .boot_id = "b",
    };
    const master_facts master{
        .rungs = {{
            .name = "main",
            .streams = {.video = {.codec = "avc1", .width = 1, .height = 2, .frame_rate = 29.97},
                        .audio = {{.codec = "mp4a", .language = "eng", .channels = 2}},
                        .captions = {.channels = 1, .services = 2}},
            .peak_bandwidth = 10,
            .average_bandwidth = 9,
        }},
        .shared = {{.name = "main.audio",
                    .kind = track_kind::audio,
                    .language = "eng",
                    .codec = "mp4a",
                    .is_default = true}},
        .independent = false,
    };
    begin_with({.head = head,
                .added = {segment_numbered(7), segment_numbered(8)},
                .retired = {},
                .removed = {},
                .master = &master});

    state_store store;
    stored_state state;
    ASSERT_EQ(open(store, state), state_opening::resumed) << error_;
    EXPECT_EQ(state.head, head);
    EXPECT_EQ(state.master, master);
    EXPECT_EQ(state.listed, (std::deque<segment>{segment_numbered(7), segment_numbered(8)}));
    EXPECT_TRUE(state.retired.empty());
}

TEST_F(StateStore, RetiresAndForgetsSegments)
{
    begin_with({.head = {},
                .added = {segment_numbered(7), segment_numbered(8)},
                .retired = {},
                .removed = {}});
    {
        state_store store;
        stored_state state;
        ASSERT_EQ(open(store, state), state_opening::resumed);
        ASSERT_TRUE(store.save({.head = {},
                                .added = {segment_numbered(9)},
                                .retired = {{segment_numbered(7), 1000, 66}},
                                .removed = {}},
                               error_));
    }
    {
        state_store store;
        stored_state state;
        ASSERT_EQ(open(store, state), state_opening::resumed);
        ASSERT_EQ(state.retired.size(), 1u);
        EXPECT_EQ(state.retired[0].what, segment_numbered(7));
        EXPECT_EQ(state.retired[0].due_ms, 1000);
        EXPECT_EQ(state.retired[0].hold_ms, 66);
        EXPECT_EQ(state.listed.size(), 2u);
        ASSERT_TRUE(store.save({.head = {}, .added = {}, .retired = {}, .removed = {7}}, error_));
    }
    state_store store;
    stored_state state;
    ASSERT_EQ(open(store, state), state_opening::resumed);
    EXPECT_TRUE(state.retired.empty());
}

TEST_F(StateStore, RefusesWhatIsNotItsOwn)
{
    begin_with({.head = {}, .added = {}, .retired = {}, .removed = {}});
    state_store store;
    stored_state state;
    presentation_identity other = identity;
    other.output = "/srv/b";
    EXPECT_EQ(open(store, state, other), state_opening::refused);
    EXPECT_EQ(error_, "it is of another presentation: /srv/a/index.m3u8");
    other = identity;
    other.target_duration = 4;
    EXPECT_EQ(open(store, state, other), state_opening::refused);
    EXPECT_EQ(error_, "its target duration is 6 s and not 4 s, and it never changes");
    run_sql("PRAGMA user_version=5");
    EXPECT_EQ(open(store, state), state_opening::refused);
    EXPECT_EQ(error_, "it is of version 5, and this program knows versions up to 4");
    run_sql("PRAGMA user_version=1");
    EXPECT_EQ(open(store, state), state_opening::damaged);
    EXPECT_EQ(error_, "it is of the older version 1");
}

TEST_F(StateStore, KeepsNumbersOfTheStreamForGood)
{
    stored_state state;
    presentation_identity counted = identity;
    presentation_identity numbered = identity;
    numbered.slot = 540000;
    presentation_identity otherwise = identity;
    otherwise.slot = 360000;
    begin_with({.head = {}, .added = {}, .retired = {}, .removed = {}});
    EXPECT_EQ(open(*std::make_unique<state_store>(), state, numbered), state_opening::resumed);
    EXPECT_EQ(open(*std::make_unique<state_store>(), state, numbered), state_opening::resumed);
    for (const presentation_identity& other : {counted, otherwise}) {
        EXPECT_EQ(open(*std::make_unique<state_store>(), state, other), state_opening::refused);
        EXPECT_EQ(
            error_,
            "its numbers are of the stream's time, and neither that nor segment ever changes");
    }
}

TEST_F(StateStore, IsOpenInOneProcessOnly)
{
    state_store first;
    state_store second;
    stored_state state;
    ASSERT_EQ(open(first, state), state_opening::fresh);
    EXPECT_EQ(open(second, state), state_opening::refused);
    EXPECT_EQ(error_, "another process has it open");
}

TEST_F(StateStore, OfADamagedFileIsSetAside)
{
    for (int n = 1; n <= 2; n++) {
        std::ofstream(path()) << std::string(4096, 'x');
        state_store store;
        stored_state state;
        EXPECT_EQ(open(store, state), state_opening::damaged);
        const std::string aside = set_aside(path());
        EXPECT_TRUE(std::filesystem::exists(aside)) << aside;
        EXPECT_FALSE(std::filesystem::exists(path()));
    }
    EXPECT_TRUE(std::filesystem::exists(path() + ".damaged-2"));
}

TEST_F(StateStore, SaysWhatIsTheMatterWhenItCannotBeWritten)
{
    state_store store;
    stored_state state;
    EXPECT_EQ(store.open(scratch_.path() / "no" / "state", identity, state, error_),
              state_opening::failed);
    EXPECT_EQ(error_, "unable to open database file");
}
