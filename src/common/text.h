#pragma once
/// Null-tolerant versions of the C string calls. A null text is an ordinary value here: the platform's
/// records leave a field null where there is nothing to say.

#include <cstdarg>
#include <cstddef>

#include "common/handle.h"

namespace arvok {

/// Heap copy of `s`, or null for null.
text_ptr _strdup(const char *s);

/// Length of `s`, or -1 for null.
int _strlen(const char *s);

/// Like strcmp and strcasecmp; null sorts before every text and equals null.
int _strcmp(const char *a, const char *b);
int _strcasecmp(const char *a, const char *b);

/// Copies at most `size` - 1 characters and terminates `dst` (nothing is written for size 0). Returns the
/// length of `src`, so a result of `size` or more means that the copy was cut. Null `dst` or `src`: 0,
/// nothing written.
std::size_t _strlcpy(char *dst, const char *src, std::size_t size);

/// Takes away what a cut has left of a character of several bytes at the end of a UTF-8 text.
void drop_cut_character(char *text);

/// Formats into `text`; what does not fit is cut between two characters.
void format_cut(char *text, std::size_t size, const char *format, va_list args);

/// The text itself, or "" for null: what goes into a message where a record has no text.
inline const char *text_or_empty(const char *s) {
    return s ? s : "";
}

}  // namespace arvok
