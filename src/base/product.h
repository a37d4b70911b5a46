#pragma once
/// What this program is, as peers and `arvokclt -v` are told.

namespace arvok {

inline constexpr char product_version[] = "1.0.7";
inline constexpr char product_architecture[] = "ipq5018x";

}  // namespace arvok
