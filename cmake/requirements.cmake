# What compiler and libraries have to be, said before a file fails that is none of the reader's.
include(CheckCXXSourceCompiles)

# The newest of what the code uses. A compiler may accept the standard's name and not have it yet.
check_cxx_source_compiles([[
#include <map>
#include <span>
#include <string_view>
#include <vector>
struct record { int number = 0; const char *text = nullptr; bool operator==(const record &) const = default; };
constexpr record row{.number = 1, .text = "one"};
int main() {
    std::vector<int> numbers{1, 2};
    std::erase_if(numbers, [](auto n) { return n == 2; });
    const auto size = []<typename T>(std::span<const T> items) { return items.size(); };
    return std::string_view(row.text).starts_with("o") && row == row && size(std::span<const int>(numbers)) ? 0 : 1;
}
]] ARVOK_HAS_CXX20)
if(NOT ARVOK_HAS_CXX20)
  message(FATAL_ERROR "the agent needs a C++20 compiler and its library: GCC from 10 on, clang from 13 on. "
    "${CMAKE_CXX_COMPILER} is ${CMAKE_CXX_COMPILER_ID} ${CMAKE_CXX_COMPILER_VERSION}; docs/porting.md says which releases "
    "of OpenWrt bring one. What failed stands in ${CMAKE_BINARY_DIR}/CMakeFiles/CMakeError.log")
endif()

# The platform's loop and bus libraries are supported from those of OpenWrt 21.02 on. Only the headers are looked at: what a
# library in a staging folder needs in turn may not be there yet.
function(arvok_check_loop_bus)
  if(NOT DEFINED LIBUBOX_SUPPORTED)
    set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
    try_compile(supported ${CMAKE_BINARY_DIR}/loop_bus_check ${PROJECT_SOURCE_DIR}/cmake/loop_bus_check.c
      CMAKE_FLAGS "-DINCLUDE_DIRECTORIES=${LIBUBOX_INCLUDE};${LIBUBUS_INCLUDE}"
      COMPILE_DEFINITIONS -Werror=implicit-function-declaration OUTPUT_VARIABLE output)
    if(NOT supported)
      message(FATAL_ERROR "libubox or libubus is older than OpenWrt 21.02, the oldest release that is supported, or its headers "
        "in ${LIBUBOX_INCLUDE} and ${LIBUBUS_INCLUDE} are incomplete (see docs/porting.md):\n${output}")
    endif()
    set(LIBUBOX_SUPPORTED TRUE CACHE INTERNAL "the headers of the loop and bus libraries are those of a supported release")
  endif()
endfunction()
