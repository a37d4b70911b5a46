#pragma once
/// Record fields that go into a message as they stand, as a table of key and member in the order on the wire.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <variant>

#include "base/json.h"

namespace arvok {

/// A decimal text that travels as a number. Exact up to 2^53; 0 for none.
template <typename Record>
struct decimal {
    char *Record::*member;
};
template <typename Record>
decimal(char *Record::*) -> decimal<Record>;

/// A number that travels as its decimal text.
template <typename Record, typename Number>
struct printed {
    Number Record::*member;
};

template <typename Record>
struct field {
    const char *key;
    std::variant<char * Record::*, std::uint32_t Record::*, std::int32_t Record::*, decimal<Record>,
                 printed<Record, std::uint32_t>, printed<Record, std::int32_t>>
        source;
};

template <typename Record>
class field_writer {
  public:
    field_writer(json::writer &object, const Record &record, const char *key)
        : object_(object), record_(record), key_(key) {}
    void operator()(char *Record::*member) const { object_.text(key_, record_.*member); }
    void operator()(std::uint32_t Record::*member) const { object_.number(key_, record_.*member); }
    void operator()(std::int32_t Record::*member) const { object_.number(key_, record_.*member); }
    void operator()(decimal<Record> d) const {
        const char *text = record_.*d.member;
        object_.number(key_, text ? static_cast<double>(std::strtoll(text, nullptr, 10)) : 0);
    }
    template <typename Number>
    void operator()(printed<Record, Number> p) const {
        object_.digits(key_, record_.*p.member);
    }

  private:
    json::writer &object_;
    const Record &record_;
    const char *key_;
};

/// Adds the fields of a record in the order of the table.
template <typename Record, std::size_t N>
void add_fields(json::writer &object, const Record &record, const field<Record> (&table)[N]) {
    for (const field<Record> &f : table)
        std::visit(field_writer<Record>(object, record, f.key), f.source);
}

/// An object of exactly those fields, as the value that is next.
template <typename Record, std::size_t N>
void add_object(json::writer &to, const Record &record, const field<Record> (&table)[N]) {
    to.open_object();
    add_fields(to, record, table);
    to.close();
}

}  // namespace arvok
