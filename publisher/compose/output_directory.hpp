// The directory that a presentation is published in. Whatever appears in it under its name is
// whole: a file is written under another name, checked and closed, and then renamed. A name may
// have a folder before it, "20261122T08Z/main.1.ts", which is made with its first file.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "publisher/base/descriptor.hpp"

// A file of a source, open for reading. It can be read for as long as this lives, also when the
// source has deleted it.
struct source_file {
    descriptor fd;
    std::shared_ptr<const descriptor> directory; // where the name stands
    std::string name;
    uint64_t device = 0;
    uint64_t inode = 0;
};

// Bytes of a source's file.
struct source_range {
    const source_file* file = nullptr;
    uint64_t begin = 0;
    uint64_t end = 0;
};

enum class made_by { failure, link, copy };

struct made_file {
    made_by how = made_by::failure;
    uint64_t bytes = 0;
    bool source_failed = false; // the source no longer has what it had
    std::string error;          // of a failure: what could not be done, and why
};

struct disk_room {
    uint64_t free_bytes = 0; // for this user
    uint64_t bytes = 0;
};

class output_directory
{
public:
    // Opens the directory, and makes it and those above it where they are not there.
    [[nodiscard]] bool open(const std::string& path, std::string& error);

    // Whether the directory still stands under its path.
    [[nodiscard]] bool is_there() const;

    // A segment of `ranges` in a row, behind `tables`. A whole file without tables is linked where
    // that is possible.
    made_file make_segment(const std::string& name, std::span<const uint8_t> tables,
                           std::span<const source_range> ranges);

    made_file make_text(const std::string& name, const std::string& text);

    // Gives a file of ours another name too; false: it has to be made.
    [[nodiscard]] bool link_again(const std::string& made, const std::string& name) const;

    // A file that is written in parts: it stands under its name once it is finished.
    [[nodiscard]] descriptor begin_file(const std::string& name) const;
    [[nodiscard]] bool finish_file(const std::string& name, descriptor file) const;

    // Replaces several files: all are written before the first is renamed.
    [[nodiscard]] bool replace_texts(const std::vector<std::pair<std::string, std::string>>& texts,
                                     std::string& error);

    // These files and their names are on the disk afterwards, whatever becomes of the power.
    [[nodiscard]] bool flush(const std::vector<std::string>& names, std::string& error) const;

    // Gone afterwards, or it was not there; false: it is still there.
    [[nodiscard]] bool remove(const std::string& name) const;

    // Size of a file; -1: there is none.
    [[nodiscard]] int64_t size_of(const std::string& name) const;
    // Its bytes, at most `most`; empty where it cannot be read.
    [[nodiscard]] std::string read_text(const std::string& name, size_t most) const;
    // What is in it, or in one of its folders.
    [[nodiscard]] std::vector<std::string> names(const std::string& folder = ".") const;
    // Removes a folder that is empty; false: it is not, or not there.
    bool remove_folder(const std::string& folder) const;
    [[nodiscard]] disk_room room() const; // zeros where it cannot be told
    [[nodiscard]] int fd() const { return fd_.get(); }

    // Whether a link could not be made for a reason that holds for all files.
    [[nodiscard]] const std::string& why_no_links() const { return why_no_links_; }

private:
    [[nodiscard]] bool make_folder_of(const std::string& name) const;
    [[nodiscard]] bool link_whole(const std::string& name, const source_file& file);
    made_file copy(const std::string& name, std::span<const uint8_t> tables,
                   std::span<const source_range> ranges);
    [[nodiscard]] bool write_new(const std::string& name, std::span<const uint8_t> bytes,
                                 std::string& error) const;

    std::string path_;
    descriptor fd_;
    std::string why_no_links_;
};

// False, and errno says why: not all of it could be written.
[[nodiscard]] bool write_fully(int fd, std::span<const uint8_t> bytes);

// The folder in a name; empty: there is none.
std::string folder_in(const std::string& name);

// What a file is called until it is whole: a dot file, which web servers keep back.
std::string unfinished_name(const std::string& name);
bool is_unfinished_name(const std::string& name);
