#include "publisher/state/state_store.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <tuple>

#include <fmt/format.h>
#include <sqlite3.h>

#include "publisher/state/state_json.hpp"

namespace
{

constexpr int state_version = 4; // PRAGMA user_version

// Small pages, because a step touches a few of them and each is written whole. Lost with a power
// cut is at most the last steps, which the playlists on disk then tell of.
constexpr const char* settings = "PRAGMA page_size=1024;"
                                 "PRAGMA locking_mode=EXCLUSIVE;"
                                 "PRAGMA journal_mode=WAL;"
                                 "PRAGMA synchronous=NORMAL;"
                                 "PRAGMA wal_autocheckpoint=256;"
                                 "PRAGMA cache_size=-256;";

constexpr const char* schema =
    "CREATE TABLE meta(key TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID;"
    // due_ms is null while the segment is listed.
    "CREATE TABLE segment(sequence INTEGER PRIMARY KEY, discontinuity_number INTEGER NOT NULL,"
    " discontinuity INTEGER NOT NULL, independent INTEGER NOT NULL, duration INTEGER NOT NULL,"
    " date INTEGER NOT NULL, in_folder INTEGER NOT NULL, list_duration INTEGER NOT NULL,"
    " files TEXT NOT NULL, due_ms INTEGER, hold_ms INTEGER);";

class statement
{
public:
    statement(sqlite3* db, const char* sql)
    {
        // A failure leaves null, which every use below refuses.
        if (sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr) != SQLITE_OK)
            statement_ = nullptr;
    }
    ~statement() { sqlite3_finalize(statement_); }
    statement(const statement&) = delete;
    statement& operator=(const statement&) = delete;

    statement& bind(int at, int64_t value)
    {
        good_ = good_ && sqlite3_bind_int64(statement_, at, value) == SQLITE_OK;
        return *this;
    }
    statement& bind(int at, const std::string& value)
    {
        good_ =
            good_ && sqlite3_bind_text(statement_, at, value.data(), static_cast<int>(value.size()),
                                       SQLITE_TRANSIENT) == SQLITE_OK;
        return *this;
    }

    [[nodiscard]] bool done()
    {
        return statement_ != nullptr && good_ && sqlite3_step(statement_) == SQLITE_DONE;
    }
    // SQLITE_ROW, SQLITE_DONE or an error.
    int step() { return statement_ == nullptr ? SQLITE_ERROR : sqlite3_step(statement_); }
    void again()
    {
        sqlite3_reset(statement_);
        good_ = statement_ != nullptr;
    }

    [[nodiscard]] int64_t number(int column) const
    {
        return sqlite3_column_int64(statement_, column);
    }
    [[nodiscard]] bool is_null(int column) const
    {
        return sqlite3_column_type(statement_, column) == SQLITE_NULL;
    }
    [[nodiscard]] std::string text(int column) const
    {
        const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
        return bytes == nullptr
                   ? ""
                   : std::string(bytes,
                                 static_cast<size_t>(sqlite3_column_bytes(statement_, column)));
    }

private:
    sqlite3_stmt* statement_ = nullptr;
    bool good_ = true;
};

bool put_meta(sqlite3* db, const char* key, const std::string& value)
{
    return statement(db, "INSERT INTO meta VALUES(?1,?2)"
                         " ON CONFLICT(key) DO UPDATE SET value=?2")
        .bind(1, std::string(key))
        .bind(2, value)
        .done();
}

// Empty where there is none.
std::string get_meta(sqlite3* db, const char* key)
{
    statement get(db, "SELECT value FROM meta WHERE key=?1");
    get.bind(1, std::string(key));
    return get.step() == SQLITE_ROW ? get.text(0) : "";
}

bool put_segment(statement& put, const segment& s, const retired_segment* retired)
{
    put.again();
    put.bind(1, static_cast<int64_t>(s.sequence))
        .bind(2, static_cast<int64_t>(s.discontinuity_number))
        .bind(3, s.discontinuity ? 1 : 0)
        .bind(4, s.independent ? 1 : 0)
        .bind(5, s.duration)
        .bind(6, s.date)
        .bind(7, s.in_folder ? 1 : 0)
        .bind(8, s.list_duration)
        .bind(9, to_json(s.files));
    if (retired != nullptr)
        put.bind(10, retired->due_ms).bind(11, retired->hold_ms);
    return put.done();
}

constexpr const char* insert_listed =
    "INSERT OR REPLACE INTO segment VALUES(?1,?2,?3,?4,?5,?6,?7,?8,?9,NULL,NULL)";
constexpr const char* insert_retired =
    "INSERT OR REPLACE INTO segment VALUES(?1,?2,?3,?4,?5,?6,?7,?8,?9,?10,?11)";

bool is_damage(int code)
{
    return code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
}

// What cannot be read now may be whole.
bool cannot_read(sqlite3* db)
{
    return (sqlite3_errcode(db) & 0xFF) == SQLITE_IOERR;
}

bool same_number(const std::string& text, int64_t number)
{
    return text == std::to_string(number);
}

} // namespace

void state_store::closer::operator()(sqlite3* db) const
{
    sqlite3_close_v2(db);
}

state_store::state_store() = default;
state_store::~state_store() = default;

void state_store::close()
{
    db_.reset();
}

bool state_store::run(const char* sql, std::string& error)
{
    if (sqlite3_exec(db_.get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK)
        return true;
    error = sqlite3_errmsg(db_.get());
    return false;
}

state_opening state_store::open(const std::string& path, const presentation_identity& identity,
                                stored_state& state, std::string& error)
{
    const state_opening opening = try_to_open(path, identity, state, error);
    if (opening != state_opening::resumed && opening != state_opening::fresh)
        close();
    return opening;
}

state_opening state_store::try_to_open(const std::string& path,
                                       const presentation_identity& identity, stored_state& state,
                                       std::string& error)
{
    sqlite3* opened = nullptr;
    const int opening =
        sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    db_.reset(opened);
    if (opening != SQLITE_OK) {
        error = opened == nullptr ? "no memory" : sqlite3_errmsg(opened);
        return state_opening::failed;
    }
    // The journal mode is the first to read the file.
    if (!run(settings, error)) {
        const int code = sqlite3_errcode(opened);
        if (code == SQLITE_BUSY) {
            error = "another process has it open";
            return state_opening::refused;
        }
        return is_damage(code) ? state_opening::damaged : state_opening::failed;
    }
    const state_opening found = check(identity, error);
    if (found == state_opening::fresh)
        return create(identity, error) ? found : state_opening::failed;
    if (found != state_opening::resumed)
        return found;
    if (!load(state, error))
        return cannot_read(opened) ? state_opening::failed : state_opening::damaged;
    return state_opening::resumed;
}

state_opening state_store::check(const presentation_identity& identity, std::string& error)
{
    // Takes the lock now, and finds out whether the file can be written at all.
    if (!run("BEGIN IMMEDIATE", error)) {
        const int code = sqlite3_errcode(db_.get());
        if (code == SQLITE_BUSY) {
            error = "another process has it open";
            return state_opening::refused;
        }
        return is_damage(code) ? state_opening::damaged : state_opening::failed;
    }
    statement sound(db_.get(), "PRAGMA quick_check(1)");
    if (sound.step() != SQLITE_ROW) {
        error = sqlite3_errmsg(db_.get());
        return cannot_read(db_.get()) ? state_opening::failed : state_opening::damaged;
    }
    if (sound.text(0) != "ok") {
        error = "it does not pass SQLite's check";
        return state_opening::damaged;
    }
    statement get_version(db_.get(), "PRAGMA user_version");
    const int64_t version = get_version.step() == SQLITE_ROW ? get_version.number(0) : 0;
    statement count(db_.get(), "SELECT count(*) FROM sqlite_master");
    const bool is_empty = count.step() == SQLITE_ROW && count.number(0) == 0;
    if (version == 0 && is_empty)
        return state_opening::fresh;
    if (version > state_version) {
        error = fmt::format("it is of version {}, and this program knows versions up to {}",
                            version, state_version);
        return state_opening::refused;
    }
    if (version == 0) {
        error = "it is no state of this program";
        return state_opening::refused;
    }
    if (get_meta(db_.get(), "output") != identity.output ||
        get_meta(db_.get(), "playlist") != identity.playlist) {
        error = fmt::format("it is of another presentation: {}/{}", get_meta(db_.get(), "output"),
                            get_meta(db_.get(), "playlist"));
        return state_opening::refused;
    }
    const std::string target = get_meta(db_.get(), "target_duration");
    if (!same_number(target, identity.target_duration)) {
        error = fmt::format("its target duration is {} s and not {} s, and it never changes",
                            target, identity.target_duration);
        return state_opening::refused;
    }
    if (version < state_version) { // the playlists tell enough to go on from
        error = fmt::format("it is of the older version {}", version);
        return state_opening::damaged;
    }
    const std::string slot = get_meta(db_.get(), "slot");
    if (!slot.empty() && !same_number(slot, 0) && !same_number(slot, identity.slot)) {
        error = "its numbers are of the stream's time, and neither that nor segment ever changes";
        return state_opening::refused;
    }
    if (!put_meta(db_.get(), "slot", std::to_string(identity.slot))) { // it was counted until now
        error = sqlite3_errmsg(db_.get());
        return state_opening::failed;
    }
    return run("COMMIT", error) ? state_opening::resumed : state_opening::failed;
}

// Inside the transaction that check() began.
bool state_store::create(const presentation_identity& identity, std::string& error)
{
    const std::string version = fmt::format("PRAGMA user_version={}", state_version);
    if (!run(schema, error) || !run(version.c_str(), error))
        return false;
    const bool good =
        put_meta(db_.get(), "output", identity.output) &&
        put_meta(db_.get(), "playlist", identity.playlist) &&
        put_meta(db_.get(), "target_duration", std::to_string(identity.target_duration)) &&
        put_meta(db_.get(), "slot", std::to_string(identity.slot)) &&
        put_meta(db_.get(), "head", to_json(stored_head{})) &&
        put_meta(db_.get(), "master", to_json(master_facts{}));
    if (!good) {
        error = sqlite3_errmsg(db_.get());
        return false;
    }
    return run("COMMIT", error);
}

bool state_store::load(stored_state& state, std::string& error)
{
    state = {};
    if (!from_json(get_meta(db_.get(), "head"), state.head) ||
        !from_json(get_meta(db_.get(), "master"), state.master)) {
        error = "what it holds cannot be read";
        return false;
    }
    statement get(db_.get(),
                  "SELECT sequence,discontinuity_number,discontinuity,independent,duration,date,"
                  "in_folder,list_duration,files,due_ms,hold_ms FROM segment ORDER BY sequence");
    int result = get.step();
    for (; result == SQLITE_ROW; result = get.step()) {
        segment s{
            .sequence = static_cast<uint64_t>(get.number(0)),
            .discontinuity_number = static_cast<uint64_t>(get.number(1)),
            .discontinuity = get.number(2) != 0,
            .independent = get.number(3) != 0,
            .in_folder = get.number(6) != 0,
            .duration = get.number(4),
            .date = get.number(5),
            .list_duration = get.number(7),
            .files = {},
        };
        if (!from_json(get.text(8), s.files)) {
            error = fmt::format("its segment {} cannot be read", s.sequence);
            return false;
        }
        if (get.is_null(9))
            state.listed.push_back(std::move(s));
        else
            state.retired.push_back(
                {.what = std::move(s), .due_ms = get.number(9), .hold_ms = get.number(10)});
    }
    if (result != SQLITE_DONE) {
        error = sqlite3_errmsg(db_.get());
        return false;
    }
    return true;
}

bool state_store::write(const state_step& step, std::string& error)
{
    sqlite3* db = db_.get();
    bool good = put_meta(db, "head", to_json(step.head));
    if (step.master != nullptr)
        good = good && put_meta(db, "master", to_json(*step.master));
    statement add(db, insert_listed);
    for (const segment& s : step.added)
        good = good && put_segment(add, s, nullptr);
    statement retire(db, insert_retired);
    for (const retired_segment& r : step.retired)
        good = good && put_segment(retire, r.what, &r);
    statement remove(db, "DELETE FROM segment WHERE sequence=?1");
    for (const uint64_t sequence : step.removed) {
        remove.again();
        good = good && remove.bind(1, static_cast<int64_t>(sequence)).done();
    }
    if (!good)
        error = sqlite3_errmsg(db);
    return good;
}

bool state_store::save(const state_step& step, std::string& error)
{
    if (!db_) {
        error = "it is not open";
        return false;
    }
    if (!run("BEGIN IMMEDIATE", error))
        return false;
    if (write(step, error) && run("COMMIT", error))
        return true;
    std::string ignored; // the first error is the one to tell
    if (sqlite3_get_autocommit(db_.get()) == 0)
        run("ROLLBACK", ignored);
    return false;
}

bool state_store::save_all(const stored_state& state, std::string& error)
{
    const state_step step{
        .head = state.head,
        .added = {state.listed.begin(), state.listed.end()},
        .retired = {state.retired.begin(), state.retired.end()},
        .removed = {},
        .master = &state.master,
    };
    return save(step, error);
}

std::string set_aside(const std::string& path)
{
    for (int n = 1; n < 1000; n++) {
        std::string aside = fmt::format("{}.damaged-{}", path, n);
        if (std::filesystem::exists(aside))
            continue;
        if (std::rename(path.c_str(), aside.c_str()) != 0)
            return "";
        for (const char* suffix : {"-wal", "-shm"}) // there or not
            std::ignore = std::rename((path + suffix).c_str(), (aside + suffix).c_str());
        return aside;
    }
    return "";
}
