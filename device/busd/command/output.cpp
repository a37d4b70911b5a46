#include <cstdio>
#include <cstdlib>

#include "command.h"

namespace arvok {

namespace {

bool print_line(const Text &text) {
    if (!text)
        return false;
    // Each line at once: whoever reads them acts on them.
    return std::puts(text.get()) >= 0 && std::fflush(stdout) == 0;
}

}  // namespace

void FreeText::operator()(char *text) const {
    std::free(text);
}

bool print_message(const Session &session, blob_attr *message) {
    return print_line(Text(blobmsg_format_json_indent(message, true, session.simple ? -1 : 0)));
}

bool print_named(const char *name, blob_attr *message) {
    MessageBuffer line;

    if (blobmsg_add_field(line.get(), BLOBMSG_TYPE_TABLE, name, blob_data(message),
                          static_cast<unsigned int>(blob_len(message))) != 0)
        return false;
    return print_line(Text(blobmsg_format_json(line.message(), true)));
}

}  // namespace arvok
