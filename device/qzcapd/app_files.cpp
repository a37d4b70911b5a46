#include "app_files.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

#include "control_file.h"

namespace arvok::qzcapd {
namespace {

namespace fs = std::filesystem;

constexpr char work_prefix[] = ".install.";
constexpr std::string_view control_suffix = ".control";

std::string fault(const std::string &what, const std::error_code &error) {
    return what + ": " + error.message();
}

/// Calls `visit` for every entry below a folder, a folder before what is in it; stops when it returns false.
template <typename Visit>
bool walk(const fs::path &folder, Visit visit) {
    std::error_code error;
    fs::recursive_directory_iterator entry(folder, error);
    while (!error && entry != fs::recursive_directory_iterator()) {
        if (!visit(*entry)) {
            return false;
        }
        entry.increment(error);
    }
    return !error;
}

void open_to_owner(const fs::path &path, fs::perms bits) {
    std::error_code ignored;
    fs::permissions(path, bits, fs::perm_options::add, ignored);
}

std::string copy_tree(const std::string &from, const std::string &to) {
    std::error_code error;
    fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
    return error ? fault("cannot copy to " + to, error) : "";
}

/// Files that the app has made itself survive its update.
void carry_over(const fs::path &live, const fs::path &kept, const fs::path &fresh) {
    std::error_code error;
    if (!fs::is_directory(live, error)) {
        return;
    }
    walk(live, [&](const fs::directory_entry &entry) {
        const fs::path name = entry.path().lexically_relative(live);
        std::error_code unknown;
        if (fs::is_regular_file(entry.symlink_status(unknown)) && !fs::exists(kept / name, unknown) &&
            !fs::exists(fresh / name, unknown)) {
            fs::create_directories((fresh / name).parent_path(), unknown);
            fs::copy_file(entry.path(), fresh / name, unknown);
        }
        return true;
    });
}

}  // namespace

std::string check_tree(const std::string &folder, std::uintmax_t largest) {
    std::string wrong;
    std::uintmax_t size = 0;
    std::error_code error;
    const fs::path root = fs::canonical(folder, error);
    const bool whole = !error && walk(root, [&](const fs::directory_entry &entry) {
        const fs::path name = entry.path().lexically_relative(root);
        std::error_code unknown;
        const fs::file_status status = entry.symlink_status(unknown);
        if (fs::is_symlink(status)) {
            // Also of a link to nothing: it may be there some day.
            const fs::path link = entry.path().parent_path() / fs::read_symlink(entry.path(), unknown);
            const fs::path target = fs::weakly_canonical(link, unknown).lexically_relative(root);
            if (unknown || target.empty() || *target.begin() == "..") {
                wrong = name.string() + " leads out of the app's folder";
            }
        } else if (fs::is_directory(status)) {
            open_to_owner(entry.path(), fs::perms::owner_all);
        } else if (fs::is_regular_file(status)) {
            open_to_owner(entry.path(), fs::perms::owner_read | fs::perms::owner_write);
            size += entry.file_size(unknown);
            wrong = size > largest ? "larger than " + std::to_string(largest) + " bytes" : "";
        } else {
            wrong = name.string() + " is neither file, folder nor link";
        }
        return wrong.empty();
    });
    return whole || !wrong.empty() ? wrong : "cannot be read";
}

void remove_tree(const std::string &path) {
    std::error_code error;
    const auto open_folder = [](const fs::path &entry) {
        std::error_code unknown;
        if (fs::is_directory(fs::symlink_status(entry, unknown))) {
            open_to_owner(entry, fs::perms::owner_all);
        }
        return true;
    };
    open_folder(path);
    walk(path, open_folder);
    fs::remove_all(path, error);
}

AppFiles::AppFiles(const std::string &root)
    : device_(root + "/qzcap"), apps_(device_ + "/apps"), opkg_(apps_ + "/qzcap/apps/opkg") {
    if (!root.empty()) {
        std::error_code error;  // is told when something is to be written
        fs::create_directory(device_, error);
    }
}

void AppFiles::remove_leftovers() const {
    std::vector<fs::path> leftovers;
    std::error_code error;
    for (fs::directory_iterator entry(apps_, error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        if (entry->path().filename().string().starts_with(work_prefix)) {
            leftovers.push_back(entry->path());
        }
    }
    std::ranges::for_each(leftovers, remove_tree);
}

std::string AppFiles::make_work_folder(std::string *folder) const {
    std::error_code error;
    if (!fs::is_directory(device_, error)) {
        return "there is no " + device_;
    }
    fs::create_directories(apps_, error);
    std::string path = apps_ + "/" + work_prefix + "XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
        return fault("cannot make a folder in " + apps_, {errno, std::generic_category()});
    }
    *folder = path;
    return "";
}

std::vector<std::string> AppFiles::names() const {
    std::vector<std::string> found;
    std::error_code error;
    for (fs::directory_iterator entry(opkg_ + "/info", error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        const std::string file = entry->path().filename();
        const std::string name = file.substr(0, file.size() - std::min(file.size(), control_suffix.size()));
        if (file.ends_with(control_suffix) && is_app_name(name)) {
            found.push_back(name);
        }
    }
    return found;
}

std::string AppFiles::control(const std::string &name) const {
    return read_control(control_path(name));
}

std::string AppFiles::write_control(const std::string &name, const std::string &text) const {
    std::error_code error;
    if (!fs::is_directory(device_, error)) {
        return "there is no " + device_;
    }
    fs::create_directories(opkg_ + "/info", error);
    // A reader sees the old file or the new one.
    const std::string fresh = opkg_ + "/info/." + name + ".new";
    std::ofstream file(fresh, std::ios::binary);
    file << text;
    file.close();
    if (!file) {
        return "cannot write " + fresh;
    }
    fs::rename(fresh, control_path(name), error);
    return error ? fault("cannot write " + control_path(name), error) : "";
}

std::string AppFiles::store(const std::string &name, const std::string &control_text,
                            const std::string &folder, const std::string &data) const {
    const std::string fresh = folder + "/fresh";
    if (std::string wrong = copy_tree(data, fresh); !wrong.empty()) {
        return wrong;
    }
    carry_over(live(name), kept(name), fresh);
    std::error_code error;
    fs::create_directories(opkg_ + "/packages", error);
    remove_tree(kept(name));
    fs::rename(data, kept(name), error);
    if (!error) {
        remove_tree(live(name));
        fs::rename(fresh, live(name), error);
    }
    return error ? fault("cannot keep the app's files", error) : write_control(name, control_text);
}

std::string AppFiles::restore(const std::string &name) const {
    std::error_code error;
    if (!fs::is_directory(kept(name), error)) {
        return "";
    }
    remove_tree(live(name));
    return copy_tree(kept(name), live(name));
}

void AppFiles::remove(const std::string &name) const {
    std::error_code ignored;
    fs::remove(control_path(name), ignored);
    if (fs::is_directory(kept(name), ignored)) {
        remove_tree(kept(name));
        remove_tree(live(name));
    }
}

}  // namespace arvok::qzcapd
