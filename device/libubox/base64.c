#include <libubox/utils.h>
#include <string.h>

static const char alphabet[64] = {'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K', 'L', 'M',
                                  'N', 'O', 'P', 'Q', 'R', 'S', 'T', 'U', 'V', 'W', 'X', 'Y', 'Z',
                                  'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j', 'k', 'l', 'm',
                                  'n', 'o', 'p', 'q', 'r', 's', 't', 'u', 'v', 'w', 'x', 'y', 'z',
                                  '0', '1', '2', '3', '4', '5', '6', '7', '8', '9', '+', '/'};

int b64_encode(const void *src, size_t len, void *dest, size_t size) {
    const uint8_t *in = src;
    char *out = dest;
    size_t text_len;

    if (len > (size_t)INT32_MAX / 4 * 3 - 3)
        return -1;
    text_len = (len + 2) / 3 * 4;
    if (text_len >= size)
        return -1;
    for (; len >= 3; in += 3, len -= 3) {
        *out++ = alphabet[in[0] >> 2];
        *out++ = alphabet[(in[0] & 3) << 4 | in[1] >> 4];
        *out++ = alphabet[(in[1] & 15) << 2 | in[2] >> 6];
        *out++ = alphabet[in[2] & 63];
    }
    if (len) {
        unsigned int second = len > 1 ? in[1] : 0;

        *out++ = alphabet[in[0] >> 2];
        *out++ = alphabet[(in[0] & 3u) << 4 | second >> 4];
        *out++ = len > 1 ? alphabet[(second & 15) << 2] : '=';
        *out++ = '=';
    }
    *out = '\0';
    return (int)text_len;
}

static const char *skip_space(const char *text) {
    /* Not isspace(): the text must mean the same in every locale. */
    while (*text == ' ' || (*text >= '\t' && *text <= '\r'))
        text++;
    return text;
}

static int value_of(char c) {
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    return c == '+' ? 62 : c == '/' ? 63 : -1;
}

int b64_decode(const void *text, void *dest, size_t size) {
    const char *in = skip_space(text);
    uint8_t *out = dest;
    size_t written = 0;
    uint32_t bits = 0;
    int held = 0; /* the number of low bits in `bits` that are not written yet: 0, 6, 4 or 2 */

    for (; *in && *in != '='; in = skip_space(in + 1)) {
        int value = value_of(*in);

        if (value < 0)
            return -1;
        bits = (bits & 0x3f) << 6 | (uint32_t)value;
        if (held == 0) {
            held = 6;
            continue;
        }
        held -= 2;
        if (written >= (size_t)INT32_MAX || (out && written >= size))
            return -1;
        if (out)
            out[written] = (uint8_t)(bits >> held);
        written++;
    }
    if (held == 0)
        return *in ? -1 : (int)written;
    /* A group is begun: its spare bits must be zero and its padding complete. */
    if (held == 6 || (bits & ((1u << held) - 1)))
        return -1;
    for (int padding = held / 2; padding > 0; padding--) {
        if (*in != '=')
            return -1;
        in = skip_space(in + 1);
    }
    return *in ? -1 : (int)written;
}
