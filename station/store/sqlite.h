// SQLite as this room uses it: handles that close themselves, errors that say what kind they are.
#pragma once

#include <sqlite3.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace station {

// A call of SQLite that failed.
class DatabaseError : public std::runtime_error {
  public:
    enum class Kind : uint8_t {
        kFull,     // the disk is full
        kDamaged,  // the file is no database, or its pages do not fit together
        kNewer,    // the file has a schema that only a newer program knows
        kStopped,  // a query was interrupted
        kOther,    // cannot be opened, read or written
    };
    DatabaseError(Kind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}
    Kind kind() const {
        return kind_;
    }

  private:
    Kind kind_;
};

// One prepared statement; parameters and columns count as in SQLite (from 1, from 0).
class Statement {
  public:
    Statement() = default;
    Statement(sqlite3* database, std::string_view sql);

    Statement& bind(int parameter, int64_t value);
    Statement& bind(int parameter, double value);
    Statement& bind(int parameter, std::string_view value);            // copied
    Statement& bind(int parameter, std::span<const std::byte> value);  // a blob, copied
    Statement& bindNull(int parameter);
    template <typename T>
    Statement& bind(int parameter, const std::optional<T>& value) {
        return value ? bind(parameter, *value) : bindNull(parameter);
    }

    bool step();  // true: there is a row
    void run();   // to the end, and ready for the next use
    void reset();

    bool isNull(int column) const;
    int64_t integer(int column) const;
    double real(int column) const;
    std::string text(int column) const;
    // Of a blob; valid until the next step().
    std::span<const std::byte> bytes(int column) const;

  private:
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const {
            sqlite3_finalize(statement);
        }
    };
    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

// How long a connection waits for a file that another program holds.
class Patience {
  public:
    static constexpr std::chrono::milliseconds kUsual{2000};  // for one statement

    // From here on no statement waits beyond this time, nor one that waits already. Any thread.
    void endAt(std::chrono::steady_clock::time_point time) {
        end_ = time.time_since_epoch().count();
    }
    // Whether a statement that began to wait at `since` may go on.
    bool lasts(std::chrono::steady_clock::time_point since) const {
        const auto now = std::chrono::steady_clock::now();
        return now < since + kUsual && now.time_since_epoch().count() < end_;
    }

  private:
    std::atomic<std::chrono::steady_clock::rep> end_ =
        std::chrono::steady_clock::time_point::max().time_since_epoch().count();
};

// One connection, for one thread at a time.
class Database {
  public:
    enum class Mode : uint8_t { kReadWrite, kReadOnly };
    // REQUIRES for kReadWrite: the directory exists; the file is made when it is missing, in WAL mode.
    // `patience` has to outlive it.
    Database(const std::filesystem::path& file, Mode mode, const Patience& patience);
    Database(const Database&) = delete;

    void execute(const char* sql);
    Statement prepare(std::string_view sql);
    int64_t integer(std::string_view sql);  // the first column of the first row; 0 without a row
    int changes() const {
        return sqlite3_changes(handle_.get());
    }
    sqlite3* handle() const {
        return handle_.get();
    }

  private:
    struct Close {
        void operator()(sqlite3* handle) const {
            sqlite3_close_v2(handle);
        }
    };
    static int busy(void* database, int attempts);

    const Patience& patience_;
    std::chrono::steady_clock::time_point waitingSince_{};
    std::unique_ptr<sqlite3, Close> handle_;
};

// A transaction that is rolled back unless it was committed.
class Transaction {
  public:
    explicit Transaction(Database& database);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    void commit();

  private:
    Database& database_;
    bool open_ = true;
};

// Brings the schema to the newest version: runs steps[user_version], and those after it, each in a
// transaction of its own. kNewer when the file is beyond them.
void migrate(Database& database, std::span<const char* const> steps);

// Renames a file that cannot be used, with its -wal and -shm, to FILE.WHY-TIME (UTC, "20261121T225244Z").
// The new name; empty when it could not be renamed. Of those put aside for the same reason the newest
// kPutAsideKept are kept. REQUIRES: no connection to it is open.
inline constexpr std::size_t kPutAsideKept = 5;
std::string putAside(const std::filesystem::path& file, std::string_view why);

// Whether a path still leads to the database that was opened there. One thread.
class DatabasePlace {
  public:
    explicit DatabasePlace(std::filesystem::path file) : file_(std::move(file)) {}

    void opened();  // what is there at this moment is the own file
    // False when the own file was removed since, or another one is in its place: what is written goes
    // nowhere.
    bool inPlace() const;
    // Has the place free for a new file, unless the own one is there: another one, which nobody has read, is
    // put aside as FILE.replaced-TIME with its log. That name; empty when there was none. A DatabaseError
    // when it cannot be renamed. REQUIRES: no connection to it is open.
    std::string clear() const;

  private:
    struct Id {
        dev_t device = 0;
        ino_t inode = 0;  // 0: there is none
        bool operator==(const Id&) const = default;
    };
    static Id idOf(const std::filesystem::path& file);

    const std::filesystem::path file_;
    Id own_, ownLog_;
};

// Size of a database and its log, in bytes.
uint64_t databaseBytes(const std::filesystem::path& file);

}  // namespace station
