// Small helpers shared by the fetchers: time strings, text escaping and trimming, number
// conversion, robust writes to a descriptor.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

// "%Y%m%dT%H%M%S" in UTC followed by ".mmmZ", from microseconds since 1970.
std::string FormatIsoTime(long long us);
std::string GetBaseName(const std::string& path);
// Up to len hexadecimal digits; stops at the first other character.
int HexToInt(const char* text, int len);
std::string UrlEncode(const std::string& text, const std::string& keep);
void RemoveChar(std::string& text, char c);
std::string Trim(const std::string& text, const char* set);
// Copies at most size - 1 bytes and always terminates (nothing for size 0).
void SafeCopy(char* dst, const char* src, size_t size);
void ReplaceAll(std::string& text, const std::string& from, const std::string& to);
// Base64 of a NUL-terminated text into a malloc'ed, NUL-terminated buffer the caller frees.
char* Base64Encode(const char* text);
std::string DigestToHex(const unsigned char* digest);
std::vector<int> SplitToInts(const std::string& text, const std::string& delims);
std::string Int64ToString(long long value);
// Writes the whole buffer, retrying on EINTR/EAGAIN; returns the number of bytes written.
int WriteFd(int fd, const char* buffer, int length);
