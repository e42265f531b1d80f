// The unread part of a response body: bytes appended at the back as the transfer delivers them,
// consumed from the front by the reads, and pushed back in front by RestoreData. One
// contiguous block, so that a line or a boundary is always searched in one piece.
#pragma once

#include <cstddef>
#include <cstring>
#include <vector>

namespace camfetch_host {

class HttpBodyBuffer {
public:
    size_t Size() const { return m_end - m_begin; }
    bool Empty() const { return m_end == m_begin; }
    const char* Data() const { return m_storage.data() + m_begin; }

    void Append(const char* data, size_t len) {
        if (len == 0)
            return;
        if (m_storage.size() - m_end < len)
            MakeRoom(len, false);
        memcpy(m_storage.data() + m_end, data, len);
        m_end += len;
    }

    // Puts bytes in front of the unread ones.
    void Prepend(const char* data, size_t len) {
        if (len == 0)
            return;
        if (m_begin < len)
            MakeRoom(len, true);
        m_begin -= len;
        memcpy(m_storage.data() + m_begin, data, len);
    }

    // Copies up to len bytes out and consumes them; returns the count.
    size_t Take(char* out, size_t len) {
        size_t n = len < Size() ? len : Size();
        if (n)
            memcpy(out, Data(), n);
        Consume(n);
        return n;
    }

    void Consume(size_t len) {
        m_begin += len < Size() ? len : Size();
        if (m_begin == m_end)
            m_begin = m_end = 0;
    }

    void Clear() { m_begin = m_end = 0; }

private:
    // Makes room for len more bytes at the back, or in front when atFront.
    void MakeRoom(size_t len, bool atFront) {
        size_t live = Size();
        size_t front = atFront ? len : 0;
        if (m_storage.size() < live + len) {
            std::vector<char> bigger(live + len + live / 2 + 4096);
            if (live)
                memcpy(bigger.data() + front, Data(), live);
            m_storage.swap(bigger);
        } else if (live) {
            memmove(m_storage.data() + front, Data(), live);
        }
        m_begin = front;
        m_end = front + live;
    }

    std::vector<char> m_storage;
    size_t m_begin = 0;
    size_t m_end = 0;
};

}  // namespace camfetch_host
