#include "tests/support/scripted_server.hpp"

#include <array>
#include <stdexcept>
#include <tuple>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

std::string path_of(const std::string& request)
{
    const size_t begin = request.find(' ') + 1;
    return request.substr(begin, request.find(' ', begin) - begin);
}

bool send_all(int fd, const std::string& bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t sent = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        done += static_cast<size_t>(sent);
    }
    return true;
}

} // namespace

scripted_server::scripted_server()
{
    start();
}

scripted_server::~scripted_server()
{
    stop();
}

void scripted_server::start()
{
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int yes = 1;
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port_));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (bind(listener_, generic, length) != 0 || listen(listener_, 8) != 0 ||
        getsockname(listener_, generic, &length) != 0)
        throw std::runtime_error("no server");
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
}

void scripted_server::stop()
{
    {
        const std::lock_guard lock(mutex_);
        if (listener_ >= 0)
            shutdown(listener_, SHUT_RDWR);
        if (connection_ >= 0)
            shutdown(connection_, SHUT_RDWR);
    }
    if (thread_.joinable())
        thread_.join();
    if (listener_ >= 0)
        std::ignore = close(listener_); // nothing was written to it
    listener_ = -1;
}

void scripted_server::serve()
{
    for (;;) {
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            return;
        {
            const std::lock_guard lock(mutex_);
            connection_ = fd;
            connections_++;
        }
        while (answer_one(fd)) {
        }
        const std::lock_guard lock(mutex_);
        connection_ = -1;
        std::ignore = close(fd); // what was sent, was sent
    }
}

bool scripted_server::answer_one(int fd)
{
    std::string request;
    std::array<char, 4096> buffer{};
    while (request.find("\r\n\r\n") == std::string::npos) {
        const ssize_t got = recv(fd, buffer.data(), buffer.size(), 0);
        if (got <= 0)
            return false;
        request.append(buffer.data(), static_cast<size_t>(got));
    }
    answer given{.bytes = "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n", .what = {}};
    {
        const std::lock_guard lock(mutex_);
        requests_.push_back(request);
        if (const auto known = answers_.find(path_of(request)); known != answers_.end())
            given = known->second;
    }
    if (!send_all(fd, given.bytes))
        return false;
    switch (given.what) {
    case then::keep:
        return true;
    case then::close:
        return false;
    case then::hang:
        while (recv(fd, buffer.data(), buffer.size(), 0) > 0) {
        }
        return false;
    case then::flood:
        while (send_all(fd, std::string(65536, 'x'))) {
        }
        return false;
    }
    return false;
}

void scripted_server::set(const std::string& path, const std::string& bytes, then what)
{
    const std::lock_guard lock(mutex_);
    answers_[path] = {.bytes = bytes, .what = what};
}

void scripted_server::set_body(const std::string& path, const std::string& body,
                               const std::string& headers)
{
    set(path, "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
                  headers + "\r\n" + body);
}

void scripted_server::forget(const std::string& path)
{
    const std::lock_guard lock(mutex_);
    answers_.erase(path);
}

std::string scripted_server::url() const
{
    return "http://127.0.0.1:" + std::to_string(port_);
}

std::vector<std::string> scripted_server::requests() const
{
    const std::lock_guard lock(mutex_);
    return requests_;
}

std::vector<std::string> scripted_server::paths() const
{
    std::vector<std::string> paths;
    for (const std::string& request : requests())
        paths.push_back(path_of(request));
    return paths;
}

int scripted_server::connections() const
{
    const std::lock_guard lock(mutex_);
    return connections_;
}
