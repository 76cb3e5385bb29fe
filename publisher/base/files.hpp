// Files that others have written. What stands under a name is not trusted: only a regular file is
// read, and opening whatever else there is does not wait.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "publisher/base/descriptor.hpp"

// Whether it names something in a directory: neither a path nor the directory itself.
bool is_file_name(std::string_view name);

// Open for reading; empty: there is no such regular file. The name may have a folder before it, in
// whose place no link is followed either.
descriptor open_file(int directory, const std::string& name);

// Names of what a folder of the directory has, "." being the directory itself; empty where it
// cannot be read.
std::vector<std::string> names_in(int directory, const std::string& folder);

// The bytes of a file, at most about `most`; empty where it cannot be read.
std::string read_text(int directory, const std::string& name, size_t most);

// When it was written last, as the file tells it, to be compared with other files: milliseconds
// since 1970; 0: it does not.
int64_t file_time_ms(const descriptor& file);

// When it was written last: milliseconds since 1970. Now, where the file does not tell, or tells of
// a time to come: the clock was set back.
int64_t written_ms(const descriptor& file);
