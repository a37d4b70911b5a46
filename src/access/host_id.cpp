#include "access/host_id.h"

#include "access/texts.h"
#include "base/hex.h"
#include "base/text.h"

namespace arvok::access {
namespace {

constexpr std::size_t text_max = 15;  // of what is no MAC; the files of older programs hold no more

}  // namespace

std::string kept_mac(std::string_view given) {
    if (is_mac(given))
        return std::string(given);
    std::string kept(whole_characters(cut(given, text_max)));
    for (char &c : kept)
        if (c == '\n' || c == '|' || c == '\0')
            c = ' ';
    return kept;
}

host_id::host_id(std::string_view mac)
    : text_(is_mac(mac) ? normalised_mac(mac) : upper_case(kept_mac(mac))) {}

}  // namespace arvok::access
