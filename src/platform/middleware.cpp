#include "platform/middleware.h"

#include "base/clock.h"
#include "base/command.h"
#include "base/files.h"
#include "base/product.h"
#include "base/text.h"

namespace arvok::platform {
namespace {

constexpr char installed_program[] = "/qzcap/bin/appd";
constexpr std::size_t output_max = 32;
constexpr std::size_t vendor_max = 63;
constexpr std::size_t version_max = 255;

// Whoever asks for the version over and over must not have the agent run programs. An update shows that much
// later.
constexpr long kept_s = 60;

std::string ask_program() {
    const char *command = file_exists(installed_program) ? "/qzcap/bin/appd version" : "appd version";
    const std::string output = command_output(command, output_max).value_or("");
    std::string_view told = until_zero(output);
    told = told.substr(0, told.find(" ("));
    const std::size_t colon = told.find(": ");
    return std::string(colon == std::string_view::npos ? "(NULL)" : told.substr(colon + 2));
}

}  // namespace

std::string middleware::version(std::string_view vendor) {
    if (!asked_at_s_ || uptime() - *asked_at_s_ >= kept_s) {
        told_ = ask_program();
        asked_at_s_ = uptime();
    }

    const std::string_view word = vendor.empty() ? "UNKNOWN" : cut(vendor, vendor_max);
    std::string version = "TUL1.0_QZ_";
    version.append(word.substr(0, word.find(' ')))
        .append("_")
        .append(product_architecture)
        .append("_")
        .append(told_);
    return upper_case(cut(version, version_max));
}

}  // namespace arvok::platform
