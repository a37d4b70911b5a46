#pragma once
/// Dispatch: a constant table of rows that have a `name`, searched in order, first exact match wins.

#include <cstddef>

#include "common/text.h"

namespace arvok {

/// The first row of that name, or null.
template <typename Row, std::size_t N>
const Row *find_row(const Row (&table)[N], const char *name) {
    for (const Row &row : table)
        if (_strcmp(row.name, name) == 0)
            return &row;
    return nullptr;
}

}  // namespace arvok
