#pragma once
/// Hex digits and MAC addresses.

#include <string>
#include <string_view>

namespace arvok {

/// Value of a hex digit of either case; 0 for any other character.
int hex_value(char digit);

/// Lower-case hex digit of the low four bits.
char hex_digit(int value);

/// A MAC as 12 upper-case hex digits, of a text of 12 digits or of 17 characters with '-' or ':' between the
/// pairs. A text of another shape comes back as it is; one of this shape with a wrong character comes back
/// joined, and upper-cased up to that character.
std::string normalised_mac(std::string_view text);

/// Whether a text is a MAC in one of those spellings.
bool is_mac(std::string_view text);

}  // namespace arvok
