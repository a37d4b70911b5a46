#include "platform/middleware.h"

#include "base/files.h"
#include "base/product.h"
#include "base/text.h"

namespace arvok::platform {
namespace {

constexpr char installed_program[] = "/qzcap/bin/appd";
constexpr std::size_t output_max = 32;
constexpr std::size_t vendor_max = 63;
constexpr std::size_t version_max = 255;

}  // namespace

std::string middleware_version(std::string_view vendor) {
    const char *command = file_exists(installed_program) ? "/qzcap/bin/appd version" : "appd version";
    const std::string output = command_output(command, output_max).value_or("");
    std::string_view told = until_zero(output);
    told = told.substr(0, told.find(" ("));
    const std::size_t colon = told.find(": ");
    told = colon == std::string_view::npos ? "(NULL)" : told.substr(colon + 2);

    const std::string_view word = vendor.empty() ? "UNKNOWN" : cut(vendor, vendor_max);
    std::string version = "TUL1.0_QZ_";
    version.append(word.substr(0, word.find(' ')))
        .append("_")
        .append(product_architecture)
        .append("_")
        .append(told);
    return upper_case(cut(version, version_max));
}

}  // namespace arvok::platform
