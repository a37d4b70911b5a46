#include "traffic.h"

#include <cstdio>
#include <ctime>
#include <utility>
#include <vector>

extern "C" {
#include <libubox/blobmsg.h>
}

namespace arvok::lab {
namespace {

constexpr std::size_t history_entries = 10000;
constexpr std::size_t history_bytes = 64u << 20;
// The bus carries messages of up to a mebibyte; the rest is for the envelope.
constexpr std::size_t reply_bytes = 1000000;

}  // namespace

std::string time_of_day() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char text[32];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03ld", local.tm_hour, local.tm_min, local.tm_sec,
                  now.tv_nsec / 1000000);
    return text;
}

void log_line(const std::string &text) {
    std::printf("%s %s\n", time_of_day().c_str(), text.c_str());
}

Traffic::Traffic() : start_(std::chrono::steady_clock::now()) {}

Traffic::~Traffic() {
    blob_buf_free(&buffer_);
}

void Traffic::publish(ubus_context *bus, ubus_object *object) {
    bus_ = bus;
    object_ = object;
}

void Traffic::event(int connection, const std::string &text) const {
    log_line(connection ? "#" + std::to_string(connection) + " " + text : text);
}

void Traffic::connection_event(int connection, const char *what, const std::string &address,
                               const std::string &why, const Labels &labels) {
    std::string line = std::string(what) + " " + address;
    for (const auto &[name, text] : labels)
        line += std::string(", ") + name + " " + text;
    event(connection, line + (why.empty() ? "" : ": " + why));
    blob_buf_init(&buffer_, 0);
    blobmsg_add_string(&buffer_, "time", time_of_day().c_str());
    blobmsg_add_u32(&buffer_, "connection", static_cast<std::uint32_t>(connection));
    blobmsg_add_string(&buffer_, "address", address.c_str());
    add_labels(labels);
    if (!why.empty())
        blobmsg_add_string(&buffer_, "why", why.c_str());
    notify(what);
}

void Traffic::message(const Passage &passage) {
    const bool rx = passage.direction == Direction::rx;
    const std::string text = json_text(passage.message);
    event(passage.connection,
          std::string(rx ? "<- " : "-> ") + passage.how + (*passage.how ? " " : "") + text);

    const auto elapsed = std::chrono::steady_clock::now() - start_;
    blob_buf_init(&buffer_, 0);
    blobmsg_add_u32(&buffer_, "number", static_cast<std::uint32_t>(++number_));
    blobmsg_add_string(&buffer_, "time", time_of_day().c_str());
    blobmsg_add_u64(
        &buffer_, "ms",
        static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count()));
    blobmsg_add_string(&buffer_, "direction", rx ? "rx" : "tx");
    blobmsg_add_u32(&buffer_, "connection", static_cast<std::uint32_t>(passage.connection));
    add_labels(passage.labels);
    blobmsg_add_u8(&buffer_, "encrypted", passage.encrypted);
    blobmsg_add_u32(&buffer_, "length", static_cast<std::uint32_t>(passage.length));
    void *table = blobmsg_open_table(&buffer_, "message");
    const bool carried = add_to_bus(&buffer_, passage.message);
    blobmsg_close_table(&buffer_, table);
    if (!carried)
        blobmsg_add_string(&buffer_, "text", text.c_str());

    remember({passage.direction, number_, passage.type ? passage.type : "", {}});
    notify(rx ? "rx" : "tx");
}

void Traffic::history(const HistoryQuery &query, blob_buf *reply) const {
    std::vector<const Entry *> chosen;
    std::size_t bytes = 0;
    std::uint32_t left_out = 0;
    for (auto entry = entries_.rbegin(); entry != entries_.rend(); ++entry) {
        if (entry->number <= query.after)
            break;
        if (!(entry->direction == Direction::rx ? query.rx : query.tx) ||
            (!query.type.empty() && query.type != entry->type))
            continue;
        bytes += blob_pad_len(entry->blob.get()) + 16;
        if (bytes > reply_bytes)
            left_out++;
        else
            chosen.push_back(entry.operator->());
    }

    void *array = blobmsg_open_array(reply, "messages");
    for (auto entry = chosen.rbegin(); entry != chosen.rend(); ++entry)
        blobmsg_add_field(reply, BLOBMSG_TYPE_TABLE, "", blob_data((*entry)->blob.get()),
                          static_cast<unsigned>(blob_len((*entry)->blob.get())));
    blobmsg_close_array(reply, array);
    if (left_out)
        blobmsg_add_u32(reply, "left_out", left_out);
}

void Traffic::add_labels(const Labels &labels) {
    for (const auto &[name, text] : labels)
        blobmsg_add_string(&buffer_, name, text.c_str());
}

void Traffic::notify(const char *method) {
    if (object_ && object_->has_subscribers)
        ubus_notify(bus_, object_, method, buffer_.head, -1);
}

void Traffic::remember(Entry entry) {
    entry.blob.reset(blob_memdup(buffer_.head));
    if (!entry.blob)
        return;
    held_ += blob_pad_len(entry.blob.get());
    entries_.push_back(std::move(entry));
    while (entries_.size() > history_entries || held_ > history_bytes) {
        held_ -= blob_pad_len(entries_.front().blob.get());
        entries_.pop_front();
    }
}

}  // namespace arvok::lab
