/// The device state: one JSON document whose members are named after the records of qzcap.h.
#ifndef ARVOK_QZCAPD_STATE_H
#define ARVOK_QZCAPD_STATE_H

#include <string>

#include "json.h"
#include "record.h"

namespace arvok::qzcapd {

/// Reads, checks and completes a state file; on failure null, and `error` says what is wrong with it.
json_ptr load_state(const std::string &path, std::string *error);

/// What is wrong with a state document: an unknown member, a value of the wrong type. Empty: nothing.
std::string check_state(const cJSON *document);

/// Gives LAN hosts without an index the next free one, in the document's order.
void number_hosts(cJSON *document);

/// What is wrong with a record's value: a member that `which` does not allow, or of the wrong type. Empty:
/// nothing.
std::string check_record(const capi::Record &kind, const cJSON *value, capi::Fields which);

/// The record as the library gets it: its known fields, of which `key_name` (empty: none) is the key under
/// which the document keeps the record.
json_ptr project(const capi::Record &kind, const cJSON *stored, const std::string &key_name = "",
                 const std::string &key = "");

/// Copies the settable fields present in `request` into the stored record.
void apply(const capi::Record &kind, cJSON *stored, const cJSON *request);

}  // namespace arvok::qzcapd

#endif
