// The server for clients on the LAN.

#include <sys/socket.h>

#include "targets.h"

namespace arvok::fuzz {
namespace {

class Local : public Stage {
  public:
    explicit Local(ClientPeer &client) : Stage({&client}) { connect(); }

  protected:
    void message(std::string_view line) override {
        if (byte_at(line, 0) == '&')
            return connect();
        Stage::message(line);
    }

  private:
    void connect() {
        ::send(newest_far_end(side::listener), "", 1, MSG_NOSIGNAL);
        turn();
    }
};

}  // namespace

void local(Input input) {
    ClientPeer client;
    Local(client).play(input);
}

}  // namespace arvok::fuzz
