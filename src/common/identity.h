#pragma once
/// Random values, UUIDs, hex digits and MAC addresses.

#include <cstdint>

#include "common/handle.h"

namespace arvok {

/// Seed of the generator behind the random helpers; 0 until it is first used (tests set it).
extern std::uint32_t seed;

/// Pseudo-random value in [min, max); `min` when max <= min.
int _get_random_number(int min, int max);

/// Heap text of `len` random characters from 0-9A-Za-z; null when `len` is negative or memory is short.
text_ptr _get_random_string(int len);

/// A random (version 4) UUID in its lower-case 36-character form. Static buffer; valid until the next call.
const char *_get_uuid();

/// Normalises a MAC in place to 12 upper-case hex digits. Accepts 12 digits, or 17 characters with '-' or ':'
/// between the pairs. Returns 0, or -1 for anything else; what stood before the offending digit stays
/// upper-cased.
int _convert_mac(char *mac);

/// Value of a hex digit of either case; 0 for any other character.
int _h2d(char c);

/// Lower-case hex digit of 0..15; '0' for any other value.
char _d2h(int v);

/// Writes the character arguments into `dst`, at most `n`, stopping before a zero argument. No terminator:
/// the caller passes a zero-filled buffer.
void _c(char *dst, int n, ...);

}  // namespace arvok
