#pragma once
/// The files of the guest network: its interface's index and its closing time. They are the only truth about
/// both and are read whenever they matter. What the disk does not tell or take, the log says.

#include <cstddef>
#include <optional>
#include <string>

#include "access/schedule.h"

namespace arvok::access {

struct guest_index {
    int index = 0;  ///< of the interface; 0 for none
    bool has_file = false;
};

struct guest_closing {
    std::string text{};                          ///< of the file; empty without one
    std::optional<guest_schedule> schedule{};    ///< nothing unless a command has written it
    std::string enable{}, start{}, last_time{};  ///< as the file has them
};

class guest_files {
  public:
    /// In `folder`, which ends with a slash.
    explicit guest_files(const std::string &folder);

    /// Nothing when the disk does not tell.
    std::optional<guest_index> index() const;
    std::optional<guest_closing> closing() const;

    /// These are false when the disk refuses: nothing has changed then.
    bool save_index(int index) const;
    bool remove_index() const;
    bool save_closing(const std::string &text) const;
    bool remove_closing() const;
    bool remove_all() const;

  private:
    const std::string index_path_, closing_path_;
};

}  // namespace arvok::access
