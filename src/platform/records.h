#pragma once
/// The platform's records as objects that own themselves.

#include <cstddef>
#include <memory>
#include <optional>
#include <string_view>
#include <type_traits>

#include "base/handle.h"
#include "base/text.h"
#include "platform/gate.h"

namespace arvok::platform {

using owned_text = handle<char, &qzcap_free>;
using device_record = handle<qzcap_devinfo, &qzcap_free_devinfo>;
using wan_record = handle<qzcap_waninfo, &qzcap_free_waninfo>;
using radio_record = handle<qzcap_wifiinfo, &qzcap_free_wifiinfo>;
using switches_record = handle<qzcap_wifi_switch, &qzcap_free_wifi_switch>;
using diagnostics_record = handle<qzcap_diagnostics, &qzcap_free_diagnostics>;
using access_point_record = handle<qzcap_wifi_ap, &qzcap_free_wifi_ap>;
using mesh_record = handle<qzcap_mesh, &qzcap_free_mesh>;
using server_record = handle<qzcap_serverinfo, &qzcap_free_serverinfo>;

/// Gives memory that was released back to the system, as far as the C library has a call for that.
void give_memory_back();

/// A list of records that the platform handed out. After a long one memory is given back: allocators like to
/// keep it, and what was allocated meanwhile lies above it.
template <typename Record, auto Release>
class record_list {
  public:
    record_list() = default;
    record_list(unsigned int count, Record **records) : count_(count), records_(records) {}
    record_list(record_list &&other) noexcept { swap(other); }
    record_list &operator=(record_list &&other) noexcept {
        record_list taken(std::move(other));
        swap(taken);  // what was here goes at once
        return *this;
    }
    ~record_list() {
        if (records_)
            Release(count_, records_);
        if (count_ > long_list)
            give_memory_back();
    }

    Record *const *begin() const { return records_; }
    Record *const *end() const { return records_ + count_; }
    std::size_t size() const { return count_; }
    Record &operator[](std::size_t at) const { return *records_[at]; }

  private:
    static constexpr unsigned int long_list = 32;

    void swap(record_list &other) {
        std::swap(count_, other.count_);
        std::swap(records_, other.records_);
    }

    unsigned int count_ = 0;
    Record **records_ = nullptr;
};

using access_point_list = record_list<qzcap_wifi_ap, &qzcap_free_wifi_aps>;
using host_list = record_list<qzcap_laninfo, &qzcap_free_laninfos>;

/// The list that a call `get(first arguments..., &count, &list)` hands out; nothing when it fails. Always
/// asks the platform, as far as the gate lets it.
///
///     const auto timers = fetch_list<timer_list>(qzcap_wifi_timer_list);
template <typename List, typename Call, typename... First>
std::optional<List> fetch_list(Call get, First... first) {
    unsigned int count = 0;
    std::remove_const_t<std::remove_pointer_t<decltype(std::declval<List>().begin())>> *records = nullptr;
    if (call(get, first..., &count, &records) < 0)
        return std::nullopt;
    return List(count, records);
}

/// The text in which a platform call says why it failed, released at its end.
///
///     reason why;
///     if (call(qzcap_set_led_switch, word, why) < 0)
///         ... why.view() ...
class reason {
  public:
    reason() = default;
    ~reason() { qzcap_free(text_); }
    reason(const reason &) = delete;
    reason &operator=(const reason &) = delete;

    /// Where a call is to put its text; one that was there before is released.
    operator char **() {
        qzcap_free(text_);
        text_ = nullptr;
        return &text_;
    }
    bool is_given() const { return text_ != nullptr; }
    /// Terminated by a zero; empty when none was given.
    const char *c_str() const { return text_ ? text_ : ""; }

  private:
    char *text_ = nullptr;
};

/// A text, terminated by a zero, as a member of a record that a platform call only reads: records have no
/// const texts.
inline char *lent(std::string_view text) {
    return const_cast<char *>(text.data());
}

/// Replaces a text of a platform record with a copy of `value`.
void replace_text(char *&text, std::string_view value);

/// The host of that MAC, in either case, borrowed from the list; null when there is none. A host whose MAC is
/// not known is not found.
qzcap_laninfo *find_host(const host_list &hosts, std::string_view mac);

/// A host's `connecttype` on a radio.
constexpr std::uint32_t connected_wireless = 1;

}  // namespace arvok::platform
