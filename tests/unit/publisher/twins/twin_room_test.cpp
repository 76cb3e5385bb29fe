#include "publisher/twins/twin_room.hpp"

#include <gtest/gtest.h>

#include "toolkit/pts_clock.hpp"

namespace
{

constexpr int64_t second = pts_ticks_per_second;

// A stream of GOPs of one second, numbered, and sources that deliver them. What is published is
// noted as text: the number and the source's letter, with an exclamation mark where it is not
// sound.
class TwinRoom : public testing::Test
{
protected:
    explicit TwinRoom(size_t sources = 2, int64_t wait_ms = 0)
        : room_(sources, wait_ms), queues_(sources)
    {
    }

    static twin_gop number(int n, int64_t clock = 0)
    {
        return {
            .start = stamp_sum(int64_t{n} * second, clock),
            .length = second,
            .content = static_cast<uint64_t>(n) + 1000,
            .errors = 0,
            .torn = false,
            .after_loss = false,
            .layout = "one",
        };
    }

    static twin_gop damaged(int n)
    {
        twin_gop what = number(n);
        what.errors = 1;
        what.content = 1;
        return what;
    }

    // The run ended in the middle of it.
    static twin_gop torn(int n)
    {
        twin_gop what = number(n);
        what.torn = true;
        what.length = second / 3;
        what.content = 2;
        return what;
    }

    static twin_gop first_of_run(int n, int64_t clock = 0)
    {
        twin_gop what = number(n, clock);
        what.after_loss = true;
        return what;
    }

    static twin_gop of_another_stream(int n)
    {
        twin_gop what = number(n);
        what.content += 5000;
        return what;
    }

    void deliver(size_t source, const twin_gop& what)
    {
        room_.add(source, what, now_ms_);
        queues_[source].push_back(what);
        settle();
    }

    // Both have it at the same time.
    void deliver_both(int first, int behind)
    {
        for (int n = first; n < behind; n++) {
            deliver(0, number(n));
            deliver(1, number(n));
            pass(1000);
        }
    }

    // The first delivers so many, and the second each one `lag` seconds later.
    void deliver_lagging(int count, int lag)
    {
        for (int n = 0; n < count; n++) {
            deliver(0, number(n));
            if (n >= lag)
                deliver(1, number(n - lag));
            pass(1000);
        }
    }

    void pass(int64_t ms)
    {
        for (; ms > 0; ms -= 100) {
            now_ms_ += 100;
            settle();
        }
    }

    void settle()
    {
        for (;;) {
            const twin_decision decision = room_.decide(now_ms_);
            if (decision.verdict == twin_verdict::wait)
                return;
            auto& queue = queues_[decision.source];
            ASSERT_FALSE(queue.empty());
            const twin_gop what = queue.front();
            queue.pop_front();
            if (decision.verdict == twin_verdict::publish)
                note(decision.source, what);
        }
    }

    void note(size_t source, const twin_gop& what)
    {
        const int64_t start = stamp_sum(what.start, -clocks_[source]);
        published_ += published_.empty() ? "" : " ";
        published_ += std::to_string(start / second) + std::string(1, "abc"[source]);
        published_ += what.errors > 0 ? "!" : what.torn ? "~" : "";
    }

    std::string take_published() { return std::exchange(published_, ""); }

    twin_room room_;
    std::vector<std::deque<twin_gop>> queues_;
    int64_t clocks_[3] = {}; // what the sources' clocks are ahead
    int64_t now_ms_ = 1000000;
    std::string published_;
};

class OneSource : public TwinRoom
{
protected:
    OneSource() : TwinRoom(1) {}
};

class PatientRoom : public TwinRoom
{
protected:
    PatientRoom() : TwinRoom(2, 10000) {}
};

class ThreeSources : public TwinRoom
{
protected:
    ThreeSources() : TwinRoom(3) {}
};

} // namespace

TEST_F(OneSource, IsPublishedWhateverItDelivers)
{
    deliver(0, number(10));
    deliver(0, damaged(11));
    deliver(0, torn(12));
    deliver(0, first_of_run(5));
    deliver(0, number(500));
    EXPECT_EQ(take_published(), "10a 11a! 12a~ 5a 500a");
}

TEST_F(TwinRoom, PublishesEachGopOnceAndAtOnce)
{
    deliver(0, number(10));
    EXPECT_EQ(take_published(), "10a");
    deliver(1, number(10));
    deliver(1, number(11));
    deliver(0, number(11));
    deliver(0, number(12));
    EXPECT_EQ(take_published(), "11b 12a");
    EXPECT_EQ(room_.standing(0), twin_standing::matched);
    EXPECT_EQ(room_.standing(1), twin_standing::matched);
}

TEST_F(TwinRoom, TakesTheOtherOneWhereOneIsDamaged)
{
    deliver_both(10, 12);
    deliver(0, damaged(12));
    deliver(0, number(13));
    EXPECT_EQ(take_published(), "10a 11a");
    pass(500);
    deliver(1, number(12));
    EXPECT_EQ(take_published(), "12b 13a");
}

TEST_F(TwinRoom, PublishesWhatIsDamagedWhereAllAreAndTakesTheLesserDamage)
{
    deliver_both(10, 12);
    twin_gop worse = damaged(12);
    worse.errors = 9;
    deliver(0, worse);
    deliver(1, damaged(12));
    EXPECT_EQ(take_published(), "10a 11a 12b!");
}

TEST_F(TwinRoom, WaitsForABetterOneAsLongAsAGopLasts)
{
    deliver_both(10, 12);
    deliver(0, damaged(12));
    pass(900);
    EXPECT_EQ(take_published(), "10a 11a");
    EXPECT_EQ(room_.decide_again_ms(now_ms_), 100);
    pass(100);
    EXPECT_EQ(take_published(), "12a!");
}

TEST_F(PatientRoom, WaitsForABetterOneAsLongAsItIsTold)
{
    deliver_lagging(12, 10);
    std::ignore = take_published();
    deliver(0, damaged(12));
    for (int n = 2; n < 11; n++) { // it delivers, but lags
        deliver(1, number(n));
        pass(1000);
    }
    EXPECT_EQ(take_published(), "");
    deliver(1, number(11));
    pass(1000);
    EXPECT_EQ(take_published(), "12a!");
}

TEST_F(PatientRoom, DoesNotWaitForASourceThatIsSilent)
{
    deliver_both(10, 12);
    std::ignore = take_published();
    pass(5000);
    deliver(0, damaged(12));
    EXPECT_EQ(take_published(), "12a!");
}

TEST_F(TwinRoom, TheOtherGoesOnWhereOneIsKilledInTheMiddle)
{
    deliver_both(10, 12);
    deliver(0, torn(12));
    pass(700);
    EXPECT_EQ(take_published(), "10a 11a");
    deliver(1, number(12));
    deliver(1, number(13));
    EXPECT_EQ(take_published(), "12b 13b");
    deliver(0, first_of_run(14));
    EXPECT_EQ(take_published(), "") << "nothing says yet that the new run is the same stream";
    deliver(1, number(14));
    EXPECT_EQ(take_published(), "14b");
    deliver(0, number(15));
    EXPECT_EQ(take_published(), "15a");
}

TEST_F(TwinRoom, PublishesWhatIsTornWhenNothingElseIsLeft)
{
    deliver_both(10, 12);
    deliver(0, torn(12));
    EXPECT_EQ(take_published(), "10a 11a");
    pass(3900);
    EXPECT_EQ(take_published(), "") << "the other may only be held up";
    pass(100);
    EXPECT_EQ(take_published(), "12a~");
    deliver(1, number(13));
    EXPECT_EQ(take_published(), "13b") << "nothing that is left can be what lies between";
}

TEST_F(TwinRoom, WaitsForASourceThatWillDeliverSoon)
{
    deliver_both(0, 3);
    pass(4000); // neither is expected to deliver
    room_.expect(1, now_ms_);
    deliver(0, torn(3));
    pass(1000);
    EXPECT_EQ(take_published(), "0a 1a 2a");
    deliver(1, number(3));
    EXPECT_EQ(take_published(), "3b");
}

TEST_F(TwinRoom, TakesTheLongerOneOfThoseThatAreTornAndThenTheLesserDamage)
{
    deliver_both(10, 12);
    twin_gop hurt = torn(12);
    hurt.errors = 2;
    deliver(0, hurt);
    deliver(1, torn(12));
    EXPECT_EQ(take_published(), "10a 11a 12b~");
}

TEST_F(TwinRoom, ALaggingSourceTakesOverWhereTheOtherEnded)
{
    deliver_lagging(40, 30);
    EXPECT_EQ(room_.standing(1), twin_standing::matched);
    std::ignore = take_published();
    deliver(0, torn(40));
    for (int n = 10; n < 40; n++) {
        deliver(1, number(n));
        pass(1000);
    }
    EXPECT_EQ(take_published(), "");
    deliver(1, number(40));
    deliver(1, number(41));
    EXPECT_EQ(take_published(), "40b 41b");
}

TEST_F(TwinRoom, ARestartedSourceWaitsUntilTheLaggingOneHasCaughtUp)
{
    deliver_lagging(20, 10);
    std::ignore = take_published();
    deliver(0, torn(20));
    std::string want;
    for (int n = 10; n < 26; n++) {
        if (n >= 15) // five seconds later, and five seconds of the stream are missing
            deliver(0, n == 15 ? first_of_run(25) : number(n + 10));
        deliver(1, number(n));
        pass(1000);
    }
    EXPECT_EQ(take_published().substr(0, 31), "20b 21b 22b 23b 24b 25b 26a 27a");
}

TEST_F(TwinRoom, GoesOnBehindAHoleThatNobodyCanFill)
{
    deliver_both(10, 12);
    std::ignore = take_published();
    deliver(0, first_of_run(14));
    EXPECT_EQ(take_published(), "");
    deliver(1, first_of_run(15));
    deliver(0, number(15));
    EXPECT_EQ(take_published(), "14a 15a");
}

TEST_F(TwinRoom, AClockThatJumpsInAllOfThemIsFollowed)
{
    deliver_both(10, 12);
    for (int n = 12; n < 15; n++) {
        deliver(0, number(n, 700 * second));
        deliver(1, number(n, 700 * second));
    }
    EXPECT_EQ(take_published(), "10a 11a 712a 713a 714a");
    deliver(0, number(3));
    deliver(1, number(3));
    deliver(1, number(4));
    EXPECT_EQ(take_published(), "3a 4b");
}

TEST_F(TwinRoom, ALaggingSourceIsStillOnTheOldClock)
{
    for (int n = 100; n < 110; n++) {
        deliver(0, number(n));
        pass(1000);
    }
    for (int n = 0; n < 10; n++) { // the clock jumps back, and the second source is ten behind
        deliver(0, number(n));
        pass(1000);
        deliver(1, number(100 + n));
    }
    std::ignore = take_published();
    for (int n = 0; n < 10; n++)
        deliver(1, number(n));
    deliver(1, number(10));
    EXPECT_EQ(take_published(), "10b");
}

TEST_F(TwinRoom, MatchesAnotherClockByContent)
{
    clocks_[1] = 5000 * second;
    deliver(0, number(10));
    deliver(1, number(10, clocks_[1]));
    EXPECT_EQ(room_.standing(1), twin_standing::joining) << "one alone might be chance";
    deliver(0, number(11));
    deliver(1, number(11, clocks_[1]));
    EXPECT_EQ(room_.standing(1), twin_standing::matched);
    EXPECT_EQ(room_.offset(1), clocks_[1]);
    deliver(1, number(12, clocks_[1]));
    EXPECT_EQ(take_published(), "10a 11a") << "players would have to be told";
    deliver(0, number(12));
    EXPECT_EQ(take_published(), "12a");
    pass(5000);
    deliver(1, number(13, clocks_[1]));
    deliver(1, number(14, clocks_[1]));
    EXPECT_EQ(take_published(), "13b 14b") << "nothing missing, nothing doubled";
}

TEST_F(TwinRoom, MatchesAClockThatIsALittleAheadByContent)
{
    clocks_[1] = 3 * second;
    for (int n = 10; n < 20; n++) {
        deliver(0, number(n));
        deliver(1, number(n, clocks_[1]));
        pass(1000);
    }
    EXPECT_EQ(room_.standing(1), twin_standing::matched);
    EXPECT_EQ(room_.offset(1), clocks_[1]);
    EXPECT_EQ(take_published(), "10a 11a 12a 13a 14a 15a 16a 17a 18a 19a");
}

TEST_F(TwinRoom, APictureThatStandsStillSaysNothingAboutTheClock)
{
    for (int n = 10; n < 20; n++) {
        twin_gop still = number(n);
        still.content = 7;
        deliver(0, still);
        still.start = stamp_sum(still.start, 5000 * second);
        deliver(1, still);
        pass(1000);
    }
    EXPECT_EQ(room_.standing(1), twin_standing::joining);
    EXPECT_EQ(take_published(), "10a 11a 12a 13a 14a 15a 16a 17a 18a 19a");
}

TEST_F(TwinRoom, PicturesThatComeAgainAreNotTakenForPublishedOnes)
{
    std::string want;
    for (int n = 10; n < 40; n++) {
        twin_gop what = number(n);
        what.content = static_cast<uint64_t>(n % 10);
        deliver(n % 2 == 0 ? 0 : 1, what);
        deliver(n % 2 == 0 ? 1 : 0, what);
        pass(1000);
        want += (want.empty() ? "" : " ") + std::to_string(n) + (n % 2 == 0 ? 'a' : 'b');
    }
    EXPECT_EQ(take_published(), want);
}

TEST_F(TwinRoom, RefusesAnotherStream)
{
    for (int n = 10; n < 13; n++) {
        deliver(0, number(n));
        deliver(1, of_another_stream(n));
        pass(1000);
    }
    EXPECT_EQ(room_.standing(1), twin_standing::refused);
    pass(10000);
    deliver(1, of_another_stream(13));
    pass(60000);
    EXPECT_EQ(take_published(), "10a 11a 12a");
    deliver(0, number(13));
    deliver(0, number(14));
    deliver(1, number(14));
    EXPECT_EQ(room_.standing(1), twin_standing::matched) << "it has been put right";
    deliver(1, number(15));
    EXPECT_EQ(take_published(), "13a 14a 15b");
}

TEST_F(TwinRoom, RefusesAnotherStreamOnAnotherClock)
{
    for (int n = 10; n < 70; n++) {
        deliver(0, number(n));
        twin_gop other = of_another_stream(n);
        other.start = stamp_sum(other.start, 5000 * second);
        deliver(1, other);
        pass(1000);
    }
    EXPECT_EQ(room_.standing(1), twin_standing::refused);
    EXPECT_EQ(take_published().find('b'), std::string::npos);
}

TEST_F(TwinRoom, OneGopThatDiffersRefusesNothing)
{
    deliver_both(10, 12);
    deliver(0, number(12));
    deliver(1, of_another_stream(12));
    deliver(0, number(13));
    deliver(1, number(13));
    deliver(1, number(14));
    EXPECT_EQ(take_published(), "10a 11a 12a 13a 14b");
}

TEST_F(TwinRoom, TheClockMayBeginAnew)
{
    const int64_t wrap = pts_modulus - 12 * second;
    clocks_[0] = clocks_[1] = wrap;
    for (int n = 10; n < 15; n++) {
        deliver(n % 2 == 0 ? 0 : 1, number(n, wrap));
        deliver(n % 2 == 0 ? 1 : 0, number(n, wrap));
    }
    EXPECT_EQ(take_published(), "10a 11b 12a 13b 14a");
    EXPECT_EQ(room_.standing(0), twin_standing::matched);
    EXPECT_EQ(room_.standing(1), twin_standing::matched);
}

TEST_F(TwinRoom, ASourceThatCutsElsewhereJoinsAtTheNextCommonKeyframe)
{
    deliver_both(10, 12);
    std::ignore = take_published();
    twin_gop elsewhere = damaged(11); // a keyframe was lost: two are one
    elsewhere.start += second / 2;
    elsewhere.length += second / 2;
    deliver(1, elsewhere);
    deliver(0, torn(12));
    deliver(1, number(13));
    EXPECT_EQ(take_published(), "12a~ 13b");
}

TEST_F(TwinRoom, GoesOnBehindWhatWasPublishedBeforeARestart)
{
    room_.resume(12 * second, "one");
    room_.resume_source(0, 0, true);
    room_.resume_source(1, 0, false);
    deliver(1, number(11));
    EXPECT_EQ(take_published(), "");
    deliver(1, number(12));
    deliver(0, number(12));
    deliver(0, number(13));
    EXPECT_EQ(take_published(), "12b 13a");
}

TEST_F(TwinRoom, ASourceThatIsNewAfterARestartGoesOnByTime)
{
    room_.resume(12 * second, "one");
    deliver(1, number(12));
    deliver(1, number(13));
    EXPECT_EQ(take_published(), "12b 13b");
}

// They are looked at no more while so many wait, so that something has to go.
TEST_F(TwinRoom, ASourceThatMatchesNothingKeepsNoMoreThanItsPlaces)
{
    deliver(0, number(10));
    for (int n = 0; n < 2 * static_cast<int>(twin_room::most_queued); n++) {
        deliver(1, of_another_stream(5000 + n));
        ASSERT_LT(queues_[1].size(), twin_room::most_queued);
    }
}

TEST_F(ThreeSources, OneOfThemIsEnough)
{
    for (size_t n = 0; n < 30; n++) {
        const auto number_of = static_cast<int>(n) + 10;
        for (size_t source = 0; source < 3; source++)
            deliver(source, source == n % 3 ? number(number_of) : damaged(number_of));
        pass(1000);
    }
    EXPECT_EQ(published_.find('!'), std::string::npos) << published_;
    EXPECT_EQ(std::count(published_.begin(), published_.end(), ' '), 29);
}
