// Text and byte scanning helpers of the multipart parser: in-place tokenising of header lines
// (the rules cameras are matched by: lower-cased lines, prefix name tests, blank-and-colon
// splitting), number conversion, and the boundary search in the part buffer.
#pragma once

#include <cstddef>
#include <cstdint>

namespace multipart {

// Lower-cases a line in place, up to its NUL or max bytes.
void LowerInPlace(char* line, size_t max);
// The next token at cursor: leading delimiters skipped, the token ended by a NUL written over
// the delimiter that follows it; cursor moves behind that delimiter (or to the end). Null when
// no token is left.
char* NextToken(char*& cursor, const char* delims);
// Whether name begins with key (a prefix test over the key's length).
bool NameIs(const char* name, const char* key);
// Decimal number with leading blanks skipped; 0 when there are no digits.
long long ParseDecimal(const char* text);
// First position p in [from, last] where the len bytes of pattern start, or -1. The caller
// guarantees that data holds at least last + len bytes.
long long FindPattern(const uint8_t* data, size_t from, size_t last, const char* pattern,
                      size_t len);

}  // namespace multipart
