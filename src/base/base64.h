#pragma once
/// Bytes as text.

#include <optional>
#include <string>
#include <string_view>

namespace arvok {

std::string base64_encode(std::string_view bytes);
/// The same behind a text.
void append_base64(std::string &text, std::string_view bytes);

/// The bytes that a base64 text stands for. White space is skipped, padding must be right. Nothing when it is
/// no base64.
std::optional<std::string> base64_decode(std::string_view text);

}  // namespace arvok
