// The library's one way to log: the level decision of the host's configuration, then one
// KVPrintf call carrying category, level, source base name, line and function.
#pragma once

#include <cstddef>

#include "core/hostapi.h"

// Whether a message of this level in this category is wanted by the host's configuration.
bool LogWanted(LOG_CATEG categ, LOG_LEVEL level);
// The process-table step of LogWanted on its own.
bool ChkPidLevel(LOG_LEVEL level);

namespace camfetch {
// Base name of a source path without its extension, computed at compile time.
template <std::size_t N>
struct LogFileName {
    char text[N]{};
    constexpr explicit LogFileName(const char (&path)[N]) {
        std::size_t start = 0;
        for (std::size_t i = 0; i < N && path[i]; ++i)
            if (path[i] == '/' || path[i] == '\\')
                start = i + 1;
        std::size_t end = start;
        while (end < N && path[end])
            ++end;
        for (std::size_t i = end; i > start; --i)
            if (path[i - 1] == '.') {
                end = i - 1;
                break;
            }
        for (std::size_t i = start; i < end; ++i)
            text[i - start] = path[i];
    }
};
}  // namespace camfetch

#define CF_LOG_FILE                                                           \
    ([]() -> const char* {                                                    \
        static constexpr camfetch::LogFileName<sizeof(__FILE__)> n(__FILE__); \
        return n.text;                                                        \
    }())

// Level-checked message in a category.
#define CF_LOG(categ, level, ...)                                                                \
    do {                                                                                         \
        if (LogWanted(categ, level))                                                             \
            KVPrintf(0, Enum2String(categ), Enum2String(level), CF_LOG_FILE, __LINE__, __func__, \
                     __VA_ARGS__);                                                               \
    } while (0)

// Message without category or level: written whatever the configuration says.
#define CF_LOG_RAW(...) KVPrintf(0, nullptr, nullptr, CF_LOG_FILE, __LINE__, __func__, __VA_ARGS__)

// Level-checked message that names a function other than the enclosing one.
#define CF_LOG_AS(func, categ, level, ...)                                                   \
    do {                                                                                     \
        if (LogWanted(categ, level))                                                         \
            KVPrintf(0, Enum2String(categ), Enum2String(level), CF_LOG_FILE, __LINE__, func, \
                     __VA_ARGS__);                                                           \
    } while (0)
