#pragma once
/// Owning handles for what C libraries hand out: a unique_ptr that knows the one call that releases it.

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace arvok {

/// Deleter that calls `Release(pointer)`; the pointer is never null (unique_ptr sees to that).
template <auto Release>
struct release_with {
    template <typename T>
    void operator()(T *p) const {
        static_cast<void>(Release(p));
    }
};

template <typename T, auto Release>
using handle = std::unique_ptr<T, release_with<Release>>;

using malloc_text = handle<char, &std::free>;  ///< a terminated text from malloc
using file_handle = handle<std::FILE, &std::fclose>;

}  // namespace arvok
