#include "store/sqlite.h"

#include <ctime>
#include <set>
#include <system_error>
#include <thread>

namespace station {

namespace {

constexpr int kOfOneSecond = 99;                    // files put aside in it that are told apart
constexpr std::chrono::milliseconds kBusyStep{10};  // between two looks whether the file is free

DatabaseError::Kind kindOf(int code) {
    switch (code & 0xFF) {
        case SQLITE_FULL:
            return DatabaseError::Kind::kFull;
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return DatabaseError::Kind::kDamaged;
        case SQLITE_INTERRUPT:
            return DatabaseError::Kind::kStopped;
        default:
            return DatabaseError::Kind::kOther;
    }
}

[[noreturn]] void fail(sqlite3* handle, int code) {
    throw DatabaseError(kindOf(code), handle != nullptr ? sqlite3_errmsg(handle) : sqlite3_errstr(code));
}

void check(sqlite3* handle, int code) {
    if (code != SQLITE_OK) {
        fail(handle, code);
    }
}

}  // namespace

Statement::Statement(sqlite3* database, std::string_view sql) {
    sqlite3_stmt* statement = nullptr;
    check(database, sqlite3_prepare_v3(database, sql.data(), static_cast<int>(sql.size()),
                                       SQLITE_PREPARE_PERSISTENT, &statement, nullptr));
    statement_.reset(statement);
}

Statement& Statement::bind(int parameter, int64_t value) {
    check(sqlite3_db_handle(statement_.get()), sqlite3_bind_int64(statement_.get(), parameter, value));
    return *this;
}

Statement& Statement::bind(int parameter, double value) {
    check(sqlite3_db_handle(statement_.get()), sqlite3_bind_double(statement_.get(), parameter, value));
    return *this;
}

Statement& Statement::bind(int parameter, std::string_view value) {
    // A null pointer would be bound as NULL.
    const char* const bytes = value.data() == nullptr ? "" : value.data();
    check(sqlite3_db_handle(statement_.get()),
          sqlite3_bind_text(statement_.get(), parameter, bytes, static_cast<int>(value.size()),
                            SQLITE_TRANSIENT));
    return *this;
}

Statement& Statement::bind(int parameter, std::span<const std::byte> value) {
    check(sqlite3_db_handle(statement_.get()),
          sqlite3_bind_blob(statement_.get(), parameter, value.data(), static_cast<int>(value.size()),
                            SQLITE_TRANSIENT));
    return *this;
}

Statement& Statement::bindNull(int parameter) {
    check(sqlite3_db_handle(statement_.get()), sqlite3_bind_null(statement_.get(), parameter));
    return *this;
}

bool Statement::step() {
    const int code = sqlite3_step(statement_.get());
    if (code == SQLITE_ROW) {
        return true;
    }
    if (code != SQLITE_DONE) {
        const DatabaseError error(kindOf(code), sqlite3_errmsg(sqlite3_db_handle(statement_.get())));
        reset();
        throw error;
    }
    return false;
}

void Statement::run() {
    while (step()) {
    }
    reset();
}

void Statement::reset() {
    sqlite3_reset(statement_.get());
    sqlite3_clear_bindings(statement_.get());
}

bool Statement::isNull(int column) const {
    return sqlite3_column_type(statement_.get(), column) == SQLITE_NULL;
}

int64_t Statement::integer(int column) const {
    return sqlite3_column_int64(statement_.get(), column);
}

double Statement::real(int column) const {
    return sqlite3_column_double(statement_.get(), column);
}

std::string Statement::text(int column) const {
    const auto* const bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_.get(), column));
    const int size = sqlite3_column_bytes(statement_.get(), column);
    return bytes == nullptr ? std::string() : std::string(bytes, static_cast<std::size_t>(size));
}

std::span<const std::byte> Statement::bytes(int column) const {
    const auto* const first = static_cast<const std::byte*>(sqlite3_column_blob(statement_.get(), column));
    const int size = sqlite3_column_bytes(statement_.get(), column);
    return first == nullptr ? std::span<const std::byte>() : std::span(first, static_cast<std::size_t>(size));
}

int Database::busy(void* database, int attempts) {
    auto* const self = static_cast<Database*>(database);
    if (attempts == 0) {
        self->waitingSince_ = std::chrono::steady_clock::now();
    }
    if (!self->patience_.lasts(self->waitingSince_)) {
        return 0;
    }
    std::this_thread::sleep_for(kBusyStep);
    return 1;
}

Database::Database(const std::filesystem::path& file, Mode mode, const Patience& patience)
    : patience_(patience) {
    const int flags =
        SQLITE_OPEN_NOMUTEX |
        (mode == Mode::kReadOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    sqlite3* handle = nullptr;
    const int code = sqlite3_open_v2(file.c_str(), &handle, flags, nullptr);
    handle_.reset(handle);
    check(handle, code);
    sqlite3_extended_result_codes(handle, 1);
    sqlite3_busy_handler(handle, &Database::busy, this);
    if (mode == Mode::kReadWrite) {
        execute("PRAGMA journal_mode = WAL; PRAGMA journal_size_limit = 16777216;");
    }
}

void Database::execute(const char* sql) {
    check(handle_.get(), sqlite3_exec(handle_.get(), sql, nullptr, nullptr, nullptr));
}

Statement Database::prepare(std::string_view sql) {
    return Statement(handle_.get(), sql);
}

int64_t Database::integer(std::string_view sql) {
    Statement statement = prepare(sql);
    return statement.step() ? statement.integer(0) : 0;
}

Transaction::Transaction(Database& database) : database_(database) {
    database_.execute("BEGIN IMMEDIATE");
}

Transaction::~Transaction() {
    if (open_) {  // SQLite may have rolled back by itself: the result does not matter
        sqlite3_exec(database_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

void Transaction::commit() {
    database_.execute("COMMIT");
    open_ = false;
}

void migrate(Database& database, std::span<const char* const> steps) {
    const auto newest = static_cast<int64_t>(steps.size());
    const int64_t version = database.integer("PRAGMA user_version");
    if (version < 0 || version > newest) {
        throw DatabaseError(DatabaseError::Kind::kNewer, "it has schema " + std::to_string(version) +
                                                             ", known are schemas up to " +
                                                             std::to_string(newest));
    }
    for (int64_t step = version; step < newest; ++step) {
        Transaction transaction(database);
        database.execute(steps[static_cast<std::size_t>(step)]);
        database.execute(("PRAGMA user_version = " + std::to_string(step + 1)).c_str());
        transaction.commit();
    }
}

namespace {

// The newest kPutAsideKept stay: a disk that damages file after file must not fill up with them.
void removeOldest(const std::filesystem::path& file, const std::string& prefix) {
    std::error_code error;
    std::set<std::filesystem::path> databases;
    for (const auto& entry : std::filesystem::directory_iterator(file.parent_path(), error)) {
        const std::string name = entry.path().filename().string();
        if (name.starts_with(prefix) && !name.ends_with("-wal") && !name.ends_with("-shm")) {
            databases.insert(entry.path());
        }
    }
    while (databases.size() > kPutAsideKept) {
        for (const char* suffix : {"", "-wal", "-shm"}) {
            std::filesystem::remove(databases.begin()->string() + suffix, error);
        }
        databases.erase(databases.begin());
    }
}

}  // namespace

std::string putAside(const std::filesystem::path& file, std::string_view why) {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    char time[32];
    std::strftime(time, sizeof time, "%Y%m%dT%H%M%SZ", gmtime_r(&now, &utc));
    const auto name = [plain = file.string() + "." + std::string(why) + "-" + time](int number) {
        return number == 0 ? plain : plain + (number < 10 ? "-0" : "-") + std::to_string(number);
    };
    // Several of one second follow each other by name as well, whichever of them are gone again.
    std::error_code error;
    int free = 0;
    for (int number = 0; number < kOfOneSecond; ++number) {
        free = std::filesystem::exists(name(number), error) ? number + 1 : free;
    }
    std::string base = name(free);
    std::filesystem::rename(file, base, error);
    if (error) {
        return {};
    }
    for (const char* suffix : {"-wal", "-shm"}) {
        std::filesystem::rename(file.string() + suffix, base + suffix, error);
    }
    removeOldest(file, file.filename().string() + "." + std::string(why) + "-");
    return base;
}

DatabasePlace::Id DatabasePlace::idOf(const std::filesystem::path& file) {
    struct stat status {};
    return stat(file.c_str(), &status) == 0 ? Id{status.st_dev, status.st_ino} : Id{};
}

void DatabasePlace::opened() {
    own_ = idOf(file_);
    ownLog_ = idOf(file_.string() + "-wal");
}

bool DatabasePlace::inPlace() const {
    return idOf(file_) == own_ && own_ != Id{};
}

std::string DatabasePlace::clear() const {
    std::error_code error;
    if (inPlace() ||
        std::filesystem::symlink_status(file_, error).type() == std::filesystem::file_type::not_found) {
        return {};
    }
    // The own log would be replayed into the other file.
    if (const Id log = idOf(file_.string() + "-wal"); log == ownLog_ && log != Id{}) {
        for (const char* companion : {"-wal", "-shm"}) {
            std::filesystem::remove(file_.string() + companion, error);
        }
    }
    std::string aside = putAside(file_, "replaced");
    if (aside.empty()) {
        throw DatabaseError(DatabaseError::Kind::kOther,
                            "another file took its place, and cannot be renamed");
    }
    return aside;
}

uint64_t databaseBytes(const std::filesystem::path& file) {
    uint64_t bytes = 0;
    for (const char* suffix : {"", "-wal"}) {
        std::error_code error;
        const auto size = std::filesystem::file_size(file.string() + suffix, error);
        bytes += error ? 0 : size;
    }
    return bytes;
}

}  // namespace station
