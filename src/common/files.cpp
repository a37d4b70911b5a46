#include "common/files.h"

#include <sys/stat.h>

#include "common/text.h"

namespace arvok {

void _get_control(const char *path, const char *key, char *out, std::size_t outsize) {
    const file_ptr file(std::fopen(path, "re"));
    if (!file)
        return;
    char line[1024], name[128], value[1024];
    while (std::fgets(line, sizeof line, file.get())) {
        if (line[0] == '#')
            continue;
        if (std::sscanf(line, "%127[^:]%*[: \t]%1023[^\n]", name, value) == 2 && _strcmp(name, key) == 0) {
            _strlcpy(out, value, outsize);
            return;
        }
    }
}

int _get_file_size(const char *path) {
    struct stat st;
    return stat(path, &st) == 0 ? static_cast<int>(st.st_size) : -1;
}

int _write_file(const char *path, const void *buf, std::size_t len) {
    const file_ptr file(std::fopen(path, "we"));
    return file ? static_cast<int>(std::fwrite(buf, 1, len, file.get())) : -1;
}

int _read_file(const char *path, void *buf, std::size_t len) {
    const file_ptr file(std::fopen(path, "re"));
    return file ? static_cast<int>(std::fread(buf, 1, len, file.get())) : -1;
}

void _bin_print(const void *buf, int len) {
    const auto *bytes = static_cast<const unsigned char *>(buf);
    for (int i = 0; i < len; i++) {
        if (i > 0 && i % 64 == 0)
            std::putchar('\n');
        std::printf("%02X", bytes[i]);
    }
    std::printf(" (%d)\n", len);
}

}  // namespace arvok
