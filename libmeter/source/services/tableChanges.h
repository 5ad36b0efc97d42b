// What is different between two versions of a table, as events for people and programs.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "meter/report.h"
#include "services/tables.h"

namespace meter {

// Appends the changes of one table to a list; `what` is one of the words that libmeter's reports list.
class ChangeWriter {
  public:
    // `table`: "PAT", "PMT", "SDT". `at`: in seconds since the begin.
    ChangeWriter(std::vector<ChangeReport>& changes, double at, const char* table,
                 std::optional<uint16_t> program = std::nullopt)
        : changes_(changes), at_(at), table_(table), program_(program), before_(changes.size()) {}

    void add(const char* what, std::optional<uint16_t> program, std::optional<uint16_t> pid,
             std::string text);
    // Where nothing that is read changed, says so: another version, or other content under the same one.
    void addUnexplained(uint8_t versionBefore, uint8_t version);
    std::optional<uint16_t> program() const {
        return program_;
    }

  private:
    std::vector<ChangeReport>& changes_;
    double at_;
    const char* table_;
    std::optional<uint16_t> program_;
    std::size_t before_;
};

void comparePat(const std::vector<ProgramEntry>& before, const std::vector<ProgramEntry>& after,
                ChangeWriter& changes);
void comparePmt(const Pmt& before, const Pmt& after, ChangeWriter& changes);
void compareSdt(const std::vector<ServiceEntry>& before, const std::vector<ServiceEntry>& after,
                ChangeWriter& changes);

}  // namespace meter
