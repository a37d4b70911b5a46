#include "client.h"

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "protocol.h"

namespace arvok {

namespace {

// What waits for a client that does not read; one of the largest messages.
constexpr size_t MAX_OUTPUT = MAX_MESSAGE;
// A message grows with its bytes, whatever length it claims.
constexpr size_t READ_STEP = size_t{64} * 1024;
// Then it is the turn of the others.
constexpr int MESSAGES_PER_TURN = 32;

}  // namespace

Client::Client(int socket, uint32_t client_id, const Events &events) : id(client_id), events_(events) {
    watch_.fd = socket;
    watch_.client = this;
    watch_.cb = [](uloop_fd *fd, unsigned int flags) {
        Client *client = static_cast<Watch *>(fd)->client;
        if (flags & ULOOP_WRITE)
            client->write();
        client->read();
    };
    name_peer();
    if (uloop_fd_add(&watch_, ULOOP_READ) < 0)
        end();
}

Client::~Client() {
    uloop_fd_delete(&watch_);
    close(watch_.fd);
}

void Client::name_peer() {
    ucred peer{};
    socklen_t size = sizeof(peer);

    if (getsockopt(watch_.fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) < 0)
        return;
    const passwd *account = getpwuid(peer.uid);
    user = account ? account->pw_name : std::to_string(peer.uid);
    const ::group *accounts = getgrgid(peer.gid);
    group = accounts ? accounts->gr_name : std::to_string(peer.gid);
}

void Client::end() {
    if (over_)
        return;
    over_ = true;
    uloop_fd_delete(&watch_);
    output_.clear();
    output_bytes_ = 0;
    events_.on_over(*this);
}

// True when `size` bytes of the message are there.
bool Client::read_until(size_t size) {
    while (input_.size() < size) {
        const size_t have = input_.size();
        input_.resize(std::min(size, have + READ_STEP));
        const ssize_t n = recv(watch_.fd, input_.data() + have, input_.size() - have, MSG_DONTWAIT);
        const int error = errno;
        input_.resize(have + static_cast<size_t>(std::max<ssize_t>(n, 0)));
        if (n > 0 || (n < 0 && error == EINTR))
            continue;
        if (n == 0 || (error != EAGAIN && error != EWOULDBLOCK))
            end();
        return false;
    }
    return true;
}

void Client::read() {
    for (int i = 0; i < MESSAGES_PER_TURN && !over_; i++) {
        if (!read_until(HEADER_SIZE))
            break;
        const size_t size = frame_size(input_.data());
        if (size == 0) {
            end();
            return;
        }
        if (!read_until(size))
            break;
        // What is handled may send to this client, and so end it, but it never reads.
        events_.on_message(*this, read_message(input_));
        input_.clear();
    }
    // The loop has dropped a connection that hangs up, and there may be messages left in it.
    if (watch_.error && !over_ && uloop_fd_add(&watch_, ULOOP_READ) < 0)
        end();
}

void Client::send(const Frame &frame) {
    if (!frame || over_ || deaf_)
        return;
    const bool idle = output_.empty();
    if (!idle && output_bytes_ + frame->size() > MAX_OUTPUT)
        return;
    output_.push_back(frame);
    output_bytes_ += frame->size();
    if (idle)
        write();
}

void Client::write() {
    while (!output_.empty()) {
        const std::vector<uint8_t> &bytes = *output_.front();
        const ssize_t n = ::send(watch_.fd, bytes.data() + output_sent_, bytes.size() - output_sent_,
                                 MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            deaf_ = true;
            output_.clear();
            output_bytes_ = 0;
        }
        if (n < 0)
            break;
        output_sent_ += static_cast<size_t>(n);
        output_bytes_ -= static_cast<size_t>(n);
        if (output_sent_ < bytes.size())
            continue;
        output_.pop_front();
        output_sent_ = 0;
    }
    if (waiting_to_write_ == !output_.empty() || !watch_.registered)
        return;
    waiting_to_write_ = !output_.empty();
    if (uloop_fd_add(&watch_, ULOOP_READ | (waiting_to_write_ ? unsigned{ULOOP_WRITE} : 0u)) < 0)
        end();
}

}  // namespace arvok
