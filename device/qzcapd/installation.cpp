#include "installation.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "control_file.h"

namespace arvok::qzcapd {
namespace {

constexpr char device_architecture[] = "ipq5018x";
constexpr char every_architecture[] = "all";

constexpr std::size_t largest_package = std::size_t{32} << 20;
constexpr std::size_t largest_content = std::size_t{64} << 20;  // unpacked
constexpr int download_seconds = 60;
constexpr int unpack_seconds = 30;

constexpr std::size_t longest_reason = 200;

bool is_file(const std::string &path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

/// Reasons quote what others wrote.
std::string visible(std::string text) {
    text.resize(std::min(text.size(), longest_reason));
    std::ranges::replace_if(
        text, [](char c) { return c < ' ' || c > '~'; }, '?');
    return text;
}

// The programs work in the installation's folder. No configuration of the user's, no proxy, no patterns in
// the URL.
Command download(const std::string &url, const char *to) {
    return {{"curl",
             "--disable",
             "--noproxy",
             "*",
             "--globoff",
             "--silent",
             "--show-error",
             "--fail",
             "--proto",
             "=http,https,file",
             "--proto-redir",
             "=http,https",
             "--location",
             "--max-redirs",
             "5",
             "--connect-timeout",
             "10",
             "--max-time",
             std::to_string(download_seconds),
             "--max-filesize",
             std::to_string(largest_package),
             "--output",
             to,
             "--url",
             url},
            "",
            download_seconds + 5,  // the program tells better what it has waited for
            largest_package};
}

// Apart from unpacking, so that the limit holds for all files of the archive together.
Command inflate(const char *from, const char *to) {
    return {{"gzip", "--decompress", "--stdout", from}, to, unpack_seconds, largest_content};
}

// The program lets no member of the archive out of the folder, whatever its name or the links before it.
Command unpack(const char *from, const char *to) {
    return {
        {"tar", "--extract", "--file", from, "--directory", to, "--no-same-owner", "--no-same-permissions"},
        "",
        unpack_seconds,
        largest_content};
}

}  // namespace

/// A program, what its failure means, and what is checked after it.
struct Installation::Step {
    enum class Work { download, inflate, unpack } work;
    const char *from;
    const char *to;
    const char *meaning;
    bool (Installation::*check)();
};

const Installation::Step Installation::steps[] = {
    {Step::Work::download, "", "package.tar.gz", "download failed: ", nullptr},
    {Step::Work::inflate, "package.tar.gz", "package.tar", "not a package: ", nullptr},
    {Step::Work::unpack, "package.tar", "package", "not a package: ", &Installation::check_package},
    {Step::Work::inflate, "package/control.tar.gz", "control.tar", "not a package: ", nullptr},
    {Step::Work::unpack, "control.tar", "control", "not a package: control: ", &Installation::check_control},
    {Step::Work::inflate, "package/data.tar.gz", "data.tar", "not a package: ", nullptr},
    {Step::Work::unpack, "data.tar", "data", "not a package: data: ", &Installation::check_data},
};

Installation::Installation(int number, const AppFiles &files, std::string url, std::optional<Failure> order,
                           Ended ended)
    : id(number), failure(std::move(order)), files_(files), url_(std::move(url)), ended_(std::move(ended)) {
    // The caller learns the id before the end.
    start_.cb = [](uloop_timeout *timer) { decltype(start_)::of(timer)->begin(); };
    uloop_timeout_set(&start_, 0);
}

Installation::~Installation() {
    uloop_timeout_cancel(&start_);
    child_.reset();
    if (!folder_.empty()) {
        remove_tree(folder_);
    }
}

void Installation::begin() {
    if (failure) {
        end(InstallResult::ordered, failure->reason);
        return;
    }
    if (const std::string fault = files_.make_work_folder(&folder_); !fault.empty()) {
        end(InstallResult::storage, fault);
        return;
    }
    std::error_code error;  // shows when the folder is to be filled
    for (const char *part : {"package", "control", "data"}) {
        std::filesystem::create_directory(folder_ + "/" + part, error);
    }
    next();
}

void Installation::next() {
    if (step_ == std::size(steps)) {
        const std::string fault = files_.store(name, control, folder_, folder_ + "/data");
        end(fault.empty() ? InstallResult::installed : InstallResult::storage, fault);
        return;
    }
    const Step &step = steps[step_++];
    const bool loads = step.work == Step::Work::download;
    const Command command = loads                              ? download(url_, step.to)
                            : step.work == Step::Work::inflate ? inflate(step.from, step.to)
                                                               : unpack(step.from, step.to);
    child_ = std::make_unique<Child>();
    const bool started = child_->start(command, folder_, [this, &step, loads](const std::string &fault) {
        if (!fault.empty()) {
            end(loads ? InstallResult::download : InstallResult::package, step.meaning + fault);
        } else if (step.check != nullptr && !(this->*step.check)()) {
            end(result, reason);
        } else {
            next();
        }
    });
    if (!started) {
        end(InstallResult::storage, "no process for " + command.words[0]);
    }
}

void Installation::end(InstallResult how, const std::string &why) {
    result = how;
    reason = visible(why);
    ended_(*this);  // this may be gone now
}

bool Installation::refuse(InstallResult how, const std::string &why) {
    result = how;
    reason = why;
    return false;
}

bool Installation::check_package() {
    for (const char *part : {"debian-binary", "control.tar.gz", "data.tar.gz"}) {
        if (!is_file(folder_ + "/package/" + part)) {
            return refuse(InstallResult::package, std::string("not a package: no ") + part + " in it");
        }
    }
    return true;
}

bool Installation::check_control() {
    control = read_control(folder_ + "/control/control");
    const std::string package = control_field(control, "Package");
    const std::string given = control_field(control, "Version");
    const std::string architecture = control_field(control, "Architecture");
    if (package.empty() || given.empty()) {
        return refuse(InstallResult::control,
                      std::string("the control file lacks ") + (package.empty() ? "Package" : "Version"));
    }
    if (!is_app_version(given)) {
        return refuse(InstallResult::control, "the control file's Version is not one word");
    }
    if (!is_app_name(package)) {
        return refuse(InstallResult::name, "not a name for an app: " + package);
    }
    name = package;
    version = given;
    if (!architecture.empty() && architecture != device_architecture && architecture != every_architecture) {
        return refuse(InstallResult::architecture, "wrong architecture: " + architecture);
    }
    return true;
}

bool Installation::check_data() {
    const std::string fault = check_tree(folder_ + "/data", largest_content);
    return fault.empty() || refuse(InstallResult::package, "not a package: data: " + fault);
}

}  // namespace arvok::qzcapd
