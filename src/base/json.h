#pragma once
/// JSON: messages that came in, read through borrowed views, and messages that go out, written in wire order.

#include <cjson/cJSON.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/handle.h"

namespace arvok::json {

/// A value of a parsed message, borrowed from its document. There may be none: of nothing, every member and
/// element is missing, and it has no text and no number.
class view {
  public:
    constexpr view() = default;
    explicit constexpr view(const cJSON *node) : node_(node) {}

    explicit operator bool() const { return node_ != nullptr; }

    /// The member of that exact name.
    view operator[](const char *name) const;

    bool is_object() const { return cJSON_IsObject(node_); }
    bool is_array() const { return cJSON_IsArray(node_); }
    bool is_text() const { return cJSON_IsString(node_); }
    bool is_number() const { return cJSON_IsNumber(node_); }

    /// A text's characters, terminated by a zero.
    std::optional<std::string_view> text() const;
    std::optional<double> number() const;
    /// A number without its fraction, limited to the range of int.
    std::optional<int> integer() const;

    /// The elements of an array or the members of an object: `for (json::view element : array)`.
    class iterator {
      public:
        explicit iterator(const cJSON *node) : node_(node) {}
        view operator*() const { return view(node_); }
        iterator &operator++() {
            node_ = node_->next;
            return *this;
        }
        bool operator!=(const iterator &other) const { return node_ != other.node_; }

      private:
        const cJSON *node_;
    };
    iterator begin() const { return iterator(node_ ? node_->child : nullptr); }
    iterator end() const { return iterator(nullptr); }
    /// The first element or member.
    view first() const { return view(node_ ? node_->child : nullptr); }

    /// The same place of the same document.
    bool operator==(const view &other) const { return node_ == other.node_; }

    /// The value as JSON text; empty for nothing.
    std::string print() const;

  private:
    const cJSON *node_ = nullptr;
};

/// A parsed message, which owns its values.
class document {
  public:
    document() = default;

    /// Whether the text was JSON.
    explicit operator bool() const { return root_ != nullptr; }
    view root() const { return view(root_.get()); }
    view operator[](const char *name) const { return root()[name]; }

  private:
    friend document parse(const char *text);
    handle<cJSON, &cJSON_Delete> root_;
};

/// From here on what messages were parsed into is overwritten before it is released. Before the first is
/// read.
void overwrite_released();

/// Reads the JSON value at the beginning of the text; what follows it is ignored.
document parse(const char *text);
inline document parse(const std::string &text) {
    return parse(text.c_str());
}

/// A value that goes out, as the text that travels. None by default, which is not written where it is added.
class value {
  public:
    value() = default;

    explicit operator bool() const { return !text_.empty(); }
    const std::string &text() const { return text_; }
    std::string take() { return std::move(text_); }

  private:
    friend class object;
    friend class array;
    friend value text(std::string_view characters);
    friend value number(double n);
    friend value copy(view of);
    explicit value(std::string text) : text_(std::move(text)) {}

    std::string text_;
};

value text(std::string_view characters);
/// A whole number is written with all its digits up to 2^53.
value number(double n);
/// A value that came in, as it is; none for nothing.
value copy(view of);

/// An object, member by member in the order of the calls, which is the order on the wire. Names are literals
/// without anything to escape.
class object {
  public:
    object() { begin(); }
    /// Goes on behind the last member of an object that came in.
    explicit object(view begun);

    object &text(const char *name, std::string_view characters);
    /// A literal, or a text of a platform record: null is written as "".
    object &text(const char *name, const char *characters);
    object &number(const char *name, double n);
    /// A number as its decimal text.
    object &digits(const char *name, std::int64_t n);
    object &add(const char *name, const value &v);
    /// The same under a name that is not a literal.
    object &add(std::string_view name, const value &v);

    /// Gives the object away.
    value take();

  private:
    void begin();
    void begin_member(const char *literal);
    std::string text_;
};

/// An array, element by element.
class array {
  public:
    array() : text_("[") {}

    array &add(const value &v);

    /// Gives the array away.
    value take();

  private:
    std::string text_;
};

}  // namespace arvok::json
