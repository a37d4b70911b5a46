#pragma once
/// The platform's messages by name: acknowledgements of what the device sent, and requests.

#include "base/json.h"

namespace arvok::cloud {

class app_messages;
class connection;
class enrolment;
class plugins;

/// Who handles them.
struct recipients {
    connection &link;
    enrolment &enrolling;
    plugins &apps;
    app_messages &messages;
};

/// Runs one received message.
void dispatch(const recipients &to, json::view message);

}  // namespace arvok::cloud
