#include "publisher/metrics/http_server.hpp"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>
#include <string_view>
#include <system_error>
#include <tuple>

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace
{

constexpr unsigned most_connections = 64;
constexpr unsigned connection_timeout_s = 10;

MHD_Result answer_request(void* context, MHD_Connection* connection, const char* url,
                          const char* method, const char* /*version*/, const char* /*upload*/,
                          size_t* upload_bytes, void** /*request*/)
{
    const auto& answer = *static_cast<const http_server::handler*>(context);
    *upload_bytes = 0;
    const bool is_get = std::string_view(method) == MHD_HTTP_METHOD_GET ||
                        std::string_view(method) == MHD_HTTP_METHOD_HEAD;
    const http_answer given =
        is_get ? answer(url)
               : http_answer{.status = MHD_HTTP_METHOD_NOT_ALLOWED, .body = "only GET\n"};
    // The library does not write to what it is told to copy.
    MHD_Response* response = MHD_create_response_from_buffer(
        given.body.size(), const_cast<char*>(given.body.data()), MHD_RESPMEM_MUST_COPY);
    if (response == nullptr)
        return MHD_NO;
    std::ignore =
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, given.content_type.c_str());
    std::ignore = MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
    const MHD_Result result = MHD_queue_response(connection, given.status, response);
    MHD_destroy_response(response);
    return result;
}

struct listen_address {
    sockaddr_storage address{};
    uint16_t port = 0;
};

std::optional<listen_address> parse_listen_address(const std::string& text)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos)
        return std::nullopt;
    std::string host = text.substr(0, colon);
    listen_address parsed;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data() + colon + 1, end, parsed.port);
    if (error != std::errc{} || rest != end)
        return std::nullopt;
    auto* v4 = reinterpret_cast<sockaddr_in*>(&parsed.address);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&parsed.address);
    const bool is_v6 = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (is_v6)
        host = host.substr(1, host.size() - 2);
    parsed.address.ss_family = is_v6 ? AF_INET6 : AF_INET;
    (is_v6 ? v6->sin6_port : v4->sin_port) = htons(parsed.port);
    void* into = is_v6 ? static_cast<void*>(&v6->sin6_addr) : &v4->sin_addr;
    if (inet_pton(parsed.address.ss_family, host.c_str(), into) != 1)
        return std::nullopt;
    return parsed;
}

} // namespace

struct http_server::daemon {
    handler answer;
    sockaddr_storage address{};
    MHD_Daemon* mhd = nullptr;
};

http_server::http_server(handler answer) : daemon_(std::make_unique<daemon>())
{
    daemon_->answer = std::move(answer);
}

http_server::~http_server()
{
    if (daemon_->mhd != nullptr)
        MHD_stop_daemon(daemon_->mhd);
}

bool is_listen_address(const std::string& address)
{
    return parse_listen_address(address).has_value();
}

bool http_server::listen(const std::string& address, std::string& error)
{
    const auto parsed = parse_listen_address(address);
    if (!parsed) {
        error = address + ": ADDRESS:PORT is wanted";
        return false;
    }
    daemon_->address = parsed->address;
    unsigned flags = MHD_USE_EPOLL;
    if (parsed->address.ss_family == AF_INET6)
        flags |= MHD_USE_IPv6;
    errno = 0;
    daemon_->mhd =
        MHD_start_daemon(flags, parsed->port, nullptr, nullptr, answer_request, &daemon_->answer,
                         MHD_OPTION_SOCK_ADDR, reinterpret_cast<sockaddr*>(&daemon_->address),
                         MHD_OPTION_CONNECTION_LIMIT, most_connections,
                         MHD_OPTION_CONNECTION_TIMEOUT, connection_timeout_s, MHD_OPTION_END);
    if (daemon_->mhd == nullptr) {
        error = address + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

int http_server::fd() const
{
    if (daemon_->mhd == nullptr)
        return -1;
    const MHD_DaemonInfo* info = MHD_get_daemon_info(daemon_->mhd, MHD_DAEMON_INFO_EPOLL_FD);
    return info == nullptr ? -1 : info->epoll_fd;
}

int http_server::port() const
{
    const MHD_DaemonInfo* info = daemon_->mhd == nullptr
                                     ? nullptr
                                     : MHD_get_daemon_info(daemon_->mhd, MHD_DAEMON_INFO_BIND_PORT);
    return info == nullptr ? -1 : info->port;
}

void http_server::serve()
{
    if (daemon_->mhd != nullptr)
        std::ignore = MHD_run(daemon_->mhd);
}
