/// The key log: what whoever has recorded the wire needs in order to read what was encrypted on it.
///
/// One line for each secret, in the order of their agreement, written before anything is encrypted with it:
///
///     PROTOCOL REMOTE LOCAL KIND VALUE...
///
/// REMOTE and LOCAL are the ends of the connection, ADDRESS:PORT, LOCAL the peer's own; values are
/// hexadecimal digits. docs/watching-traffic.md lists the kinds. Lines of several programs may share one
/// file.
#pragma once

#include <netinet/in.h>

#include <string>
#include <string_view>

namespace arvok::lab {

class KeyLog {
  public:
    explicit KeyLog(const char *protocol) : protocol_(protocol) {}
    ~KeyLog();
    KeyLog(const KeyLog &) = delete;
    KeyLog &operator=(const KeyLog &) = delete;

    /// Appends to `path` from now on; without it nothing is written. False, with errno, when it cannot.
    bool open(const char *path);

    /// The ends of a connection from `remote`, as `add` takes them.
    static std::string ends_of(int descriptor, const sockaddr_in &remote);

    /// Writes one line; `value` is bytes.
    void add(const std::string &ends, const char *kind, std::string_view value) const;
    /// The same for a secret that holds for one body only, which `mark`, bytes too, tells from others.
    void add(const std::string &ends, const char *kind, std::string_view mark, std::string_view value) const;

  private:
    void write(std::string line) const;

    const char *protocol_;
    int descriptor_ = -1;
};

}  // namespace arvok::lab
