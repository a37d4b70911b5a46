#pragma once
/// Random values, from the crypto library's generator; without any the process ends with status 1.

#include <cstddef>
#include <string>

namespace arvok {

/// A value in [min, max); `min` when max <= min.
int random_number(int min, int max);

/// `length` characters from 0-9A-Za-z.
std::string random_text(std::size_t length);

/// A random (version 4) UUID in its lower-case form of 36 characters.
std::string random_uuid();

}  // namespace arvok
