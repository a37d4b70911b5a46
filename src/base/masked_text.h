#pragma once
/// A text that has to be kept, but must not be found in the memory of the process: the device's token.

#include <cstddef>
#include <string>
#include <string_view>

#include "base/random.h"

namespace arvok {

class masked_text {
  public:
    masked_text() = default;

    masked_text &operator=(std::string_view text) {
        mask_ = random_text(text.size());
        masked_ = combined(text);
        return *this;
    }

    bool empty() const { return masked_.empty(); }
    /// A copy as it is, for use at once.
    std::string text() const { return combined(masked_); }

  private:
    std::string combined(std::string_view text) const {
        std::string result(text);
        for (std::size_t i = 0; i < result.size(); i++)
            result[i] = static_cast<char>(result[i] ^ mask_[i]);
        return result;
    }

    std::string mask_, masked_;
};

}  // namespace arvok
