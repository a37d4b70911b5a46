#pragma once
/// Small whole files, package control files, and a hex dump.

#include <cstddef>
#include <cstdio>

#include "common/handle.h"

namespace arvok {

using file_ptr = handle<std::FILE, &std::fclose>;

/// Copies the value of the first line named `key` of an opkg control file ("Name: value" lines, '#' comments)
/// into `out` (at most `outsize` - 1 characters). `out` is untouched when the file or the line is missing.
void _get_control(const char *path, const char *key, char *out, std::size_t outsize);

/// Size in bytes, or -1.
int _get_file_size(const char *path);

/// Replaces the file's content. Returns the bytes written, or -1 when the file cannot be opened.
int _write_file(const char *path, const void *buf, std::size_t len);

/// Reads at most `len` bytes; `buf` is not terminated. Returns the bytes read, or -1 when the file cannot be
/// opened.
int _read_file(const char *path, void *buf, std::size_t len);

/// Writes the bytes to standard output as hex, 64 to a line, and " (length)". For debugging; not logged.
void _bin_print(const void *buf, int len);

}  // namespace arvok
