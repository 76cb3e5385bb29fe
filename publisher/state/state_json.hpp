// Records of the state as JSON text, for columns that are read and written whole.
#pragma once

#include <string>
#include <vector>

#include "publisher/state/stored_state.hpp"

std::string to_json(const stored_head& head);
std::string to_json(const master_facts& master);
std::string to_json(const std::vector<segment_file>& files);

// False: the text is not what the function above writes.
[[nodiscard]] bool from_json(const std::string& text, stored_head& head);
[[nodiscard]] bool from_json(const std::string& text, master_facts& master);
[[nodiscard]] bool from_json(const std::string& text, std::vector<segment_file>& files);
