// Answers GET requests on one address, in the thread of the caller: its descriptor is polled with
// the rest, and serve() is called when it is ready.
#pragma once

#include <functional>
#include <memory>
#include <string>

struct http_answer {
    unsigned status = 404;
    std::string content_type = "text/plain; charset=utf-8";
    std::string body;
};

// Whether it is ADDRESS:PORT with an IPv4 address or an IPv6 address in brackets.
bool is_listen_address(const std::string& address);

class http_server
{
public:
    using handler = std::function<http_answer(const std::string& path)>;

    explicit http_server(handler answer);
    ~http_server();
    http_server(const http_server&) = delete;
    http_server& operator=(const http_server&) = delete;

    // Port 0 takes any that is free.
    [[nodiscard]] bool listen(const std::string& address, std::string& error);

    [[nodiscard]] int fd() const;   // readable when there is something to do; -1: not listening
    [[nodiscard]] int port() const; // that is listened on
    void serve();

private:
    struct daemon;
    std::unique_ptr<daemon> daemon_;
};
