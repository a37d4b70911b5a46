#include "cloud/connection.h"

#include "base/log.h"
#include "base/network.h"
#include "base/random.h"
#include "base/text.h"
#include "provisioning.h"

namespace arvok::cloud {
namespace {

constexpr int acknowledgement_ms = 30000;
constexpr int heartbeat_ms = 100000;

/// How many bytes may wait to be sent before the platform's further requests wait, too.
constexpr std::size_t unsent_max = std::size_t{256} * 1024;

constexpr frame_format frames{
    .header_size = frame_header_size,
    .body_length = body_length,
    .short_header = "[ERROR] (cloud) read header failed, %d\n",
    .waiting = "[ERROR] (cloud) wait for the TCP fragmentation, %d/%d\n",
    .short_body = "[ERROR] (cloud) read msg failed, %d %d\n",
};

// Heartbeats would fill the log.
bool is_logged(const std::string &text) {
    return !contains(until_zero(text), "Heartbeat");
}

}  // namespace

connection::connection(task_queue &queue, const platform::cache &cache, const handlers &callbacks)
    : queue_(queue),
      cache_(cache),
      handlers_(callbacks),
      keys_{rsa_public_key(platform_public_key), std::nullopt, std::nullopt},
      reader_(frames, bind<&connection::receive>(*this)),
      stream_({bind<&connection::readable>(*this), bind<&connection::broken>(*this)}, unsent_max),
      outbox_(queue, stream_,
              {.is_ready = bind<&connection::is_connected>(*this), .write = bind<&connection::write>(*this)},
              {.begin = "[WARNING] (cloud) drop own msgs, ready %d, %d bytes wait\n",
               .end = "[INFO] (cloud) dropped %lu own msgs\n"}),
      heartbeat_(callbacks.heartbeat_due),
      acknowledgement_(stream_, bind<&connection::unanswered>(*this)) {}

void connection::open(int fd) {
    stream_.open(fd);
    reader_.reset();
}

void connection::disconnect() {
    acknowledgement_.cancel();
    heartbeat_.cancel();
    if (stream_.is_open()) {
        log_printf("[INFO] (cloud) disconnect fd: %d\n", stream_.fd());
        stream_.close();
    }
    outbox_.clear();
    keys_.client.reset();
    keys_.server.reset();
    if (stage_ != stage::bootstrap)
        stage_ = stage::challenge;
    handlers_.closed();
}

std::string connection::local_address() const {
    return arvok::local_address(stream_.fd());
}

std::string connection::new_client_key() {
    std::string key = random_text(aes_key_size);
    keys_.client = aes_key_of(key);
    return key;
}

void connection::enter_connected(std::string_view server_key) {
    keys_.server.emplace(aes_mode::ecb, aes_key_of(server_key));
    stage_ = stage::connected;
}

// --- sending ---

json::object connection::message(const char *method) const {
    json::object begun;
    begun.text("RPCMethod", method).text("MAC", cache_.own_mac());
    return begun;
}

void connection::ask(json::value message) {
    if (!queue_.post([this, text = std::move(message)]() mutable { send(std::move(text)); }))
        handlers_.failed(failure::not_queued);  // nothing else would go on
}

void connection::send(json::value message) {
    if (!is_open())
        return;
    // Also when it cannot be written: without its acknowledgement the connection has to start over.
    heartbeat_.cancel();
    acknowledgement_.arm(acknowledgement_ms);
    write(std::move(message));
}

void connection::write(json::value message) {
    if (!is_open())
        return;
    if (message.text().empty())  // longer than any message may be
        return log_printf("[ERROR] (cloud) own msg too long\n");
    if (is_logged(message.text()))
        log_printf("[INFO] (cloud) -> %s (%d)\n", message.text().c_str(),
                   static_cast<int>(message.text().size()));
    memory_.sent(write_frame(stage_, keys_, message.take(), bind<&stream::write>(stream_)));
}

// --- receiving ---

void connection::readable(std::size_t available) {
    if (!reader_.read(stream_, available))
        handlers_.failed(failure::garbled);
}

void connection::receive(std::string &body) {
    const std::optional<std::string> text = decode_body(stage_, keys_, body);
    if (!text)
        return;
    if (is_logged(*text))
        log_printf("[INFO] (cloud) <- %s (%d)\n", text->c_str(), static_cast<int>(text->size()));
    const json::document message = json::parse(*text);
    if (!message) {
        log_printf("[ERROR] (cloud) invalid msg (not json format)\n");
        return;
    }
    handlers_.received(message.root());
    if (stage_ == stage::connected)
        heartbeat_.arm(heartbeat_ms);
}

void connection::broken() {
    log_printf("[ERROR] (cloud) tcp connection broken\n");
    handlers_.failed(failure::broken);
}

void connection::unanswered() {
    log_printf("[ERROR] (cloud) wait Ack timeout\n");
    handlers_.failed(failure::unanswered);
}

}  // namespace arvok::cloud
