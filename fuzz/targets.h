#pragma once
/// What is fuzzed. Each target runs the agent on one input and leaves nothing behind.

#include "stage.h"

namespace arvok::fuzz {

/// The gateway link. First line: '0' before the key agreement, anything else registered and encrypted. Then a
/// script; a message is framed, and encrypted when the link is; one that begins with '=' is framed in clear.
void gateway(Input input);

/// The platform's notifications, on a registered link and with a connected cloud, of which each has
/// subscribed to an object: a script in which every line is one, "N METHOD JSON", and '@' one of raw bytes:
/// subscriber, method, message.
void events(Input input);

/// The cloud connection. First line: the stage in which it begins (1 Boot, 2 GetChallengeCode, 3 Activate, 4
/// Connect, 5 connected), and anything behind that for a device with an identity, as it has from 4 on. Then a
/// script; a message is encrypted as the stage asks for; with '=' it goes in clear base64, with '#' it is the
/// frame's body as it stands.
void cloud(Input input);

/// Control files and messages to apps, parts separated by form feeds: plugin identifier, version, message,
/// and the rest is the control file.
void packages(Input input);

/// The local server, a script; '&' connects another client, and with '=' a message is the command inside a
/// request.
void local(Input input);

/// Commands of other apps, a script; with '@' the message is raw bytes.
void app(Input input);

/// Files that are read at the start, parts separated by form feeds: a script of commands, the schedule file,
/// the file of blocking and rates, the guest network's index and its closing time.
void rules(Input input);

/// Parts separated by form feeds: the arguments, one a line, the test-mode marker file, and the stored server
/// settings, one a line.
void options(Input input);

/// A request of the cloud about an app.
std::string app_request(const char *method, std::string_view app, std::string_view version,
                        std::string_view parameter);

struct Target {
    const char *name;
    void (*run)(Input input);
};

inline constexpr Target targets[] = {
    {"gateway", gateway}, {"cloud", cloud}, {"local", local},       {"app", app},
    {"events", events},   {"rules", rules}, {"packages", packages}, {"options", options},
};

/// The target of that name, or null. The first call prepares the process.
const Target *find_target(std::string_view name);

}  // namespace arvok::fuzz
