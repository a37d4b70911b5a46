/// The platform's records, each described once.
///
/// A record kind is a table of fields: the name that it has in qzcap.h, on the bus and in the device's state
/// document, its type, and its place in the C struct. The library and the emulated platform daemon marshal
/// from these tables alone, so a new record is a struct, a table and a declaration.
#ifndef ARVOK_CAPI_RECORD_H
#define ARVOK_CAPI_RECORD_H

#include <cstddef>
#include <cstdint>
#include <span>

extern "C" {
#include <libubox/blobmsg.h>
}

namespace arvok::capi {

/// How a field looks in the struct, and in brackets on the bus.
enum class FieldType : std::uint8_t {
    text,     ///< char *, may be null (string; absent when null)
    u32,      ///< std::uint32_t (number)
    i32,      ///< std::int32_t (number)
    numbers,  ///< std::uint32_t *, zero-terminated, may be null (array of non-zero numbers; absent when null)
    texts,    ///< char ** with a count beside it (array of strings)
    bytes,    ///< unsigned char * with a length beside it (string of hexadecimal digits)
};

struct Field {
    const char *name;
    FieldType type;
    bool settable;            ///< part of a request that sets the record
    std::size_t offset;       ///< of the member in the struct
    std::size_t size_offset;  ///< of the member that counts it (texts, bytes)
};

struct Record {
    const char *name;
    std::size_t size;
    std::span<const Field> fields;
};

extern const Record app, backhaulbss, bsstransition, channel_score, devinfo, diagnostics, iptv, laninfo, mesh,
    neighbourinfo, netstatinfo, roaming, rssi_query, serverinfo, terminalnum, vsie_beacontx, vsie_proberesp,
    waninfo, wifi_ap, wifi_apstat, wifi_switch, wifi_timer, wifiinfo;

/// Which fields a message carries.
enum class Fields : std::uint8_t { all, settable };

/// Adds the record's fields to the open table of `buf`; null texts and lists are left out.
void put_record(blob_buf *buf, const Record &kind, const void *record, Fields which);

/// A new record (qzcap_calloc) from a blobmsg table. Members that the kind does not have are ignored; absent
/// ones stay null or 0. Null when the message is malformed, a member has the wrong type, or memory is
/// exhausted.
void *take_record(const Record &kind, blob_attr *table);

/// Releases what the record's fields own, then the record. Null is allowed.
void free_record(const Record &kind, void *record);

/// Reads an integer attribute of any width. False when it is none.
bool get_integer(blob_attr *attr, std::int64_t *value);

}  // namespace arvok::capi

#endif
