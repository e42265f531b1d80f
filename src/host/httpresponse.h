// What the client knows of the response: status and header fields of the latest response
// head, and whether that head is the final one. A transfer may show several heads (100
// Continue, the 401 of a Digest round trip, redirects); each status line starts afresh.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace camfetch_host {

class HttpResponse {
public:
    // One header line as the transfer delivers it (line end included or not).
    void OnHeaderLine(std::string_view line, bool followRedirects);
    // Body bytes arrived: the head they follow is the final one.
    void OnBody() { m_bFinal = m_iStatus != 0; }

    int Status() const { return m_iStatus; }
    // The final head is complete (body data may still be missing).
    bool Final() const { return m_bFinal; }
    // The head ended but the transfer may still replace it (authentication, redirect).
    bool HeadEnded() const { return m_bHeadEnded; }
    // Value of the last field of that name (case-insensitive), or null.
    const std::string* Field(std::string_view name) const;
    void SetField(std::string_view name, std::string value);

private:
    static constexpr size_t kMaxFields = 128;

    int m_iStatus = 0;
    bool m_bHeadEnded = false;
    bool m_bFinal = false;
    std::vector<std::pair<std::string, std::string>> m_fields;  // lower-case name, value
};

// Case-insensitive ASCII comparison and search.
bool EqualsNoCase(std::string_view a, std::string_view b);
size_t FindNoCase(std::string_view text, std::string_view needle);
// Whether a Content-Type value names a multipart type with a boundary parameter.
bool IsMultipartWithBoundary(std::string_view contentType);
// Looks at the first bytes of a body for a multipart content type: a leading "--token" line
// gives "multipart/x-mixed-replace; boundary=token" with consumed 0; a header block (ended by
// an empty line) holding such a Content-Type gives it, with consumed = the block's length.
// Returns false when neither is there.
bool SniffMultipartType(std::string_view head, std::string& contentType, size_t& consumed);

}  // namespace camfetch_host
