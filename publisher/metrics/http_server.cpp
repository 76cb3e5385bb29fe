#include "publisher/metrics/http_server.hpp"

#include <cerrno>
#include <cstring>
#include <string_view>
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

bool http_server::listen(const std::string& address, std::string& error)
{
    const size_t colon = address.rfind(':');
    std::string host = address.substr(0, colon);
    const auto port = static_cast<uint16_t>(std::stoi(address.substr(colon + 1)));
    auto* v4 = reinterpret_cast<sockaddr_in*>(&daemon_->address);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&daemon_->address);
    unsigned flags = MHD_USE_EPOLL;
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(port);
        flags |= MHD_USE_IPv6;
        if (inet_pton(AF_INET6, host.c_str(), &v6->sin6_addr) != 1) {
            error = host + " is no IPv6 address";
            return false;
        }
    } else {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(port);
        if (inet_pton(AF_INET, host.c_str(), &v4->sin_addr) != 1) {
            error = host + " is no IPv4 address";
            return false;
        }
    }
    errno = 0;
    daemon_->mhd = MHD_start_daemon(
        flags, port, nullptr, nullptr, answer_request, &daemon_->answer, MHD_OPTION_SOCK_ADDR,
        reinterpret_cast<sockaddr*>(&daemon_->address), MHD_OPTION_CONNECTION_LIMIT,
        most_connections, MHD_OPTION_CONNECTION_TIMEOUT, connection_timeout_s, MHD_OPTION_END);
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
