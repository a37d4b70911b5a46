/// A program that runs beside the loop, held to limits of time and size.
#ifndef ARVOK_QZCAPD_CHILD_H
#define ARVOK_QZCAPD_CHILD_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "owned.h"

extern "C" {
#include <libubox/uloop.h>
}

namespace arvok::qzcapd {

struct Command {
    std::vector<std::string> words;  ///< program, found on the PATH, and arguments; no shell reads them
    std::string output;              ///< file for its standard output; empty: nowhere
    int seconds;                     ///< then it is killed
    std::size_t largest_file;        ///< in bytes: writing more kills it
};

class Child {
  public:
    /// Gets what went wrong, one line; empty when the program has ended with status 0. May delete the child.
    using Done = std::function<void(const std::string &fault)>;

    Child() = default;
    /// Kills the program, and what it has started, when it still runs.
    ~Child();
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    /// Starts the program in `folder`, with its standard error in the file "complaints" there. Calls `done`
    /// once, from the loop. False: there is no process to be had, and `done` is not called.
    bool start(const Command &command, const std::string &folder, Done done);

  private:
    static void on_end(uloop_process *process, int status);
    std::string fault(int status) const;
    void kill_all() const;

    Owned<uloop_process, Child> process_{this};
    Owned<uloop_timeout, Child> timer_{this};
    Command command_{};
    std::string folder_;
    bool late_ = false;
    Done done_;
};

}  // namespace arvok::qzcapd

#endif
