#include "publisher/follow/http_client.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <string_view>
#include <tuple>
#include <utility>

#include <curl/curl.h>
#include <fmt/format.h>
#include <sys/epoll.h>

namespace
{

constexpr long stalled_bytes_per_second = 1000;
constexpr long receive_bytes = 128L << 10;

// The library is made ready once; what it takes lasts as long as the process.
void prepare_library()
{
    static const bool ready = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    std::ignore = ready; // without it no handle is made, which is told
}

struct url_deleter {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

// Empty where the URL does not have it.
std::string part_of(CURLU* url, CURLUPart part)
{
    char* text = nullptr;
    if (curl_url_get(url, part, &text, 0) != CURLUE_OK)
        return "";
    std::string result = text;
    curl_free(text);
    return result;
}

// The value of a header line with this name, in lower case; empty: it is another one.
std::string header_value(std::string_view line, std::string_view name)
{
    const bool is_it =
        line.size() > name.size() && line[name.size()] == ':' &&
        std::equal(name.begin(), name.end(), line.begin(), [](char wanted, char c) {
            return wanted == static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        });
    if (!is_it)
        return "";
    line.remove_prefix(name.size() + 1);
    while (!line.empty() && (line.front() == ' ' || line.front() == '\t'))
        line.remove_prefix(1);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r' || line.back() == ' '))
        line.remove_suffix(1);
    return std::string(line);
}

} // namespace

std::string reason_of(const http_result& result)
{
    return result.status == 0 ? result.error : fmt::format("status {}", result.status);
}

// --- the client --------------------------------------------------------------------------------

struct http_client::engine {
    descriptor epoll{epoll_create1(EPOLL_CLOEXEC)};
    CURLM* multi = nullptr;

    static int on_socket(CURL* /*easy*/, curl_socket_t fd, int what, void* context,
                         void* /*socket*/)
    {
        const auto& self = *static_cast<const engine*>(context);
        epoll_event event{.events = 0, .data = {.fd = fd}};
        if (what == CURL_POLL_REMOVE) {
            std::ignore = epoll_ctl(self.epoll.get(), EPOLL_CTL_DEL, fd, &event); // may be closed
            return 0;
        }
        if (what != CURL_POLL_OUT)
            event.events |= EPOLLIN;
        if (what != CURL_POLL_IN)
            event.events |= EPOLLOUT;
        if (epoll_ctl(self.epoll.get(), EPOLL_CTL_MOD, fd, &event) != 0 && errno == ENOENT)
            return epoll_ctl(self.epoll.get(), EPOLL_CTL_ADD, fd, &event);
        return 0;
    }
};

http_client::http_client() = default;

http_client::~http_client()
{
    if (engine_)
        std::ignore = curl_multi_cleanup(engine_->multi); // nothing is left to be done about it
}

// The library takes memory, which whoever fetches nothing does not spend.
void http_client::begin()
{
    if (engine_)
        return;
    prepare_library();
    engine_ = std::make_unique<engine>();
    engine_->multi = curl_multi_init();
    curl_multi_setopt(engine_->multi, CURLMOPT_SOCKETFUNCTION, engine::on_socket);
    curl_multi_setopt(engine_->multi, CURLMOPT_SOCKETDATA, engine_.get());
}

int http_client::fd() const
{
    return engine_ ? engine_->epoll.get() : -1;
}

int64_t http_client::wait_ms() const
{
    long ms = -1;
    if (engine_)
        curl_multi_timeout(engine_->multi, &ms);
    return ms;
}

// --- a fetch -----------------------------------------------------------------------------------

struct http_fetch::transfer {
    http_client& client;
    CURL* easy = curl_easy_init();
    curl_slist* headers = nullptr;
    bool running = false;
    bool body_has_end = false; // by its length or by its form; else a torn one looks whole
    uint64_t most_bytes = 0;
    bool too_large = false;
    std::string date; // of the answer, as the server has it
    taker take;
    http_result result;
    std::array<char, CURL_ERROR_SIZE> error{};

    explicit transfer(http_client& its_client) : client(its_client) {}

    static size_t on_header(char* bytes, size_t size, size_t count, void* context)
    {
        auto& self = *static_cast<transfer*>(context);
        const std::string_view line(bytes, size * count);
        if (line.starts_with("HTTP/")) { // another answer, behind one that was not the last
            self.result.validators = {};
            self.date.clear();
            self.body_has_end = false;
        }
        if (auto etag = header_value(line, "etag"); !etag.empty())
            self.result.validators.etag = std::move(etag);
        if (auto modified = header_value(line, "last-modified"); !modified.empty())
            self.result.validators.modified = std::move(modified);
        if (auto date = header_value(line, "date"); !date.empty())
            self.date = std::move(date);
        if (!header_value(line, "content-length").empty() ||
            !header_value(line, "transfer-encoding").empty())
            self.body_has_end = true;
        return line.size();
    }

    static size_t on_body(char* bytes, size_t size, size_t count, void* context)
    {
        auto& self = *static_cast<transfer*>(context);
        const std::span<const uint8_t> more(reinterpret_cast<const uint8_t*>(bytes), size * count);
        self.result.bytes += more.size();
        self.too_large = self.result.bytes > self.most_bytes;
        long status = 0;
        curl_easy_getinfo(self.easy, CURLINFO_RESPONSE_CODE, &status);
        if (!self.too_large && status == http_ok)
            self.result.was_not_taken = !self.take(more);
        return self.too_large || self.result.was_not_taken ? CURL_WRITEFUNC_ERROR : more.size();
    }

    void set_headers(const http_validators& known)
    {
        curl_slist_free_all(std::exchange(headers, nullptr));
        // The entity tag says more where there are both, RFC 9110 13.1.3.
        if (!known.etag.empty())
            headers = curl_slist_append(nullptr, ("If-None-Match: " + known.etag).c_str());
        else if (!known.modified.empty())
            headers = curl_slist_append(nullptr, ("If-Modified-Since: " + known.modified).c_str());
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
    }

    // What the transfer tells is more precise, but for how long it took: with that, the same
    // trouble would be news each time.
    [[nodiscard]] std::string error_text(CURLcode code) const
    {
        const bool tells_time = code == CURLE_COULDNT_CONNECT || code == CURLE_OPERATION_TIMEDOUT;
        return error[0] == '\0' || tells_time ? curl_easy_strerror(code) : error.data();
    }

    [[nodiscard]] int64_t stood_s() const
    {
        const time_t modified = curl_getdate(result.validators.modified.c_str(), nullptr);
        const time_t answered = curl_getdate(date.c_str(), nullptr);
        return modified < 0 || answered < modified ? 0 : answered - modified;
    }

    void finish(CURLcode code)
    {
        running = false;
        curl_multi_remove_handle(client.engine_->multi, easy);
        curl_off_t microseconds = 0;
        curl_easy_getinfo(easy, CURLINFO_TOTAL_TIME_T, &microseconds);
        result.seconds = static_cast<double>(microseconds) / 1e6;
        result.stood_s = stood_s();
        if (too_large || code == CURLE_FILESIZE_EXCEEDED)
            result.error = fmt::format("more than {} bytes", most_bytes);
        else if (code != CURLE_OK)
            result.error = error_text(code);
        else
            curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &result.status);
        if (result.status == http_ok && !body_has_end) {
            result.status = 0;
            result.error = "an answer without a length";
        }
    }
};

http_fetch::http_fetch(http_client& client, const http_settings& settings)
{
    client.begin();
    transfer_ = std::make_unique<transfer>(client);
    CURL* easy = transfer_->easy;
    const auto set = [easy](CURLoption option, auto value) {
        std::ignore = curl_easy_setopt(easy, option, value); // fails where memory is short only
    };
    set(CURLOPT_PRIVATE, this);
    set(CURLOPT_ERRORBUFFER, transfer_->error.data());
    set(CURLOPT_HEADERFUNCTION, transfer::on_header);
    set(CURLOPT_HEADERDATA, transfer_.get());
    set(CURLOPT_WRITEFUNCTION, transfer::on_body);
    set(CURLOPT_WRITEDATA, transfer_.get());
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_QUICK_EXIT, 1L); // a name that is looked up must not hold up the end
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1}); // one file at a time
    set(CURLOPT_PROXY, "");
    set(CURLOPT_USERAGENT, "vorn_hls_publish");
    set(CURLOPT_BUFFERSIZE, receive_bytes);
    set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(settings.connect_ms));
    set(CURLOPT_TIMEOUT_MS, static_cast<long>(settings.most_ms));
    set(CURLOPT_LOW_SPEED_LIMIT, stalled_bytes_per_second);
    set(CURLOPT_LOW_SPEED_TIME, static_cast<long>(settings.stalled_s));
    set(CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});
    if (!settings.ca_file.empty()) {
        set(CURLOPT_CAINFO, settings.ca_file.c_str());
        set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
    }
    if (!settings.netrc.empty()) {
        set(CURLOPT_NETRC, long{CURL_NETRC_REQUIRED});
        set(CURLOPT_NETRC_FILE, settings.netrc.c_str());
    }
}

http_fetch::~http_fetch()
{
    if (transfer_->running)
        curl_multi_remove_handle(transfer_->client.engine_->multi, transfer_->easy);
    curl_easy_cleanup(transfer_->easy);
    curl_slist_free_all(transfer_->headers);
}

void http_fetch::start(const std::string& url, const http_validators& known, uint64_t most_bytes,
                       taker take)
{
    transfer& t = *transfer_;
    t.result = {};
    t.error[0] = '\0';
    t.too_large = false;
    t.most_bytes = most_bytes;
    t.take = std::move(take);
    t.set_headers(known);
    curl_easy_setopt(t.easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(t.easy, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(most_bytes));
    const CURLMcode code = curl_multi_add_handle(t.client.engine_->multi, t.easy);
    t.running = code == CURLM_OK;
    if (!t.running)
        t.result.error = curl_multi_strerror(code);
}

bool http_fetch::is_running() const
{
    return transfer_->running;
}

const http_result& http_fetch::result() const
{
    return transfer_->result;
}

bool http_client::serve()
{
    if (!engine_)
        return false;
    std::array<epoll_event, 16> events;
    int running = 0;
    const int count = epoll_wait(engine_->epoll.get(), events.data(), events.size(), 0);
    for (int i = 0; i < count; i++) {
        const epoll_event& event = events[static_cast<size_t>(i)];
        const unsigned flags =
            ((event.events & EPOLLIN) != 0 ? CURL_CSELECT_IN : 0u) |
            ((event.events & EPOLLOUT) != 0 ? CURL_CSELECT_OUT : 0u) |
            ((event.events & (EPOLLERR | EPOLLHUP)) != 0 ? CURL_CSELECT_ERR : 0u);
        curl_multi_socket_action(engine_->multi, event.data.fd, static_cast<int>(flags), &running);
    }
    if (wait_ms() == 0)
        curl_multi_socket_action(engine_->multi, CURL_SOCKET_TIMEOUT, 0, &running);
    bool ended = false;
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(engine_->multi, &left)) {
        if (message->msg != CURLMSG_DONE)
            continue;
        http_fetch* fetch = nullptr;
        const CURLcode code = message->data.result; // gone with the handle
        curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &fetch);
        fetch->transfer_->finish(code);
        ended = true;
    }
    return ended;
}

// --- URLs --------------------------------------------------------------------------------------

std::string escaped_for_url(const std::string& name)
{
    char* text = curl_easy_escape(nullptr, name.data(), static_cast<int>(name.size()));
    std::string result = text != nullptr ? text : "";
    curl_free(text);
    return result;
}

bool is_url(const std::string& source)
{
    return source.starts_with("http://") || source.starts_with("https://");
}

bool is_directory_url(const std::string& url, std::string& error)
{
    const std::unique_ptr<CURLU, url_deleter> parsed(curl_url());
    const CURLUcode code = curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0);
    if (code != CURLUE_OK)
        error = curl_url_strerror(code);
    else if (!part_of(parsed.get(), CURLUPART_USER).empty() ||
             !part_of(parsed.get(), CURLUPART_PASSWORD).empty())
        error = "users and passwords belong into a netrc file";
    else if (url.find_first_of("?#") != std::string::npos)
        error = "the URL of a directory is wanted, without '?' and '#'";
    return error.empty();
}
