#include "host/httpresponse.h"

#include <cctype>
#include <cstdlib>

namespace camfetch_host {
namespace {

constexpr size_t kMaxSniffLines = 30;

char Lower(char c) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

std::string_view TrimBlanks(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
        s.remove_prefix(1);
    while (!s.empty() &&
           (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n'))
        s.remove_suffix(1);
    return s;
}

// Splits "Name: value" into trimmed name and value; false without a colon.
bool SplitField(std::string_view line, std::string_view& name, std::string_view& value) {
    size_t colon = line.find(':');
    if (colon == std::string_view::npos)
        return false;
    name = TrimBlanks(line.substr(0, colon));
    value = TrimBlanks(line.substr(colon + 1));
    return !name.empty();
}

// Next complete line of text starting at pos (without its CR LF or LF); false when the text
// ends before a line end.
bool NextLine(std::string_view text, size_t& pos, std::string_view& line) {
    size_t lf = text.find('\n', pos);
    if (lf == std::string_view::npos)
        return false;
    line = text.substr(pos, lf - pos);
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    pos = lf + 1;
    return true;
}

}  // namespace

bool EqualsNoCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (Lower(a[i]) != Lower(b[i]))
            return false;
    return true;
}

size_t FindNoCase(std::string_view text, std::string_view needle) {
    if (needle.size() > text.size())
        return std::string_view::npos;
    for (size_t i = 0; i + needle.size() <= text.size(); ++i)
        if (EqualsNoCase(text.substr(i, needle.size()), needle))
            return i;
    return std::string_view::npos;
}

bool IsMultipartWithBoundary(std::string_view contentType) {
    return FindNoCase(contentType, "multipart/") != std::string_view::npos &&
           FindNoCase(contentType, "boundary") != std::string_view::npos;
}

void HttpResponse::OnHeaderLine(std::string_view line, bool followRedirects) {
    line = TrimBlanks(line);
    if (line.size() >= 5 && line.substr(0, 5) == "HTTP/") {
        // A new head: whatever came before was an interim or replaced response.
        m_fields.clear();
        m_bHeadEnded = false;
        m_bFinal = false;
        size_t sp = line.find(' ');
        m_iStatus = sp == std::string_view::npos
                        ? 0
                        : static_cast<int>(
                              strtol(std::string(line.substr(sp + 1, 3)).c_str(), nullptr, 10));
        return;
    }
    if (line.empty()) {
        if (m_iStatus == 0 || m_bHeadEnded)
            return;  // no head yet, or the blank line after trailers
        m_bHeadEnded = true;
        // Heads the transfer will replace by itself never count as final here: interim 1xx,
        // the 401/407 that starts an authentication round trip (whether a retry follows is
        // only known when the next head, the body or the end arrives), followed redirects.
        const bool interim = m_iStatus < 200;
        const bool auth = m_iStatus == 401 || m_iStatus == 407;
        const bool redirect =
            m_iStatus >= 300 && m_iStatus < 400 && followRedirects && Field("location") != nullptr;
        m_bFinal = !(interim || auth || redirect);
        return;
    }
    std::string_view name, value;
    if (m_iStatus == 0 || m_bHeadEnded || !SplitField(line, name, value))
        return;
    SetField(name, std::string(value));
}

const std::string* HttpResponse::Field(std::string_view name) const {
    for (auto it = m_fields.rbegin(); it != m_fields.rend(); ++it)
        if (EqualsNoCase(it->first, name))
            return &it->second;
    return nullptr;
}

void HttpResponse::SetField(std::string_view name, std::string value) {
    for (auto& f : m_fields)
        if (EqualsNoCase(f.first, name)) {
            f.second = std::move(value);
            return;
        }
    if (m_fields.size() >= kMaxFields)
        return;  // a hostile server gets no unbounded memory from us
    std::string lower(name);
    for (char& c : lower)
        c = Lower(c);
    m_fields.emplace_back(std::move(lower), std::move(value));
}

bool SniffMultipartType(std::string_view head, std::string& contentType, size_t& consumed) {
    size_t pos = 0;
    std::string_view line;
    size_t lines = 0;
    // Blank lines before anything else are left for the reader, which skips them anyway.
    do {
        if (!NextLine(head, pos, line) || ++lines > kMaxSniffLines)
            return false;
    } while (line.empty());

    if (line.size() > 2 && line.substr(0, 2) == "--") {
        std::string_view token = TrimBlanks(line.substr(2));
        if (token.empty())
            return false;
        contentType = "multipart/x-mixed-replace; boundary=" + std::string(token);
        consumed = 0;
        return true;
    }

    std::string found;
    for (;;) {
        std::string_view name, value;
        if (SplitField(line, name, value) && EqualsNoCase(name, "content-type") &&
            FindNoCase(value, "multipart/") != std::string_view::npos)
            found = std::string(value);
        if (!NextLine(head, pos, line) || ++lines > kMaxSniffLines)
            return false;
        if (line.empty())
            break;
    }
    if (found.empty())
        return false;
    contentType = found;
    consumed = pos;
    return true;
}

}  // namespace camfetch_host
