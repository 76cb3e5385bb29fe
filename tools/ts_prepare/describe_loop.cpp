#include "tools/ts_prepare/describe_loop.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/ts_prepare/description_text.hpp"
#include "tools/ts_prepare/prepare_loop.hpp"

namespace
{

using steady = std::chrono::steady_clock;

constexpr uint64_t most_bytes = 64 << 20;
constexpr auto most_time = std::chrono::seconds(20); // of a stream that is no file
constexpr size_t buffer_bytes = 256 * 1024;

bool is_file(int fd)
{
    struct stat status = {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

enum class read_result { bytes, end, time_is_up, failed };

read_result read_more(std::vector<uint8_t>& buffer, size_t& filled, steady::time_point until)
{
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - steady::now());
        if (left.count() <= 0)
            return read_result::time_is_up;
        pollfd readable{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
        if (poll(&readable, 1, static_cast<int>(left.count())) == 0)
            return read_result::time_is_up;
        const ssize_t got = read(STDIN_FILENO, buffer.data() + filled, buffer.size() - filled);
        if (got > 0)
            filled += static_cast<size_t>(got);
        if (got >= 0)
            return got > 0 ? read_result::bytes : read_result::end;
        if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK)
            return read_result::failed;
    }
}

} // namespace

int run_describe(const prepare_options& options)
{
    const auto describer = std::make_unique<stream_describer>(); // too large for the stack
    const auto until = steady::now() + (is_file(STDIN_FILENO) ? std::chrono::hours(24) : most_time);
    std::vector<uint8_t> buffer(buffer_bytes);
    size_t filled = 0;
    read_result result = read_result::bytes;
    while (describer->description.bytes < most_bytes) {
        result = read_more(buffer, filled, until);
        if (result == read_result::failed) {
            fprintf(stderr, "vorn_ts_prepare: reading failed: %s\n", std::strerror(errno));
            return status_failed;
        }
        const more_input more =
            result == read_result::bytes ? more_input::may_come : more_input::none;
        const size_t taken = describe_bytes(*describer, {buffer.data(), filled}, more);
        std::copy(buffer.begin() + static_cast<ptrdiff_t>(taken),
                  buffer.begin() + static_cast<ptrdiff_t>(filled), buffer.begin());
        filled -= taken;
        if (result != read_result::bytes)
            break;
    }
    end_description(*describer, result == read_result::end);
    const std::string text =
        options.json ? description_as_json(describer->description, options.frag_duration)
                     : description_as_text(describer->description, options.frag_duration);
    fputs(text.c_str(), stdout);
    return fflush(stdout) == 0 ? 0 : status_failed;
}
