// A web server that answers as it is told, rightly or wrongly: each path has the bytes that go over
// the wire. It listens on an address of this machine, in a thread of its own.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class scripted_server
{
public:
    enum class then {
        keep,  // the connection is open for another request
        close, // the connection ends
        hang,  // nothing more comes
        flood, // more comes for as long as somebody listens
    };

    scripted_server();
    ~scripted_server();
    scripted_server(const scripted_server&) = delete;
    scripted_server& operator=(const scripted_server&) = delete;

    void set(const std::string& path, const std::string& answer, then what = then::keep);
    // A whole answer with this body. Other paths are answered with 404.
    void set_body(const std::string& path, const std::string& body,
                  const std::string& headers = "");
    void forget(const std::string& path);

    // Nobody listens any more, until start().
    void stop();
    void start();

    [[nodiscard]] std::string url() const;                   // without a slash at its end
    [[nodiscard]] std::vector<std::string> requests() const; // each with its headers
    [[nodiscard]] std::vector<std::string> paths() const;    // of the requests
    [[nodiscard]] int connections() const;

private:
    struct answer {
        std::string bytes;
        then what = then::keep;
    };

    void serve();
    bool answer_one(int fd);

    mutable std::mutex mutex_;
    std::map<std::string, answer> answers_;
    std::vector<std::string> requests_;
    int connections_ = 0;
    int listener_ = -1;
    int connection_ = -1;
    int port_ = 0;
    std::thread thread_;
};
