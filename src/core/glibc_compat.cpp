// The C23 spellings of the strto* and *scanf families for glibc releases older than 2.38.
//
// Binaries built against glibc 2.38 or later import these (the newer headers redirect
// strtol, sscanf, wcstoull, vfwscanf, ... to them); scripts/glibc_compat_patch.py drops their
// version requirement and lets the loader bind them here instead. That script takes the list
// of names from this file: every __isoc23_ name defined here counts as provided.
//
// What C23 changed: strto* and wcsto* read "0b"/"0B" before a binary digit as a base-2 prefix
// when the base is 0 or 2, which the definitions below do too. The scanf family also gained
// "%b" and binary "%i"; those forward to the older functions, which know neither. Text that
// uses none of this (all the RTSP and SDP text live555 parses) reads the same either way.
//
// On glibc 2.38+ the real functions exist and the headers would redirect the calls below back
// to them, so the file compiles to nothing there.
#include <inttypes.h>
#include <locale.h>
#include <wchar.h>
#include <wctype.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#if defined(__GLIBC__) && !__GLIBC_PREREQ(2, 38)

#define CAMFETCH_C23 extern "C" __attribute__((visibility("default")))

namespace {

bool IsSpace(char c) {
    return isspace(static_cast<unsigned char>(c));
}
bool IsSpace(wchar_t c) {
    return iswspace(static_cast<wint_t>(c));
}

// Runs `convert` (an older strto*/wcsto*) with C23's binary prefix: for base 0 or 2, a "0b"
// or "0B" after the blanks and sign, followed by a binary digit, is skipped and the digits
// read in base 2. The sign and digits go to `convert` in a copy, so overflow and the negation
// of unsigned values are the older function's own.
template <typename Char, typename Convert>
auto WithBinaryPrefix(const Char* text, Char** end, int base, Convert convert) {
    const Char* p = text;
    while (IsSpace(*p))
        ++p;
    const bool signed_ = *p == '+' || *p == '-';
    const Char* prefix = p + (signed_ ? 1 : 0);
    if ((base != 0 && base != 2) || prefix[0] != '0' || (prefix[1] != 'b' && prefix[1] != 'B') ||
        (prefix[2] != '0' && prefix[2] != '1'))
        return convert(text, end, base);
    std::basic_string<Char> copy(signed_ ? 1 : 0, *p);
    for (const Char* d = prefix + 2; *d == '0' || *d == '1'; ++d)
        copy += *d;
    Char* copyEnd = nullptr;
    const auto value = convert(copy.c_str(), &copyEnd, 2);
    if (end)
        *end = const_cast<Char*>(prefix + 2 + (copyEnd - copy.c_str()) - (signed_ ? 1 : 0));
    return value;
}

}  // namespace

// One C23 conversion function per older one; the _l forms take the locale as well.
#define CAMFETCH_STRTO(Type, Name, Char, Older)                                                 \
    CAMFETCH_C23 Type Name(const Char* text, Char** end, int base) {                            \
        return WithBinaryPrefix(text, end, base,                                                \
                                [](const Char* t, Char** e, int b) { return Older(t, e, b); }); \
    }
#define CAMFETCH_STRTO_L(Type, Name, Char, Older)                                           \
    CAMFETCH_C23 Type Name(const Char* text, Char** end, int base, locale_t locale) {       \
        return WithBinaryPrefix(text, end, base, [locale](const Char* t, Char** e, int b) { \
            return Older(t, e, b, locale);                                                  \
        });                                                                                 \
    }

CAMFETCH_STRTO(long, __isoc23_strtol, char, strtol)
CAMFETCH_STRTO(unsigned long, __isoc23_strtoul, char, strtoul)
CAMFETCH_STRTO(long long, __isoc23_strtoll, char, strtoll)
CAMFETCH_STRTO(unsigned long long, __isoc23_strtoull, char, strtoull)
CAMFETCH_STRTO(intmax_t, __isoc23_strtoimax, char, strtoimax)
CAMFETCH_STRTO(uintmax_t, __isoc23_strtoumax, char, strtoumax)
CAMFETCH_STRTO(long, __isoc23_wcstol, wchar_t, wcstol)
CAMFETCH_STRTO(unsigned long, __isoc23_wcstoul, wchar_t, wcstoul)
CAMFETCH_STRTO(long long, __isoc23_wcstoll, wchar_t, wcstoll)
CAMFETCH_STRTO(unsigned long long, __isoc23_wcstoull, wchar_t, wcstoull)
CAMFETCH_STRTO(intmax_t, __isoc23_wcstoimax, wchar_t, wcstoimax)
CAMFETCH_STRTO(uintmax_t, __isoc23_wcstoumax, wchar_t, wcstoumax)
CAMFETCH_STRTO_L(long, __isoc23_strtol_l, char, strtol_l)
CAMFETCH_STRTO_L(unsigned long, __isoc23_strtoul_l, char, strtoul_l)
CAMFETCH_STRTO_L(long long, __isoc23_strtoll_l, char, strtoll_l)
CAMFETCH_STRTO_L(unsigned long long, __isoc23_strtoull_l, char, strtoull_l)
CAMFETCH_STRTO_L(long, __isoc23_wcstol_l, wchar_t, wcstol_l)
CAMFETCH_STRTO_L(unsigned long, __isoc23_wcstoul_l, wchar_t, wcstoul_l)
CAMFETCH_STRTO_L(long long, __isoc23_wcstoll_l, wchar_t, wcstoll_l)
CAMFETCH_STRTO_L(unsigned long long, __isoc23_wcstoull_l, wchar_t, wcstoull_l)

// The scanf family: the va_list forms forward, the variadic ones gather their arguments.
CAMFETCH_C23 int __isoc23_vsscanf(const char* text, const char* format, va_list args) {
    return vsscanf(text, format, args);
}
CAMFETCH_C23 int __isoc23_vfscanf(FILE* stream, const char* format, va_list args) {
    return vfscanf(stream, format, args);
}
CAMFETCH_C23 int __isoc23_vscanf(const char* format, va_list args) {
    return vscanf(format, args);
}
CAMFETCH_C23 int __isoc23_vswscanf(const wchar_t* text, const wchar_t* format, va_list args) {
    return vswscanf(text, format, args);
}
CAMFETCH_C23 int __isoc23_vfwscanf(FILE* stream, const wchar_t* format, va_list args) {
    return vfwscanf(stream, format, args);
}
CAMFETCH_C23 int __isoc23_vwscanf(const wchar_t* format, va_list args) {
    return vwscanf(format, args);
}

#define CAMFETCH_SCANF(Name, Forward, ...)    \
    CAMFETCH_C23 int Name(__VA_ARGS__, ...) { \
        va_list args;                         \
        va_start(args, format);               \
        const int converted = Forward;        \
        va_end(args);                         \
        return converted;                     \
    }

CAMFETCH_SCANF(__isoc23_sscanf, vsscanf(text, format, args), const char* text, const char* format)
CAMFETCH_SCANF(__isoc23_fscanf, vfscanf(stream, format, args), FILE* stream, const char* format)
CAMFETCH_SCANF(__isoc23_scanf, vscanf(format, args), const char* format)
CAMFETCH_SCANF(__isoc23_swscanf, vswscanf(text, format, args), const wchar_t* text,
               const wchar_t* format)
CAMFETCH_SCANF(__isoc23_fwscanf, vfwscanf(stream, format, args), FILE* stream,
               const wchar_t* format)
CAMFETCH_SCANF(__isoc23_wscanf, vwscanf(format, args), const wchar_t* format)

#endif
