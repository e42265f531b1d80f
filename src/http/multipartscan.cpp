#include "http/multipartscan.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

namespace multipart {

void LowerInPlace(char* line, size_t max) {
    for (size_t i = 0; i < max && line[i]; ++i)
        line[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(line[i])));
}

char* NextToken(char*& cursor, const char* delims) {
    char* start = cursor + strspn(cursor, delims);
    if (*start == 0) {
        cursor = start;
        return nullptr;
    }
    char* end = start + strcspn(start, delims);
    if (*end) {
        *end = 0;
        cursor = end + 1;
    } else {
        cursor = end;
    }
    return start;
}

bool NameIs(const char* name, const char* key) {
    return strncmp(name, key, strlen(key)) == 0;
}

long long ParseDecimal(const char* text) {
    return strtoll(text, nullptr, 10);
}

long long FindPattern(const uint8_t* data, size_t from, size_t last, const char* pattern,
                      size_t len) {
    if (len == 0 || from > last)
        return -1;
    // Jump between occurrences of the first byte; a full comparison only there.
    const uint8_t first = static_cast<uint8_t>(pattern[0]);
    const uint8_t* p = data + from;
    const uint8_t* end = data + last + 1;
    while (p < end) {
        p = static_cast<const uint8_t*>(memchr(p, first, end - p));
        if (!p)
            return -1;
        if (memcmp(p + 1, pattern + 1, len - 1) == 0)
            return p - data;
        ++p;
    }
    return -1;
}

}  // namespace multipart
