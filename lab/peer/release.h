/// The deleter of what a C library hands out and takes back by a function of its own.
#pragma once

namespace arvok::lab {

template <auto Release>
struct Releaser {
    template <typename T>
    void operator()(T *value) const {
        Release(value);
    }
};

}  // namespace arvok::lab
