#pragma once
/// The platform library while the agent is fuzzed: the records of the desk's device, unchanging, except that
/// the input decides which call fails and which record looks odd. platform.cpp has the records and what is
/// asked of them, platform_calls.cpp the library's functions.

#include <string>
#include <string_view>
#include <vector>

#include "platform/qzcap.h"
#include "record.h"

namespace arvok::fuzz {
/// An installation that has been started and not ended.
struct installation {
    qzcap_install_handler_t done;
    void *priv;
};

struct platform_state {
    /// What becomes of the next calls, a character each: 'f' fails, 'e' gives an empty list, 'n' records
    /// without texts, 'l' with long ones, 'm' with malicious ones, 'h' with huge numbers, 'r' a router,
    /// 's' a device with one radio, 'g' a guest network; any other is as usual.
    std::string_view fate;
    bool lists_empty;  ///< whatever their fate is: what nobody looks at is not made
    std::vector<installation> installations;
    std::vector<ubus_subscriber *> subscribers;
    std::vector<std::string> servers;  ///< stored server settings: bss, token, id, then business servers
    const qzcap_appmgtcb *app;         ///< the agent as an app
    unsigned replies;                  ///< to commands of other apps
};
extern platform_state platform;

/// Reads the desk's device. Once.
void platform_init();
void platform_reset();

/// Ends the oldest installation, with null when the platform never answered.
void finish_installation(blob_attr *outcome);
/// Notifies the subscriber `which`, counted round.
void notify(unsigned which, const char *method, blob_attr *message);

// --- for the library's functions ---

/// The fate of a call that tells nothing: 0, or -1 with a reason.
int outcome(char **errtext);
/// The same for one that hands in a record, which is read to its last byte.
int outcome(const capi::Record &kind, const void *record, char **errtext);

/// The `n`-th record of a kind as home.json has it under `name`, of a band where there are two; null when
/// its fate is to fail or there is none.
void *fetch_record(const capi::Record &kind, const char *name, const char *band, unsigned n);
int fetch_list(const capi::Record &kind, const char *name, const char *band, unsigned *count, void ***list);

}  // namespace arvok::fuzz
