#include "mobile/mobilepayloadheader.h"

#include <limits>

namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kSeparators = ": ";

// A whole token of decimal digits that fits max; false for anything else.
bool ParseDecimal(std::string_view text, unsigned long long max, unsigned long long& value) {
    if (text.empty())
        return false;
    unsigned long long v = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        const unsigned digit = static_cast<unsigned>(c - '0');
        if (v > (max - digit) / 10)
            return false;
        v = v * 10 + digit;
    }
    value = v;
    return true;
}

// The first two tokens of a line cut at any run of separator characters.
void SplitKeyValue(std::string_view line, std::string_view& key, std::string_view& value) {
    auto next = [&line]() {
        const size_t start = line.find_first_not_of(kSeparators);
        if (start == std::string_view::npos) {
            line = {};
            return std::string_view();
        }
        line.remove_prefix(start);
        const size_t end = line.find_first_of(kSeparators);
        std::string_view token = line.substr(0, end);
        line.remove_prefix(end == std::string_view::npos ? line.size() : end);
        return token;
    };
    key = next();
    value = next();
}

}  // namespace

MobilePayloadHeader ParseMobilePayloadHeader(std::string_view block) {
    MobilePayloadHeader header;
    while (!block.empty()) {
        const size_t end = block.find(kLineEnd);
        std::string_view line = block.substr(0, end);
        block.remove_prefix(end == std::string_view::npos ? block.size() : end + kLineEnd.size());

        std::string_view key, value;
        SplitKeyValue(line, key, value);
        unsigned long long number = 0;
        if (key == "Content-Type") {
            header.contentType.assign(value.data(), value.size());
        } else if (key == "Content-Length") {
            header.contentLen = ParseDecimal(value, std::numeric_limits<uint32_t>::max(), number)
                                    ? static_cast<uint32_t>(number)
                                    : 0;
        } else if (key == "TimeStamp") {
            header.hasTimestamp =
                ParseDecimal(value, std::numeric_limits<long long>::max(), number);
            header.timestampUs = header.hasTimestamp ? static_cast<long long>(number) : 0;
        }
    }
    return header;
}
