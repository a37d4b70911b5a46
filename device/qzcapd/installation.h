/// One installation: download, unpack, check, store. Each step is a program beside the loop.
#ifndef ARVOK_QZCAPD_INSTALLATION_H
#define ARVOK_QZCAPD_INSTALLATION_H

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "app_files.h"
#include "child.h"
#include "failures.h"
#include "owned.h"

namespace arvok::qzcapd {

/// How an installation ended. The numbers are told to whoever ordered it.
enum class InstallResult {
    installed = 0,
    ordered = -1,      ///< it was to fail
    download = 1,      ///< the URL cannot be fetched
    package = 2,       ///< what was fetched is no package
    control = 3,       ///< the control file lacks Package or Version
    name = 4,          ///< no name for an app
    architecture = 5,  ///< for another device
    storage = 6,       ///< the device cannot store it
};

class Installation {
  public:
    /// Called once, from the loop; may delete the installation.
    using Ended = std::function<void(Installation &)>;

    /// Starts to work. `failure` is how it is to fail instead, if it is.
    Installation(int id, const AppFiles &files, std::string url, std::optional<Failure> failure, Ended ended);
    /// Stops the work and removes its files.
    ~Installation();
    Installation(const Installation &) = delete;
    Installation &operator=(const Installation &) = delete;

    const int id;
    const std::optional<Failure> failure;  ///< on order

    // After the end:
    InstallResult result = InstallResult::installed;
    std::string reason;   ///< of a failure
    std::string control;  ///< the package's control file, as far as it got
    std::string name;     ///< from the control file, as is the version
    std::string version;

  private:
    struct Step;
    static const Step steps[];

    void begin();
    void next();
    void end(InstallResult how, const std::string &why);

    bool check_package();
    bool check_control();
    bool check_data();
    bool refuse(InstallResult how, const std::string &why);

    const AppFiles &files_;
    const std::string url_;
    const Ended ended_;
    std::string folder_;
    std::size_t step_ = 0;
    Owned<uloop_timeout, Installation> start_{this};
    std::unique_ptr<Child> child_;
};

}  // namespace arvok::qzcapd

#endif
