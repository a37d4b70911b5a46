// Whose bus the tests run on.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <string>

namespace arvok {

/// The path of `ubusd` or `ubus`: under $ARVOK_BUS, a folder in which they are installed, else those of this
/// build.
inline std::string bus_program(const std::string &name) {
    if (const char *prefix = std::getenv("ARVOK_BUS")) {
        for (const char *folder : {"/sbin/", "/bin/"}) {
            const std::string path = prefix + (folder + name);
            if (access(path.c_str(), X_OK) == 0)
                return path;
        }
    }
    return BUS_PROGRAMS "/" + name;
}

}  // namespace arvok
