// A stream as it leaves a stream_preparer, with the pieces in which it arrived and the clock in the
// test's hand.
#pragma once

#include <algorithm>

#include "tests/support/bytes.hpp"
#include "tools/ts_prepare/stream_preparer.hpp"

class prepared_stream
{
public:
    explicit prepared_stream(const prepare_options& options = {}, bool live = true)
    {
        start_preparer(preparer, options, live);
    }

    // All of it in pieces of that size, a millisecond after each other.
    prepared_stream& take(const byte_string& bytes, size_t piece = 1316)
    {
        for (size_t at = 0; at < bytes.size(); at += piece) {
            append(rest_, std::span(bytes).subspan(at, std::min(piece, bytes.size() - at)));
            const size_t taken = prepare_input(preparer, rest_, now_us);
            collect();
            rest_.erase(rest_.begin(), rest_.begin() + static_cast<ptrdiff_t>(taken));
            now_us += 1000;
        }
        return *this;
    }

    prepared_stream& pause(int64_t us)
    {
        now_us += us;
        prepare_pause(preparer, now_us);
        collect();
        return *this;
    }

    prepared_stream& end()
    {
        prepare_end(preparer, rest_, now_us);
        collect();
        rest_.clear();
        return *this;
    }

    stream_preparer preparer;
    byte_string out;
    int64_t now_us = 1'000'000;

private:
    void collect()
    {
        for (const iovec& piece : preparer.output.pieces)
            append(out, {static_cast<const uint8_t*>(piece.iov_base), piece.iov_len});
        clear_sent(preparer);
    }

    byte_string rest_;
};
