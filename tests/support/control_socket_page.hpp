// Reads docs/control-socket.md: its worked example, its Python sender and its test vectors, so that
// what the page promises is what the tests hold the code to.
#pragma once

#include <cctype>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

struct wire_vector {
    std::string name;
    std::vector<uint8_t> bytes;
    std::string want; // the packet's listing, or "malformed\n", or "incomplete\n"
};

class control_socket_page
{
public:
    explicit control_socket_page(const std::string& file)
    {
        std::ifstream page(file);
        std::ostringstream all;
        all << page.rdbuf();
        text = all.str();
    }

    std::vector<uint8_t> worked_example() const
    {
        size_t at = text.find("## A worked example");
        return hex_bytes(next_block(at));
    }

    std::string python_sender() const
    {
        size_t at = text.find("A sender in Python");
        return next_block(at);
    }

    std::vector<wire_vector> vectors() const
    {
        std::vector<wire_vector> found;
        const std::string heading = "\n### ";
        size_t at = text.find("## Test vectors");
        while ((at = text.find(heading, at)) != std::string::npos) {
            at += heading.size();
            wire_vector vector;
            vector.name = text.substr(at, text.find('\n', at) - at);
            vector.bytes = hex_bytes(next_block(at));
            vector.want = next_block(at);
            found.push_back(std::move(vector));
        }
        return found;
    }

private:
    // The lines between the next two fences; `at` moves behind them.
    std::string next_block(size_t& at) const
    {
        const std::string fence = "\n```";
        const size_t begin = text.find('\n', text.find(fence, at) + fence.size()) + 1;
        const size_t end = text.find(fence, begin - 1) + 1;
        at = end + fence.size();
        return text.substr(begin, end - begin);
    }

    // Each line begins with two-digit groups; what follows the first other word is explanation.
    static std::vector<uint8_t> hex_bytes(const std::string& block)
    {
        std::vector<uint8_t> bytes;
        std::istringstream lines(block);
        for (std::string line; std::getline(lines, line);) {
            std::istringstream words(line.substr(0, line.find("   ")));
            for (std::string word; words >> word;)
                bytes.push_back(static_cast<uint8_t>(std::stoul(word, nullptr, 16)));
        }
        return bytes;
    }

    std::string text;
};
