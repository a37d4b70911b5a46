/// Where the apps of the device have their files, below ROOT/qzcap/apps:
///
///     NAME                                   what the app works with
///     qzcap/apps/opkg/info/NAME.control      its control file
///     qzcap/apps/opkg/packages/NAME          what its package held, to restore it from
///     .install.XXXXXX                        an installation under way
///
/// Functions that can fail return what is wrong, or an empty text.
#ifndef ARVOK_QZCAPD_APP_FILES_H
#define ARVOK_QZCAPD_APP_FILES_H

#include <cstdint>
#include <string>
#include <vector>

namespace arvok::qzcapd {

class AppFiles {
  public:
    /// A root other than "" gets its qzcap; without one, /qzcap must be there for apps to have files. The
    /// folders below are made when they are needed.
    explicit AppFiles(const std::string &root);

    /// Removes what installations have left that a kill has cut short.
    void remove_leftovers() const;

    /// A fresh folder for an installation; on failure `folder` is left alone.
    std::string make_work_folder(std::string *folder) const;

    /// The apps that have a control file.
    std::vector<std::string> names() const;
    /// Empty when the app has none.
    std::string control(const std::string &name) const;
    std::string write_control(const std::string &name, const std::string &text) const;

    /// Makes the tree `data` in the work folder, which is taken away, an app's files. Of earlier ones those
    /// stay that the app has made itself.
    std::string store(const std::string &name, const std::string &control_text, const std::string &folder,
                      const std::string &data) const;
    /// Gives an app its files back as they were installed, and only those. One that came without a package
    /// keeps what it has.
    std::string restore(const std::string &name) const;
    /// Removes the control file and, when they came from a package, the app's files.
    void remove(const std::string &name) const;

  private:
    std::string live(const std::string &name) const { return apps_ + "/" + name; }
    std::string kept(const std::string &name) const { return opkg_ + "/packages/" + name; }
    std::string control_path(const std::string &name) const { return opkg_ + "/info/" + name + ".control"; }

    std::string device_;
    std::string apps_;
    std::string opkg_;
};

/// What of a tree is no app's: links that lead out of it, files that are neither regular files, folders nor
/// links, and more than `largest` bytes in all, holes and further names of a file included. Makes its folders
/// and files accessible to their owner.
std::string check_tree(const std::string &folder, std::uintmax_t largest);

/// Removes a file or tree, whatever its folders' permissions are.
void remove_tree(const std::string &path);

}  // namespace arvok::qzcapd

#endif
