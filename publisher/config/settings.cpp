#include "publisher/config/settings.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <string_view>
#include <system_error>

#include <fmt/format.h>

#include <toml++/toml.h>
#include <unistd.h>

#include "publisher/metrics/http_server.hpp"

namespace
{

constexpr int64_t usual_window = 60;

// Programs cut at the first keyframe after a second, or later.
constexpr double least_gop_room = 1;
constexpr double usual_gop_room = 2;

// A file name: part of URLs and of paths.
bool is_plain_name(std::string_view name)
{
    return !name.empty() && name.size() <= 100 && name.front() != '.' &&
           std::all_of(name.begin(), name.end(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '-' || c == '_' || c == '.';
           });
}

bool contains(const std::vector<std::string>& names, const std::string& name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

// What is wrong with values that are good by themselves.
struct mistake {
    std::string key;
    std::string what;
    size_t rendition = 0; // where it is a key of one: which
};

class settings_reader
{
public:
    settings_reader(std::string path, std::string& error) : path_(std::move(path)), error_(error) {}

    bool read(publisher_settings& settings)
    {
        toml::table table;
        try {
            table = toml::parse_file(path_);
        } catch (const toml::parse_error& error) {
            error_ = fmt::format("{}:{}: {}", path_, error.source().begin.line,
                                 std::string(error.description()));
            return false;
        }
        return known(table, "",
                     {"output", "playlist", "segment", "target_duration", "window", "dvr",
                      "dvr_bytes", "event", "iframes", "state", "numbers", "peers", "http", "fetch",
                      "rendition"}) &&
               text(table, "", "output", settings.output) &&
               name(table, "", "playlist", settings.playlist) &&
               seconds(table, "", "segment", {least_segment, most_segment}, settings.segment) &&
               number(table, "", "target_duration", 1, most_target_duration,
                      settings.target_duration) &&
               number(table, "", "window", 1, most_window, settings.window) &&
               text(table, "", "dvr", settings.dvr) &&
               text(table, "", "dvr_bytes", settings.dvr_bytes) &&
               flag(table, "event", settings.event) && flag(table, "iframes", settings.iframes) &&
               text(table, "", "state", settings.state) && read_numbers(table, settings.numbers) &&
               texts(table, "", "peers", "a list of URLs is wanted", settings.peers) &&
               read_http(table, settings) && read_fetch(table, settings.fetch) &&
               read_renditions(table, settings);
    }

    // Where the mistake stands: the key, or the table that ought to have it.
    [[nodiscard]] int64_t line_of(const mistake& wrong) const
    {
        for (const std::string& key : {wrong.key, wrong.key.substr(0, wrong.key.find('.'))}) {
            const auto found = lines_.find({wrong.rendition, key});
            if (found != lines_.end())
                return found->second;
        }
        return 1;
    }

private:
    void note(const toml::node& node, const std::string& key)
    {
        lines_[{rendition_, key}] = node.source().begin.line;
    }

    bool fail(const toml::node* node, const std::string& key, const std::string& what)
    {
        const auto line = node != nullptr ? node->source().begin.line : 1;
        error_ = fmt::format("{}:{}: {}: {}", path_, line, key, what);
        return false;
    }

    bool known(const toml::table& table, const std::string& prefix,
               std::initializer_list<std::string_view> names)
    {
        for (const auto& [key, value] : table) {
            if (std::find(names.begin(), names.end(), key.str()) == names.end())
                return fail(&value, prefix + std::string(key.str()), "there is no such key");
            note(value, prefix + std::string(key.str()));
        }
        return true;
    }

    bool text(const toml::table& table, const std::string& prefix, const char* key,
              std::string& into)
    {
        const toml::node* node = table.get(key);
        if (node == nullptr)
            return true;
        const auto value = node->value_exact<std::string>();
        if (!value || value->empty())
            return fail(node, prefix + key, "a text that is not empty is wanted");
        into = *value;
        return true;
    }

    bool name(const toml::table& table, const std::string& prefix, const char* key,
              std::string& into)
    {
        if (!text(table, prefix, key, into))
            return false;
        const toml::node* node = table.get(key);
        if (node != nullptr && !is_plain_name(into))
            return fail(node, prefix + key,
                        "a file name of letters, digits, '.', '-' and '_' is wanted");
        return true;
    }

    // A dot begins what tells tracks apart.
    bool rendition_name(const toml::table& table, std::string& into)
    {
        if (!name(table, "rendition.", "name", into))
            return false;
        if (into.find('.') != std::string::npos)
            return fail(table.get("name"), "rendition.name", "a name without dots is wanted");
        return true;
    }

    struct bounds {
        double least;
        double most;
    };

    bool seconds(const toml::table& table, const std::string& prefix, const char* key,
                 const bounds& allowed, double& into)
    {
        const toml::node* node = table.get(key);
        if (node == nullptr)
            return true;
        const auto value = node->value<double>();
        if (!value || !(*value >= allowed.least && *value <= allowed.most))
            return fail(
                node, prefix + key,
                fmt::format("seconds from {} to {} are wanted", allowed.least, allowed.most));
        into = *value;
        return true;
    }

    bool number(const toml::table& table, const std::string& prefix, const char* key, int64_t least,
                int64_t most, int64_t& into)
    {
        const toml::node* node = table.get(key);
        if (node == nullptr)
            return true;
        const auto value = node->value_exact<int64_t>();
        if (!value || *value < least || *value > most)
            return fail(node, prefix + key,
                        fmt::format("a whole number from {} to {} is wanted", least, most));
        into = *value;
        return true;
    }

    bool texts(const toml::table& table, const std::string& prefix, const char* key,
               const char* wanted, std::vector<std::string>& into)
    {
        const toml::node* node = table.get(key);
        if (node == nullptr)
            return true;
        if (!node->is_array() || node->as_array()->empty())
            return fail(node, prefix + key, wanted);
        for (const toml::node& element : *node->as_array()) {
            const auto value = element.value_exact<std::string>();
            if (!value || value->empty())
                return fail(&element, prefix + key, wanted);
            into.push_back(*value);
        }
        return true;
    }

    bool flag(const toml::table& table, const char* key, bool& into)
    {
        const toml::node* node = table.get(key);
        if (node == nullptr)
            return true;
        const auto value = node->value_exact<bool>();
        if (!value)
            return fail(node, key, "true or false is wanted");
        into = *value;
        return true;
    }

    bool read_numbers(const toml::table& table, numbering& into)
    {
        std::string name = "count";
        if (!text(table, "", "numbers", name))
            return false;
        if (name != "count" && name != "stream")
            return fail(table.get("numbers"), "numbers", "\"count\" or \"stream\" is wanted");
        into = name == "stream" ? numbering::stream : numbering::count;
        return true;
    }

    bool read_http(const toml::table& table, publisher_settings& settings)
    {
        const toml::node* node = table.get("http");
        if (node == nullptr)
            return true;
        if (!node->is_table())
            return fail(node, "http", "a table is wanted");
        return known(*node->as_table(), "http.", {"listen"}) &&
               text(*node->as_table(), "http.", "listen", settings.listen);
    }

    bool read_fetch(const toml::table& table, http_settings& fetch)
    {
        const toml::node* node = table.get("fetch");
        if (node == nullptr)
            return true;
        if (!node->is_table())
            return fail(node, "fetch", "a table is wanted");
        return known(*node->as_table(), "fetch.", {"ca_file", "netrc"}) &&
               text(*node->as_table(), "fetch.", "ca_file", fetch.ca_file) &&
               text(*node->as_table(), "fetch.", "netrc", fetch.netrc);
    }

    bool read_renditions(const toml::table& table, publisher_settings& settings)
    {
        const toml::node* node = table.get("rendition");
        if (node == nullptr)
            return fail(nullptr, "rendition", "there is none");
        if (!node->is_array_of_tables())
            return fail(node, "rendition", "tables are wanted: [[rendition]]");
        for (const toml::node& element : *node->as_array()) {
            rendition_settings rendition;
            rendition_ = settings.renditions.size();
            note(element, "rendition");
            if (!read_rendition(*element.as_table(), rendition))
                return false;
            if (contains(rendition_names(settings), rendition.name))
                return fail(&element, "rendition.name",
                            fmt::format("there is another {}", rendition.name));
            settings.renditions.push_back(std::move(rendition));
        }
        return true;
    }

    bool read_rendition(const toml::table& table, rendition_settings& rendition)
    {
        if (!known(table, "rendition.", {"name", "sources", "m3u8_name", "wait", "scte35_pid"}) ||
            !rendition_name(table, rendition.name) ||
            !text(table, "rendition.", "m3u8_name", rendition.m3u8_name) ||
            !seconds(table, "rendition.", "wait", {0, most_wait}, rendition.wait) ||
            !number(table, "rendition.", "scte35_pid", least_pid, most_pid, rendition.scte35_pid))
            return false;
        constexpr const char* wanted = "a list of directories or URLs is wanted";
        if (table.get("sources") == nullptr)
            return fail(&table, "rendition.sources", wanted);
        return texts(table, "rendition.", "sources", wanted, rendition.sources);
    }

    std::string path_;
    std::string& error_;
    size_t rendition_ = 0; // that is read
    std::map<std::pair<size_t, std::string>, int64_t> lines_;
};

std::optional<mistake> find_mistake(const std::vector<rendition_settings>& renditions,
                                    const std::string& playlist)
{
    std::vector<std::string> sources; // of all, with the playlist that is followed in them
    for (size_t i = 0; i < renditions.size(); i++) {
        const rendition_settings& rendition = renditions[i];
        for (const std::string& source : rendition.sources) {
            const std::string followed = source + '/' + rendition.m3u8_name;
            std::string reason;
            if (contains(sources, followed))
                return mistake{"rendition.sources", source + " is there twice", i};
            if (is_url(source) && !is_directory_url(source, reason))
                return mistake{"rendition.sources", fmt::format("{}: {}", source, reason), i};
            sources.push_back(followed);
        }
        if (rendition.m3u8_name.find('/') != std::string::npos)
            return mistake{"rendition.m3u8_name", "a name without directories is wanted", i};
        if (playlist.starts_with(rendition.name + '.'))
            return mistake{"rendition.name", rendition.name + " is the master playlist's", i};
    }
    return std::nullopt;
}

struct unit {
    char letter;
    uint64_t times;
};
constexpr unit time_units[] = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 24 * 3600}};
constexpr unit byte_units[] = {
    {'k', 1000}, {'M', 1000000}, {'G', 1000000000}, {'T', 1000000000000}};

// A whole number with the letter of a unit behind it; 0: it is none, or too large.
uint64_t amount_in(const std::string& text, std::span<const unit> units)
{
    uint64_t number = 0;
    const char* end = text.data() + text.size();
    const auto [behind, result] = std::from_chars(text.data(), end, number);
    for (const unit& u : units) {
        if (result == std::errc() && behind + 1 == end && *behind == u.letter &&
            number <= UINT64_MAX / u.times)
            return number * u.times;
    }
    return 0;
}

// `window`, or what it derives from.
std::optional<mistake> complete_list(publisher_settings& settings)
{
    if (settings.dvr.empty()) {
        if (settings.window == 0)
            settings.window = usual_window;
        const std::string alone = "it goes with dvr, which is not there";
        if (!settings.dvr_bytes.empty())
            return mistake{"dvr_bytes", alone};
        return settings.event ? std::optional(mistake{"event", alone}) : std::nullopt;
    }
    const uint64_t seconds = amount_in(settings.dvr, time_units);
    if (settings.window != 0)
        return mistake{"dvr", "window says how much is listed already"};
    if (seconds == 0 || seconds > most_window)
        return mistake{"dvr", "a time up to 7d is wanted, like 24h"};
    settings.window = static_cast<int64_t>(seconds);
    settings.in_folders = true;
    settings.most_bytes = amount_in(settings.dvr_bytes, byte_units);
    if (settings.most_bytes == 0 && !settings.dvr_bytes.empty())
        return mistake{"dvr_bytes", "a number of bytes is wanted, like 200G"};
    return std::nullopt;
}

// Whole seconds; where segments are numbered by the stream's time, one lasts up to a GOP longer
// than is wanted.
int64_t usual_target_duration(const publisher_settings& settings)
{
    const double room = settings.numbers == numbering::stream
                            ? std::clamp(settings.segment, least_gop_room, usual_gop_room)
                            : 0;
    const auto rounded = static_cast<int64_t>(std::floor(settings.segment + room + 0.5));
    return std::clamp<int64_t>(rounded, 1, most_target_duration);
}

// What goes with numbers from the stream's time, and what does not.
std::optional<mistake> find_mistake_of_numbers(const publisher_settings& settings)
{
    if (settings.numbers == numbering::count)
        return settings.peers.empty()
                   ? std::nullopt
                   : std::optional(
                         mistake{"peers", "they go with numbers = \"stream\", which is not there"});
    if (settings.segment + least_gop_room > static_cast<double>(settings.target_duration) + 0.5)
        return mistake{"target_duration",
                       fmt::format("segments of {} s and up to a group of pictures more are longer "
                                   "than {} s, rounded",
                                   settings.segment, settings.target_duration)};
    const std::string counted =
        "it goes not with numbers = \"stream\": two publishers tell it differently";
    if (settings.event)
        return mistake{"event", counted};
    if (settings.iframes)
        return mistake{"iframes", counted};
    for (const std::string& peer : settings.peers) {
        std::string reason = is_url(peer) ? "" : "a URL is wanted";
        if (!reason.empty() || !is_directory_url(peer, reason))
            return mistake{"peers", fmt::format("{}: {}", peer, reason)};
    }
    return std::nullopt;
}

// Derives what was left open.
std::optional<mistake> complete(publisher_settings& settings)
{
    if (settings.output.empty())
        return mistake{"output", "a directory is wanted"};
    settings.output = std::filesystem::absolute(settings.output).lexically_normal().string();
    while (settings.output.size() > 1 && settings.output.back() == '/')
        settings.output.pop_back();
    if (settings.target_duration == 0)
        settings.target_duration = usual_target_duration(settings);
    if (settings.segment >= static_cast<double>(settings.target_duration) + 0.5)
        return mistake{"segment",
                       fmt::format("{} s, rounded, are more than the target duration of {} s",
                                   settings.segment, settings.target_duration)};
    if (auto wrong = complete_list(settings))
        return wrong;
    if (auto wrong = find_mistake_of_numbers(settings))
        return wrong;
    if (settings.state.empty())
        settings.state = settings.output + "/." + settings.playlist + ".sqlite3";
    for (const auto& [key, file] : {std::pair("fetch.ca_file", settings.fetch.ca_file),
                                    std::pair("fetch.netrc", settings.fetch.netrc)}) {
        if (!file.empty() && access(file.c_str(), R_OK) != 0) // it would be missed without a word
            return mistake{key, fmt::format("{}: {}", file, std::strerror(errno))};
    }
    if (!settings.listen.empty() && !is_listen_address(settings.listen))
        return mistake{"http.listen", "ADDRESS:PORT is wanted, with [ADDRESS] where it is IPv6"};
    return find_mistake(settings.renditions, settings.playlist);
}

} // namespace

std::vector<std::string> rendition_names(const publisher_settings& settings)
{
    std::vector<std::string> names;
    for (const rendition_settings& rendition : settings.renditions)
        names.push_back(rendition.name);
    return names;
}

bool read_settings(const std::string& path, publisher_settings& settings, std::string& error)
{
    settings_reader reader(path, error);
    if (!reader.read(settings))
        return false;
    const auto wrong = complete(settings);
    if (wrong)
        error = fmt::format("{}:{}: {}: {}", path, reader.line_of(*wrong), wrong->key, wrong->what);
    return !wrong;
}

bool complete_settings(publisher_settings& settings, std::string& error)
{
    const auto wrong = complete(settings);
    if (wrong)
        error = wrong->key + ": " + wrong->what;
    return !wrong;
}

bool may_change(const publisher_settings& now, const publisher_settings& wanted, std::string& error)
{
    const auto refuse = [&error](const char* key) {
        error = fmt::format("{} cannot change while the presentation is live", key);
        return false;
    };
    if (wanted.output != now.output)
        return refuse("output");
    if (wanted.playlist != now.playlist)
        return refuse("playlist");
    if (wanted.target_duration != now.target_duration)
        return refuse("target_duration");
    if (wanted.event != now.event)
        return refuse("event");
    if (wanted.iframes != now.iframes)
        return refuse("iframes");
    if (wanted.state != now.state)
        return refuse("state");
    if (wanted.numbers != now.numbers)
        return refuse("numbers");
    if (wanted.numbers == numbering::stream && wanted.segment != now.segment)
        return refuse("segment");
    if (wanted.peers != now.peers)
        return refuse("peers");
    if (wanted.listen != now.listen)
        return refuse("http.listen");
    if (wanted.fetch.ca_file != now.fetch.ca_file || wanted.fetch.netrc != now.fetch.netrc)
        return refuse("fetch");
    const auto same = [](const rendition_settings& a, const rendition_settings& b) {
        return a.name == b.name && a.sources == b.sources && a.m3u8_name == b.m3u8_name &&
               a.scte35_pid == b.scte35_pid && a.wait == b.wait;
    };
    if (!std::equal(now.renditions.begin(), now.renditions.end(), wanted.renditions.begin(),
                    wanted.renditions.end(), same))
        return refuse("rendition");
    return true;
}
