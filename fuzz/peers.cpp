#include "peers.h"
#include "base/base64.h"

#include <poll.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>

#include "base/json.h"
#include "base/key_exchange.h"
#include "base/random.h"

namespace arvok::fuzz {
namespace {

constexpr std::size_t length_size = 4;
constexpr std::size_t length_max = 1U << 30;
constexpr std::string_view cloud_body_end = "\r\n";

bool is_message(const std::optional<std::string> &text) {
    return text && json::parse(*text).root().is_object();
}

// All private values are the same (machine.cpp), so this is the agent's.
key_exchange &agents_exchange() {
    static key_exchange exchange;
    if (exchange.prime().empty())
        exchange.begin();
    return exchange;
}

}  // namespace

void require(bool holds, const char *what) {
    if (holds)
        return;
    std::fprintf(stderr, "the agent: %s\n", what);
    std::abort();
}

bool Peer::is_open() const {
    pollfd end{descriptor(), 0, 0};
    return end.fd >= 0 && poll(&end, 1, 0) >= 0 && !(end.revents & POLLHUP);
}

std::string Peer::frame(std::string_view body) const {
    std::string whole(magic_);
    for (const int shift : {24, 16, 8, 0})
        whole += static_cast<char>(body.size() >> shift);
    return whole.append(body);
}

bool Peer::take_answers() {
    if (descriptor() != taken_from_)
        inbox_.clear();
    taken_from_ = descriptor();
    const std::size_t before = inbox_.size();
    char bytes[16384];
    for (ssize_t got; (got = recv(taken_from_, bytes, sizeof bytes, 0)) > 0;)
        inbox_.append(bytes, static_cast<std::size_t>(got));
    const bool any = inbox_.size() > before;
    const std::size_t head_size = magic_.size() + length_size;
    std::size_t done = 0;
    while (inbox_.size() - done >= head_size) {
        require(inbox_.compare(done, magic_.size(), magic_) == 0, "sends a frame without its magic number");
        std::size_t length = 0;
        for (std::size_t i = magic_.size(); i < head_size; i++)
            length = length << 8 | byte_at(inbox_, done + i);
        require(length > 0 && length < length_max, "sends a frame of no length");
        if (inbox_.size() - done - head_size < length)
            break;
        answered(inbox_.substr(done + head_size, length));
        done += head_size + length;
    }
    inbox_.erase(0, done);
    return any;
}

// --- the gateway ---

std::string GatewayPeer::message(std::string_view line) {
    const bool clear = byte_at(line, 0) == '=';
    std::string text(line.substr(clear));
    const json::document sent = json::parse(text);
    if (const auto public_value = sent["data"]["dh_key"].text())
        offered_ = agents_exchange().agree(*public_value).key;
    if (!clear && key_)
        aes(aes_mode::cbc, *key_).encrypt(text);
    return frame(text);
}

void GatewayPeer::answered(const std::string &body) {
    for (const std::optional<aes_key> &key : {offered_, key_, std::optional<aes_key>()}) {
        std::string text = body;
        if ((!key || aes(aes_mode::cbc, *key).decrypt(text)) && is_message(text)) {
            key_ = key;
            return;
        }
    }
    require(!at_once, "sends what is not JSON");
}

// --- the cloud ---

std::string CloudPeer::message(std::string_view line) {
    const char how = static_cast<char>(byte_at(line, 0));
    const std::string_view text = line.substr(how == '=' || how == '#');
    if (how == '#')
        return frame(text);
    const json::document sent = json::parse(std::string(text));
    if (const auto key = sent["SKey"].text())
        offered_ = aes_key_of(*key);
    return frame(base64_encode(how == '=' ? text : encrypted(text)).append(cloud_body_end));
}

std::string CloudPeer::encrypted(std::string_view text) const {
    std::string data(text);
    if (cipher_ == cipher::none)
        return data;
    const aes_key key = cipher_ == cipher::server_key ? key_ : aes_key_of(random_text(aes_key_size));
    aes(aes_mode::ecb, key).encrypt(data);
    return data;
}

void CloudPeer::answered(const std::string &body) {
    require(body.ends_with(cloud_body_end), "sends a body without its end");
    std::string data = base64_decode(body).value_or("");
    cipher_ = cipher::none;
    if (is_message(data))
        return;
    cipher_ = cipher::server_key;
    for (const aes_key &key : {offered_, key_}) {
        std::string text = data;
        if (aes(aes_mode::ecb, key).decrypt(text) && is_message(text)) {
            key_ = key;
            return;
        }
    }
    cipher_ = cipher::client_key;
    for (char &byte : data)
        byte = static_cast<char>(byte ^ high_bit);
    require(!at_once || is_message(data), "sends what is not JSON");
}

// --- a client on the LAN ---

std::string ClientPeer::message(std::string_view line) {
    if (byte_at(line, 0) != '=')
        return frame(line);
    return frame(R"({"RPCMethod":"Post1","ID":1,"Parameter":")" + base64_encode(line.substr(1)) + "\"}");
}

void ClientPeer::answered(const std::string &body) {
    require(is_message(body), "sends what is not JSON");
}

}  // namespace arvok::fuzz
