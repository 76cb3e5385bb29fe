// The state in an SQLite database of its own. A step is one transaction, so that a process killed
// at any instant leaves the step before or the step after.
//
// The database is locked for as long as the store is open: a presentation has one publisher.
#pragma once

#include <memory>
#include <string>

#include "publisher/state/stored_state.hpp"

struct sqlite3;

// What tells one presentation from another.
struct presentation_identity {
    std::string output; // absolute path of its directory
    std::string playlist;
    int64_t target_duration = 0;
    int64_t slot = 0; // ticks: numbers are those of slots as long as this; 0: they are counted
};

enum class state_opening {
    resumed, // there was a state, and it was read
    fresh,   // there was none
    refused, // it is of another presentation or of a newer version, or another process has it
    damaged, // it cannot be read, or is of an older version: set it aside
    failed,  // it cannot be opened or written
};

class state_store
{
public:
    state_store();
    ~state_store();
    state_store(const state_store&) = delete;
    state_store& operator=(const state_store&) = delete;

    // Opens or makes the database. In the last three cases it is not open afterwards, and `error`
    // says what is the matter.
    state_opening open(const std::string& path, const presentation_identity& identity,
                       stored_state& state, std::string& error);

    // Makes the step durable; false: nothing of it is, and `error` says why.
    [[nodiscard]] bool save(const state_step& step, std::string& error);

    // Puts the whole state into a database that has none yet.
    [[nodiscard]] bool save_all(const stored_state& state, std::string& error);

    void close();
    [[nodiscard]] bool is_open() const { return db_ != nullptr; }

private:
    struct closer {
        void operator()(sqlite3* db) const;
    };

    state_opening try_to_open(const std::string& path, const presentation_identity& identity,
                              stored_state& state, std::string& error);
    bool run(const char* sql, std::string& error);
    bool create(const presentation_identity& identity, std::string& error);
    state_opening check(const presentation_identity& identity, std::string& error);
    bool load(stored_state& state, std::string& error);
    bool write(const state_step& step, std::string& error);

    std::unique_ptr<sqlite3, closer> db_;
};

// Moves a damaged state out of the way, under a name that tells what it is. Returns the new name;
// empty: it could not be moved.
std::string set_aside(const std::string& path);
