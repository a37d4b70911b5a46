#pragma once
/// JSON: messages that came in, read through borrowed views, and messages that go out, written in wire order.

#include <cjson/cJSON.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/handle.h"
#include "base/text.h"

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

    /// A member's own name.
    std::string_view name() const { return view_of(node_->string); }
    /// A text's characters, terminated by a zero.
    std::optional<std::string_view> text() const;
    /// What is not finite counts as 0.
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
    view root() const { return view(root_); }
    view operator[](const char *name) const { return root()[name]; }

    /// What a message is parsed into, released as a whole.
    struct block;

  private:
    friend document parse(const char *text);
    struct release {
        void operator()(block *newest) const;
    };

    std::unique_ptr<block, release> memory_;
    const cJSON *root_ = nullptr;
};

/// Reads the JSON value at the beginning of the text; what follows it is ignored. One whose values would take
/// more than 2 MiB is none.
document parse(const char *text);
inline document parse(const std::string &text) {
    return parse(text.c_str());
}

/// Bytes of a message that goes out, at most. The longest is what a thousand hosts need to be told of in all
/// detail; filled up, encrypted and in base64 it makes a frame of 1 MiB. A device has a few MiB to spare for
/// it.
constexpr std::size_t text_max = std::size_t{768} * 1024 - 32;

/// A value that goes out, as the text that travels. None by default, which is not written where it is added.
/// One that is too long has no text either, but what it is added to is too long with it.
class value {
  public:
    value() = default;

    explicit operator bool() const { return !text_.empty(); }
    bool is_too_long() const { return too_long_; }
    const std::string &text() const { return text_; }
    std::string take() { return std::move(text_); }

  private:
    friend class writer;
    friend value text(std::string_view characters);
    friend value base64_text(std::string_view bytes);
    friend value number(double n);
    friend value copy(view of);
    explicit value(std::string text) : text_(std::move(text)), too_long_(text_.size() > text_max) {
        if (too_long_)
            std::string().swap(text_);
    }

    std::string text_;
    bool too_long_ = false;
};

value text(std::string_view characters);
/// The text that stands for the bytes.
value base64_text(std::string_view bytes);
/// A whole number is written with all its digits up to 2^53.
value number(double n);
/// A value that came in, as it is; none for nothing.
value copy(view of);

/// A text that goes out, written piece by piece in the order of the calls, which is the order on the wire.
/// Whatever is written goes into the innermost array or object that is open. Names are literals without
/// anything to escape.
///
/// No more than 63 arrays and objects are open at once. It does not grow beyond text_max: what would go
/// beyond is not written, and the text is too long from then on, unless it is taken back.
class writer {
  public:
    // --- members of an object ---

    writer &text(const char *name, std::string_view characters) { return member(name).text(characters); }
    /// A literal, or a text of a platform record: null is written as "".
    writer &text(const char *name, const char *characters) { return text(name, view_of(characters)); }
    writer &number(const char *name, double n) { return member(name).number(n); }
    /// A number as its decimal text.
    writer &digits(const char *name, std::int64_t n);
    writer &add(const char *name, const value &v) { return (v ? member(name) : *this).add(v); }
    writer &open_object(const char *name) { return member(name).open_object(); }
    writer &open_array(const char *name) { return member(name).open_array(); }
    /// The value that is written next is the member of that name.
    writer &member(const char *literal);
    /// The same under a name that is not a literal.
    writer &member(std::string_view name) { return text(name).colon(); }

    // --- elements of an array ---

    writer &text(std::string_view characters);
    /// A whole number is written with all its digits up to 2^53.
    writer &number(double n);
    writer &add(const value &v);
    /// null, true or false.
    writer &word(std::string_view literal);
    writer &open_object() { return open('{', false); }
    writer &open_array() { return open('[', true); }

    /// Closes the innermost.
    writer &close();

    // --- the text ---

    /// How far it has been written.
    struct position {
        std::size_t size;
        std::uint64_t open;
    };
    position here() const { return {text_.size(), open_}; }
    /// Takes back what has been written since.
    void back_to(position earlier);
    bool is_too_long() const { return too_long_ || text_.size() > text_max; }
    /// Writes what stands there once more.
    writer &again(std::size_t begin, std::size_t size);
    /// Puts the members of an object, which has some and is used up, before those of this one.
    void begin_with(writer &members);

    /// Closes what is open and gives the text away.
    value take();

  protected:
    writer(char bracket, bool is_array);

  private:
    writer &open(char bracket, bool is_array);
    writer &colon();
    bool begin_value(std::size_t size);

    std::string text_;
    std::uint64_t open_ = 1;  ///< what is, from the innermost on, a bit each: 1 for an array; then a 1
    bool too_long_ = false;
};

class object : public writer {
  public:
    object() : writer('{', false) {}
    /// Goes on behind the members of an object that came in, without those of these names.
    object(view begun, std::initializer_list<std::string_view> replaced);
};

class array : public writer {
  public:
    array() : writer('[', true) {}
};

}  // namespace arvok::json
