/// What the gateway has been told to do wrong, and when.
///
/// A fault is armed for the answer to one type of message ("on") or, without that, for whatever is sent next;
/// it counts down with each use and goes when its count is used up. Two faults that last are not bound to an
/// answer: "refuse" (nobody can connect) and "close" after a number of messages.
#pragma once

#include <cjson/cJSON.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace arvok::lab {

enum class FaultKind {
    none,
    drop,            ///< the answer is not sent
    delay,           ///< the answer is sent late
    bad_magic,       ///< the frame begins with another magic
    bad_length,      ///< the header announces another length
    truncated_body,  ///< the header announces the whole body, half of it follows
    wrong_key,       ///< the body is encrypted with a key that nobody agreed
    bad_json,        ///< the body is no JSON text
    edit,            ///< members of the answer are changed
    close,           ///< the connection is closed instead of answering
    silent,          ///< everything is read, nothing is answered
    refuse,          ///< connections are refused
};

struct Fault {
    FaultKind kind = FaultKind::none;
    std::string on;  ///< type of the message whose answer suffers; empty: whatever is sent next
    int times = 1;   ///< uses left; 0: until it is cleared
    std::uint32_t length = 0;
    int delay = 0;  ///< milliseconds
    int after = 0;  ///< close: messages still to be received first
    std::shared_ptr<const cJSON> set;

    /// Its name, as `misbehave` takes it.
    const char *word() const;
};

class Faults {
  public:
    /// Arms what a `misbehave` call asks for, in place of an earlier fault for the same "on"; "none" clears
    /// all. Returns what is wrong with the arguments, or an empty text.
    std::string arm(const cJSON *arguments);

    /// The fault that the frame about to be sent suffers. `answered` is the type of the message that it
    /// answers, empty when it answers none.
    std::optional<Fault> take(std::string_view answered);

    /// Counts a received message; true when the connection is to be closed because of it.
    bool close_due();

    /// True while connections are to be refused.
    bool refusing() const;

    /// The words of the armed faults, for people.
    std::string describe() const;

  private:
    Fault use(std::vector<Fault>::iterator fault);

    std::vector<Fault> armed_;
};

}  // namespace arvok::lab
