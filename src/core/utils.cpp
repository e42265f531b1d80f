#include "core/utils.h"

#include <errno.h>
#include <time.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/log.h"

std::string FormatIsoTime(long long us) {
    time_t seconds = static_cast<time_t>(us / 1000000);
    struct tm parts;
    char text[64] = {0};
    if (!gmtime_r(&seconds, &parts))
        return std::string();
    size_t n = strftime(text, sizeof(text), "%Y%m%dT%H%M%S", &parts);
    snprintf(text + n, sizeof(text) - n, ".%03lldZ", us / 1000 % 1000);
    return text;
}

std::string GetBaseName(const std::string& path) {
    size_t slash = path.find_last_of("/\\");
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

int HexToInt(const char* text, int len) {
    int value = 0;
    for (int i = 0; i < len && text; ++i) {
        char c = text[i];
        int digit;
        if (c >= '0' && c <= '9')
            digit = c - '0';
        else if (c >= 'a' && c <= 'f')
            digit = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            digit = c - 'A' + 10;
        else
            break;
        value = value * 16 + digit;
    }
    return value;
}

std::string UrlEncode(const std::string& text, const std::string& keep) {
    static const char kHex[] = "0123456789ABCDEF";
    static const char kUnreserved[] = "~_()*,-.";
    std::string out;
    out.reserve(text.size() * 3);
    for (unsigned char c : text) {
        if (isalnum(c) || (c && strchr(kUnreserved, c))) {
            out += static_cast<char>(c);
        } else if (isspace(c)) {
            out += "%20";
        } else if (keep.find(static_cast<char>(c)) != std::string::npos) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out;
}

void RemoveChar(std::string& text, char c) {
    std::string::size_type w = 0;
    for (char x : text)
        if (x != c)
            text[w++] = x;
    text.resize(w);
}

std::string Trim(const std::string& text, const char* set) {
    if (!set)
        return text;
    size_t begin = text.find_first_not_of(set);
    if (begin == std::string::npos)
        return std::string();
    size_t end = text.find_last_not_of(set);
    return text.substr(begin, end - begin + 1);
}

void SafeCopy(char* dst, const char* src, size_t size) {
    if (size == 0 || !dst)
        return;
    size_t n = 0;
    if (src)
        while (n + 1 < size && src[n]) {
            dst[n] = src[n];
            ++n;
        }
    dst[n] = 0;
}

void ReplaceAll(std::string& text, const std::string& from, const std::string& to) {
    if (from.empty())
        return;
    for (size_t pos = text.find(from); pos != std::string::npos;
         pos = text.find(from, pos + to.size()))
        text.replace(pos, from.size(), to);
}

char* Base64Encode(const char* text) {
    static const char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    size_t len = text ? strlen(text) : 0;
    char* out = static_cast<char*>(malloc((len + 2) / 3 * 4 + 1));
    if (!out)
        return nullptr;
    const unsigned char* in = reinterpret_cast<const unsigned char*>(text);
    char* w = out;
    size_t i = 0;
    for (; i + 2 < len; i += 3) {
        unsigned v = (in[i] << 16) | (in[i + 1] << 8) | in[i + 2];
        *w++ = kAlphabet[(v >> 18) & 63];
        *w++ = kAlphabet[(v >> 12) & 63];
        *w++ = kAlphabet[(v >> 6) & 63];
        *w++ = kAlphabet[v & 63];
    }
    if (i < len) {
        unsigned v = in[i] << 16;
        if (i + 1 < len)
            v |= in[i + 1] << 8;
        *w++ = kAlphabet[(v >> 18) & 63];
        *w++ = kAlphabet[(v >> 12) & 63];
        *w++ = i + 1 < len ? kAlphabet[(v >> 6) & 63] : '=';
        *w++ = '=';
    }
    *w = 0;
    return out;
}

std::string DigestToHex(const unsigned char* digest) {
    char text[33];
    for (int i = 0; i < 16; ++i)
        snprintf(text + 2 * i, 3, "%02x", digest[i]);
    return std::string(text, 32);
}

std::vector<int> SplitToInts(const std::string& text, const std::string& delims) {
    std::vector<int> values;
    if (text.empty() || delims.empty())
        return values;
    std::string copy = text;
    char* save = nullptr;
    for (char* piece = strtok_r(&copy[0], delims.c_str(), &save); piece;
         piece = strtok_r(nullptr, delims.c_str(), &save))
        values.push_back(static_cast<int>(strtol(piece, nullptr, 10)));
    return values;
}

std::string Int64ToString(long long value) {
    return std::to_string(value);
}

int WriteFd(int fd, const char* buffer, int length) {
    if (length < 1)
        return 0;
    DelayTimer retry(10000);
    retry.BeginTiming();
    int written = 0;
    while (written < length) {
        ssize_t n = write(fd, buffer + written, static_cast<size_t>(length - written));
        if (n > 0) {
            written += static_cast<int>(n);
            continue;
        }
        if (n == 0)
            continue;
        if (errno == EINTR || errno == EAGAIN) {
            retry.Delay();
            continue;
        }
        CF_LOG(LOG_CATEG_CORE, LOG_LEVEL_WARNING, "Write fd[%d] error[%d]\n", fd, errno);
        break;
    }
    return written;
}
