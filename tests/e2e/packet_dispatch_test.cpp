// Which packets reach a fragment.

#include <gtest/gtest.h>

#include "tests/support/expected_default_run.hpp"

namespace
{

TEST(PacketDispatch, DropsWhatComesBeforeTheFirstKeyframe)
{
    stream_builder stream;
    stream.start_up();
    stream.tables().audio(890000).null(2).packet({.pid = 0x11});
    const size_t begin = stream.mark();
    stream.keyframe(900000).audio(900000);
    EXPECT_TRUE(
        same_run(run_on(stream.bytes()), expected_default_run(stream, {.starts = {begin}})));
}

TEST(PacketDispatch, WritesNothingWithoutAKeyframe)
{
    stream_builder stream;
    stream.start_up().picture(900000).audio(900000).picture(903600);
    EXPECT_TRUE(same_run(run_on(stream.bytes()), expected_default_run(stream, {})));
}

// One stream that holds a packet of every kind; `marks` delimit what a filter may take out.
struct mixed_stream {
    mixed_stream()
    {
        stream.start_up();
        begin = stream.mark();
        stream.keyframe(900000);
        add(kept, [this] { stream.audio(900000); });
        add(padding, [this] { stream.null(2); });
        add(kept, [this] { stream.picture(903600); });
        add(kept, [this] { stream.packet({.pid = 0x0011, .payload = counting_bytes(90)}); });
        add(kept, [this] { stream.packet({.pid = 0x0201}); }); // another programme's
        add(tables, [this] { stream.tables(); });
        add(padding, [this] { stream.null(1); });
        add(kept, [this] {
            stream.packet({.pid = 0x1ABC,
                           .adaptation = adaptation_fields{.pcr = pcr_fields{}, .stuffing = 176},
                           .has_payload = false});
        });
        // Undecodable packets pass every filter.
        add(kept, [this] { stream.packet({.pid = null_pid, .adaptation_field_control = 0}); });
        add(kept,
            [this] { stream.packet({.pid = 0, .adaptation = adaptation_fields{.length = 184}}); });
        add(kept, [this] { stream.packet({.transport_error_indicator = true, .pid = 0x101}); });
        add(padding,
            [this] { stream.packet({.transport_error_indicator = true, .pid = null_pid}); });
    }

    enum filter { kept, padding, tables };

    // The fragment without the packets of one kind.
    [[nodiscard]] byte_string fragment_without(filter dropped) const
    {
        byte_string out = stream.between(begin, parts.front().begin);
        for (const part& p : parts)
            if (p.kind == kept || p.kind != dropped)
                append(out, stream.between(p.begin, p.end));
        return out;
    }

    struct part {
        filter kind;
        size_t begin;
        size_t end;
    };

    stream_builder stream;
    size_t begin = 0;
    std::vector<part> parts;

private:
    template <typename Add>
    void add(filter kind, Add add_packets)
    {
        const size_t at = stream.mark();
        add_packets();
        parts.push_back({kind, at, stream.mark()});
    }
};

// A PMT ends a pass, and the next one finds the picture size.
expected_run expected_mixed_run(const mixed_stream& mixed)
{
    return expected_default_run(mixed.stream,
                                {.starts = {mixed.begin}, .master = {.resolution = "320x240"}});
}

TEST(PacketDispatch, WritesAllPacketsAsTheyAre)
{
    const mixed_stream mixed;
    EXPECT_TRUE(same_run(run_on(mixed.stream.bytes()), expected_mixed_run(mixed)));
}

TEST(PacketDispatch, NoPaddingDropsNullPackets)
{
    const mixed_stream mixed;
    expected_run want = expected_mixed_run(mixed);
    want.files[fragment_name(0)] = mixed.fragment_without(mixed_stream::padding);
    EXPECT_TRUE(same_run(run_on(mixed.stream.bytes(), {"--no-padding"}), want));
}

// A programme whose PMT is handled in the middle of the start-up fill: the packets behind it are
// processed by the next pass, none is lost.
TEST(PacketDispatch, APassThatATableEndsLosesNoPacket)
{
    stream_builder stream;
    stream.tables(3);
    const size_t begin = stream.mark();
    stream.keyframe(900000).tables(2).audio(900000).tables(3).picture(903600);
    stream.null_until(start_up_fill_bytes);
    EXPECT_TRUE(same_run(
        run_on(stream.bytes()),
        expected_default_run(stream, {.starts = {begin}, .master = {.resolution = "320x240"}})));
}

// What a pass processes depends on how much is buffered; the output must not.
TEST(PacketDispatch, LongStreamsComeThroughWholeHoweverTheyArrive)
{
    stream_builder stream;
    stream.start_up();
    std::vector<size_t> starts;
    for (int64_t second = 0; second < 12; second++) {
        if (second % 6 == 0)
            starts.push_back(stream.mark());
        stream.keyframe(900000 + 90000 * second, 20000).tables();
        stream.null(2500);
    }
    // The second cut's fragment is the last one measured: 6 s of the stream.
    const default_run_facts facts{
        .starts = starts,
        .durations = {"6.000"},
        .target_duration = 5,
        .master = {.bandwidth = (starts[1] - starts[0]) * 8 / 6, .resolution = "320x240"},
    };
    const std::vector<std::string> arguments = {"--frag-duration", "5"};
    EXPECT_TRUE(same_run(run_on(stream.bytes(), arguments), expected_default_run(stream, facts)));
    EXPECT_TRUE(same_run(
        run_program({.arguments = arguments,
                     .input = {.from = program_input::source::pipe, .bytes = stream.bytes()}}),
        expected_default_run(stream, facts)));
}

} // namespace
