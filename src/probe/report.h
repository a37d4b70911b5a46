#pragma once
/// What the probe tells: on standard output one JSON object, a line for each call; on standard error a line
/// for each remark. A call that does not come back in 10 s or crashes ends the process, with the object
/// closed, an error line and status 1.

#include <cstdint>
#include <initializer_list>
#include <string>

#include "base/fields.h"

namespace arvok::probe {

class report {
  public:
    report();
    ~report();  ///< closes the object
    report(const report &) = delete;
    report &operator=(const report &) = delete;

    /// The call of that name, with its arguments, begins now; with end() it has come back.
    void begin(const std::string &call);
    void end();
    /// Whether the agent could afford to wait for it as long.
    void check_time();
    /// Writes the call's line: its time, what came of it as member `kind`, and the remarks.
    void write(const char *kind, const json::value &outcome);

    /// What the agent refuses, cuts or takes for something else.
    void remark(const std::string &text) { note("remark", remarks_, text); }
    /// The agent cannot work on this device.
    void error(const std::string &text) { note("error", errors_, text); }

    /// 1 after an error.
    int status() const { return usable_ ? 0 : 1; }

  private:
    void note(const char *rank, json::array &list, const std::string &text);

    std::string call_;
    std::int64_t begun_us_ = 0, took_us_ = 0;
    json::array remarks_, errors_;
    bool first_ = true, usable_ = true;
};

/// One record on its way into the report: its members as the agent reports them, and what it thinks of them.
class item {
  public:
    /// `place` names the record in remarks: empty, or its place in a list.
    item(report &to, std::string place) : report_(to), place_(std::move(place)) {}

    /// Members of a table; of each text that it is there, of each decimal text that it is one.
    template <typename Record, std::size_t N>
    void add(const Record &record, const field<Record> (&table)[N]) {
        add_fields(members, record, table);
        for (const field<Record> &f : table) {
            if (const auto *text = std::get_if<char * Record::*>(&f.source))
                check_text(f.key, record.**text);
            else if (const auto *digits = std::get_if<decimal<Record>>(&f.source))
                check_decimal(f.key, record.*digits->member);
        }
    }
    /// A list of numbers that ends with a zero.
    void add_numbers(const char *key, const std::uint32_t *numbers);

    // --- what the agent makes of a member ---

    void check_mac(const char *key, const char *text);
    /// A word that is none of these counts as the last.
    void check_word(const char *key, const char *text, std::initializer_list<const char *> words);
    void check_range(const char *key, std::int64_t n, std::int64_t least, std::int64_t most);
    void remark(const char *key, const std::string &text) { report_.remark(place_ + key + ": " + text); }
    void error(const char *key, const std::string &text) { report_.error(place_ + key + ": " + text); }

    json::object members;

  private:
    void check_text(const char *key, const char *text);
    void check_decimal(const char *key, const char *text);

    report &report_;
    std::string place_;
};

/// A text of the platform as it may stand in a line.
std::string quoted(const char *text);
/// Of a key or token, its length.
std::string masked(const char *text);

}  // namespace arvok::probe
