// The C23 spellings of strtol and sscanf for glibc releases older than 2.38.
//
// live555 binaries built against glibc 2.38 or later import these (the newer
// headers redirect strtol/sscanf to them); scripts/glibc_compat_patch.py drops
// their version requirement and lets the loader bind them here instead.  The
// C23 variants differ only by also accepting "0b" binary integers, which the
// RTSP and SDP text live555 parses with them never contains.  Keep this list in
// step with PROVIDED in that script.
//
// On glibc 2.38+ the real functions exist and the headers would redirect the
// calls below back to them, so the file compiles to nothing there.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#if defined(__GLIBC__) && !__GLIBC_PREREQ(2, 38)

extern "C" __attribute__((visibility("default"))) long __isoc23_strtol(const char* text, char** end,
                                                                       int base) {
    return std::strtol(text, end, base);
}

extern "C" __attribute__((visibility("default"))) int __isoc23_sscanf(const char* text,
                                                                      const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int converted = std::vsscanf(text, format, args);
    va_end(args);
    return converted;
}

#endif
