// What another publisher of the same stream publishes, held against what is published here. Both
// number by the stream's time, so a viewer may be sent from one to the other with every request, as
// long as their lists say the same.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "publisher/config/settings.hpp"
#include "publisher/follow/http_client.hpp"
#include "publisher/text/media_list.hpp"
#include "publisher/text/presentation.hpp"

// Of an answer of a peer; those of a day's list are far below it.
constexpr uint64_t most_peer_list_bytes = uint64_t{16} << 20;

// How long a peer may take: what it does is no reason to wait.
http_settings peer_http(const publisher_settings& settings);

std::string peer_file_url(const std::string& peer, const std::string& name);

// The list of the first rendition.
std::string peer_list_url(const publisher_settings& settings, const std::string& peer);

// What a peer sent; nothing: it is no list of a publisher, and `error` says why.
std::optional<media_list> read_peer_list(std::string_view text, std::string& error);

// Whether a list that has been the same for so long is that of a publisher that has ended.
bool stands_still(const publisher_settings& settings, int64_t ms);

// What the two say differently about the newest segments that both list; empty: nothing.
std::string difference(const presentation& ours, const std::string& track,
                       const media_list& theirs);
