#include "store/ini_value.h"

#include <cstring>

uint32_t ini_get_value(const char* text, const char* key, uint16_t def) {
    if (text == nullptr || key == nullptr || key[0] == '\0')
        return def;
    const char* hit = std::strstr(text, key);
    if (hit == nullptr)
        return def;
    // A key given twice is ambiguous: treat it as absent.
    const char* eol = std::strchr(hit, '\n');
    if (eol != nullptr && std::strstr(eol, key) != nullptr)
        return def;

    const char* p = hit + std::strlen(key);
    while (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r' || *p == '\v' || *p == '\f')
        ++p;
    bool negative = false;
    if (*p == '+' || *p == '-') {
        negative = (*p == '-');
        ++p;
    }
    // Accumulate modulo 2^32 like the C library's conversion does in practice, without its
    // undefined overflow; only the low 16 bits matter.
    uint32_t v = 0;
    while (*p >= '0' && *p <= '9') {
        v = v * 10u + static_cast<uint32_t>(*p - '0');
        ++p;
    }
    if (negative)
        v = 0u - v;
    return v & 0xFFFFu;
}
