#include "publisher/compose/retirement.hpp"

#include <filesystem>

#include <gtest/gtest.h>

#include "tests/support/scratch_directory.hpp"

namespace
{

class Retirement : public testing::Test
{
protected:
    void SetUp() override
    {
        std::string error;
        ASSERT_TRUE(output_.open(scratch_.path(), error)) << error;
    }

    // With a file of its own.
    retired_segment segment_numbered(uint64_t number, int64_t hold_ms = 1000)
    {
        retired_segment r{
            .what = {.sequence = number, .files = {{.track = "main", .bytes = 100}}},
            .due_ms = 0,
            .hold_ms = hold_ms,
        };
        write_file(path_of(number), byte_string(100, 'x'));
        return r;
    }

    std::filesystem::path path_of(uint64_t number)
    {
        return scratch_.path() / ("main." + std::to_string(number) + ".ts");
    }

    // The numbers of the segments whose files are there.
    std::vector<uint64_t> there()
    {
        std::vector<uint64_t> numbers;
        for (uint64_t number = 1; number < 10; number++) {
            if (std::filesystem::exists(path_of(number)))
                numbers.push_back(number);
        }
        return numbers;
    }

    // What a step tells the state.
    state_step told()
    {
        state_step step{.head = {}, .added = {}, .retired = {}, .removed = {}};
        retired_.tell(step);
        return step;
    }

    static constexpr uint64_t any = UINT64_MAX; // bytes

    const scratch_directory scratch_;
    output_directory output_;
    retirement retired_{output_};
};

using numbers = std::vector<uint64_t>;

} // namespace

TEST_F(Retirement, KeepsASegmentForItsTimeFromWhenNoListNamesIt)
{
    retired_.add({segment_numbered(1), segment_numbered(2)});
    retired_.remove_due(50000, any);
    EXPECT_EQ(there(), (numbers{1, 2})) << "a list names them still";
    retired_.begin_times(2, 60000);
    retired_.remove_due(60999, any);
    EXPECT_EQ(there(), (numbers{1, 2}));
    retired_.remove_due(61000, any);
    EXPECT_EQ(there(), numbers{2});
    retired_.begin_times(3, 90000);
    retired_.remove_due(91000, any);
    EXPECT_EQ(there(), numbers{});
}

TEST_F(Retirement, RemovesTheOldestEarlyForWantOfBytes)
{
    retired_.add({segment_numbered(1), segment_numbered(2), segment_numbered(3)});
    retired_.remove_due(0, 0);
    EXPECT_EQ(there(), (numbers{1, 2, 3})) << "a list names them still";
    retired_.begin_times(3, 0);
    retired_.remove_due(0, 200);
    EXPECT_EQ(there(), (numbers{2, 3}));
    EXPECT_EQ(retired_.bytes(), 200u);
    retired_.remove_due(0, 0);
    EXPECT_EQ(there(), numbers{3});
}

TEST_F(Retirement, TellsTheStateWhatItDoesNotHave)
{
    retired_.add({segment_numbered(1), segment_numbered(2)});
    EXPECT_TRUE(told().retired.empty()) << "that they have left was saved with the step";
    retired_.begin_times(2, 5000);
    ASSERT_EQ(told().retired.size(), 1u);
    EXPECT_EQ(told().retired[0].what.sequence, 1u);
    EXPECT_EQ(told().retired[0].due_ms, 6000);
    retired_.note_saved();
    EXPECT_TRUE(told().retired.empty());
    retired_.remove_due(6000, any);
    EXPECT_EQ(told().removed, numbers{1});
    retired_.note_saved();
    EXPECT_TRUE(told().removed.empty());
}

TEST_F(Retirement, BeginsTimesAnewThatCountFromAnotherBoot)
{
    retired_segment begun = segment_numbered(1);
    begun.due_ms = 77000;
    retired_.take_up({begun, segment_numbered(2)});
    EXPECT_TRUE(told().retired.empty());
    retired_.begin_times_anew(3000);
    ASSERT_EQ(told().retired.size(), 1u);
    EXPECT_EQ(told().retired[0].due_ms, 4000);
    retired_.remove_due(4000, any);
    EXPECT_EQ(there(), numbers{2});
}

TEST_F(Retirement, IsNotStoppedByAFileThatCannotBeRemoved)
{
    retired_.add({segment_numbered(1), segment_numbered(2), segment_numbered(3)});
    std::filesystem::remove(path_of(1));
    std::filesystem::create_directories(path_of(1) / "in the way");
    retired_.begin_times(4, 0);
    retired_.remove_due(1000, any);
    EXPECT_EQ(there(), numbers{1});
    EXPECT_EQ(retired_.take_lines(), std::vector<std::string>{"main.1.ts cannot be removed"});
    EXPECT_EQ(told().removed, (numbers{2, 3}));
    retired_.remove_due(11000, any);
    EXPECT_TRUE(retired_.take_lines().empty()) << "it is told once";
    std::filesystem::remove_all(path_of(1));
    write_file(path_of(1), byte_string(100, 'x'));
    retired_.remove_due(21000, any);
    EXPECT_EQ(there(), numbers{});
    EXPECT_EQ(told().removed, (numbers{2, 3, 1}));
}
