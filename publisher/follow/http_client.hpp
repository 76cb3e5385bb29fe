// Fetches over HTTP and HTTPS with libcurl, in the thread of the caller: the client's descriptor is
// polled with the rest, and serve() is called when it is ready or the time has come.
//
// Redirects are not followed, certificates are checked, and no answer is without bounds: of its
// size, of the time that it takes, and of the time in which next to nothing comes.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "publisher/base/descriptor.hpp"

struct http_settings {
    std::string ca_file; // of those who may vouch for a server; empty: those that the machine has
    std::string netrc;   // file of users and passwords; empty: none
    int64_t connect_ms = 3000;
    int64_t stalled_s = 5;   // with next to nothing coming
    int64_t most_ms = 60000; // for a whole answer
};

constexpr long http_ok = 200;
constexpr long http_not_modified = 304;

// What a server tells of an answer, to be asked whether it still holds.
struct http_validators {
    std::string etag;
    std::string modified;
};

struct http_result {
    long status = 0;            // 0: there is no whole answer
    std::string error;          // why
    bool was_not_taken = false; // by whoever was to take its bytes
    uint64_t bytes = 0;
    double seconds = 0;
    http_validators validators;
    int64_t stood_s = 0; // how long what was sent has been the same, by the clock of the server; 0:
                         // it does not say
};

// Why there is not what was asked for, in the words of the operator's message.
std::string reason_of(const http_result& result);

class http_client
{
public:
    http_client();
    ~http_client();
    http_client(const http_client&) = delete;
    http_client& operator=(const http_client&) = delete;

    [[nodiscard]] int fd() const; // readable when there is something to do; -1: nobody fetches
    // In how many milliseconds to call serve() all the same; -1: no need.
    [[nodiscard]] int64_t wait_ms() const;

    // Moves all fetches on; true: one of them has ended.
    bool serve();

private:
    friend class http_fetch;
    struct engine;
    void begin();
    std::unique_ptr<engine> engine_; // null until there is a fetch
};

// One fetch after the other, over one connection where the server lets it live.
class http_fetch
{
public:
    // Takes bytes of a body whose status is 200; false: they cannot be taken, and the rest is not
    // wanted.
    using taker = std::function<bool(std::span<const uint8_t>)>;

    // The client and the settings outlive it.
    http_fetch(http_client& client, const http_settings& settings);
    ~http_fetch();
    http_fetch(const http_fetch&) = delete;
    http_fetch& operator=(const http_fetch&) = delete;

    // With validators, the answer may be 304: nothing has changed.
    void start(const std::string& url, const http_validators& known, uint64_t most_bytes,
               taker take);
    [[nodiscard]] bool is_running() const;
    [[nodiscard]] const http_result& result() const; // of the fetch that has ended

private:
    friend class http_client;
    struct transfer;
    std::unique_ptr<transfer> transfer_;
};

// What a name is in a URL.
std::string escaped_for_url(const std::string& name);

// Whether a source is a URL and not a directory of this machine.
bool is_url(const std::string& source);

// Whether it names a directory and nothing else; `error` says what is wrong.
[[nodiscard]] bool is_directory_url(const std::string& url, std::string& error);
