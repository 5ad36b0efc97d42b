// Another program that has a database for itself.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>

namespace station {

struct Holder {
    explicit Holder(const std::filesystem::path& file) {
        EXPECT_EQ(sqlite3_open(file.c_str(), &handle), SQLITE_OK);
        sqlite3_busy_timeout(handle, 2000);
        EXPECT_EQ(sqlite3_exec(handle, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    }
    ~Holder() {
        sqlite3_close(handle);
    }
    Holder(const Holder&) = delete;
    sqlite3* handle = nullptr;
};

}  // namespace station
