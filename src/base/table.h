#pragma once
/// Dispatch: a constant table of rows that have a `name`, searched in order, first exact match wins.

#include <cstddef>
#include <string_view>

namespace arvok {

/// The first row of that name, or null.
template <typename Row, std::size_t N>
const Row *find_row(const Row (&table)[N], std::string_view name) {
    for (const Row &row : table)
        if (name == row.name)
            return &row;
    return nullptr;
}

}  // namespace arvok
