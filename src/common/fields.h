#pragma once
/// Record fields that go into a message as they stand, as a table of key and member in the order on the wire.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <variant>

#include "common/json.h"
#include "common/text.h"

namespace arvok {

/// A decimal text that travels as a number. Exact up to 2^53.
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

/// The number that a decimal text stands for; 0 for none.
inline double decimal_number(const char *text) {
    return text ? static_cast<double>(std::strtoll(text, nullptr, 10)) : 0;
}

template <typename Record>
class field_writer {
  public:
    field_writer(json_object &object, const Record &record, const char *key)
        : object_(object), record_(record), key_(key) {}
    void operator()(char *Record::*member) const { object_.text(key_, record_.*member); }
    void operator()(std::uint32_t Record::*member) const { object_.number(key_, record_.*member); }
    void operator()(std::int32_t Record::*member) const { object_.number(key_, record_.*member); }
    void operator()(decimal<Record> d) const { object_.number(key_, decimal_number(record_.*d.member)); }
    template <typename Number>
    void operator()(printed<Record, Number> p) const {
        object_.text(key_, std::to_string(record_.*p.member).c_str());
    }

  private:
    json_object &object_;
    const Record &record_;
    const char *key_;
};

/// Adds the fields of a record in the order of the table.
template <typename Record, std::size_t N>
void add_fields(json_object &object, const Record &record, const field<Record> (&table)[N]) {
    for (const field<Record> &f : table)
        std::visit(field_writer<Record>(object, record, f.key), f.source);
}

/// An object of exactly those fields.
template <typename Record, std::size_t N>
json_ptr object_of(const Record &record, const field<Record> (&table)[N]) {
    json_object object;
    add_fields(object, record, table);
    return object.take();
}

}  // namespace arvok
