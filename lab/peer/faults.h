/// What a peer has been told to do wrong, and when.
///
/// A fault is armed for the answer to one type of message ("on") or, without that, for whatever is sent next;
/// a peer with several servers can have it on one of them ("server"). It counts down with each use and goes
/// when its count is used up. Three faults are not bound to an answer: "refuse" (nobody can connect),
/// "hang_up" (who connects is disconnected) and "close" after a number of messages.
#pragma once

#include <cjson/cJSON.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "connection.h"

namespace arvok::lab {

enum class FaultKind {
    none,
    drop,            ///< the answer is not sent
    delay,           ///< the answer is sent late
    bad_magic,       ///< the frame begins with another magic
    bad_length,      ///< the header announces another length
    truncated_body,  ///< the header announces the whole body, half of it follows
    fill,            ///< the body is filled up with blanks to a length
    no_crlf,         ///< the body lacks its end of line
    bad_base64,      ///< the body holds a character that is no base64
    wrong_key,       ///< the body is encrypted with a key that nobody agreed
    bad_json,        ///< the body is no JSON text
    edit,            ///< members of the answer are changed
    split,           ///< the frame comes in pieces
    repeat,          ///< the frame comes several times, in one write
    prefix,          ///< another message goes before, in the same write
    close,           ///< the connection is closed instead of answering
    silent,          ///< everything is read, nothing is answered
    hang_up,         ///< connections are accepted and closed at once
    refuse,          ///< connections are refused
};

struct Fault {
    FaultKind kind = FaultKind::none;
    std::string on;      ///< type of the message whose answer suffers; empty: whatever is sent next
    std::string server;  ///< "ADDRESS" or "ADDRESS:PORT"; empty: all
    int times = 1;       ///< uses left; 0: until it is cleared
    std::uint32_t length = 0;
    int delay = 0;  ///< milliseconds
    int after = 0;  ///< close: messages still to be received first
    int copies = 2;
    Pace pace{1};
    std::shared_ptr<const cJSON> set;      ///< edit: what is merged in
    std::shared_ptr<const cJSON> message;  ///< prefix: what goes before

    /// Its name, as `misbehave` takes it.
    const char *word() const;
    /// True when it concerns the server named "ADDRESS:PORT".
    bool at(std::string_view where) const;
};

/// What one kind of peer can do wrong.
struct FaultVocabulary {
    std::span<const FaultKind> kinds;
    std::span<const char *const> answered;  ///< types of messages that get an answer
    std::uint32_t bad_length;               ///< what the header announces when nothing is said
};

inline constexpr int longest_wait = 3600000;  ///< milliseconds that an argument can ask for

/// Reads "split" and "interval", both optional; false when one is wrong.
bool read_pace(const cJSON *arguments, Pace &pace);

class Faults {
  public:
    explicit Faults(const FaultVocabulary &vocabulary) : vocabulary_(vocabulary) {}

    /// Arms what a `misbehave` call asks for, in place of an earlier fault for the same "on" and "server";
    /// "none" clears all. Returns what is wrong with the arguments, or an empty text.
    std::string arm(const cJSON *arguments);

    /// The fault that the frame about to be sent suffers. `answered` is the type of the message that it
    /// answers, empty when it answers none; `where` is the server, for peers that have several.
    std::optional<Fault> take(std::string_view answered, std::string_view where = {});

    /// Counts a received message; true when the connection is to be closed because of it.
    bool close_due(std::string_view where = {});

    /// True when the connection that has just come is to be closed.
    bool hang_up_due(std::string_view where);

    /// True while connections are to be refused.
    bool refusing(std::string_view where = {}) const;

    /// The words of the armed faults, for people.
    std::string describe() const;

  private:
    Fault use(std::vector<Fault>::iterator fault);

    FaultVocabulary vocabulary_;
    std::vector<Fault> armed_;
};

}  // namespace arvok::lab
