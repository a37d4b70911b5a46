#pragma once
/// JSON messages: ownership, tolerant getters and the builder that every message is written with.

#include <cjson/cJSON.h>

#include <vector>

#include "common/handle.h"

namespace arvok {

using json_ptr = handle<cJSON, &cJSON_Delete>;

/// Parsed tree, or null when the text is not JSON.
json_ptr json_parse(const char *text);

/// Unformatted text of a tree, or null for null.
text_ptr json_print(const cJSON *root);

/// The member of that exact name, or null; a null or non-object `obj` has no members.
const cJSON *json_member(const cJSON *obj, const char *key);

/// The text of a string member, borrowed from the tree; null when it is missing or no string.
const char *json_text(const cJSON *obj, const char *key);

/// The member's integer value when it is a number, else `dflt`.
int _get_json_int(const cJSON *obj, const char *key, int dflt);

/// Heap copy of a string member's text (an empty one included); null when it is missing or no string.
text_ptr _get_json_str(const cJSON *obj, const char *key);

/// Copies the texts of an array member. `out` receives one entry per element, null for an element that is no
/// string, and a null entry behind the last. Returns the number of elements; 0, with `out` untouched, when
/// the member is missing, no array or empty.
int _get_json_str_array(const cJSON *obj, const char *key, std::vector<text_ptr> &out);

/// Builds one object member by member, in the order of the calls, which is the order on the wire.
class json_object {
  public:
    json_object() : root_(cJSON_CreateObject()) {}

    /// Goes on building an existing object; null stays null, and adding to it has no effect.
    explicit json_object(json_ptr root) : root_(std::move(root)) {}

    /// A null text is written as "".
    json_object &text(const char *key, const char *value);
    /// A whole number is written with all its digits up to 2^53.
    json_object &number(const char *key, double value);
    json_object &add(const char *key, json_ptr value);

    /// The object so far, borrowed.
    const cJSON *get() const { return root_.get(); }

    /// Gives the object away.
    json_ptr take() { return std::move(root_); }

  private:
    json_ptr root_;
};

/// Array of one text per argument; a null text is written as "".
json_ptr json_texts(std::initializer_list<const char *> texts);

/// Appends to an array that the caller keeps; the value is adopted.
void json_append(cJSON *array, json_ptr value);

}  // namespace arvok
