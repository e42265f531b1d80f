// An MSB-first bit writer for crafted headers: plain fields, Exp-Golomb codes and alignment,
// so that a test writes a header field by field instead of as opaque bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>

namespace testbits {

class BitWriter {
public:
    void u(int bits, uint64_t value) {
        for (int i = bits - 1; i >= 0; --i)
            bit(static_cast<int>((value >> i) & 1));
    }
    void bit(int b) {
        if (m_used % 8 == 0)
            m_bytes.push_back('\0');
        if (b)
            m_bytes.back() =
                static_cast<char>(static_cast<uint8_t>(m_bytes.back()) | (0x80 >> (m_used % 8)));
        ++m_used;
    }
    void ue(uint32_t v) {
        const uint64_t code = uint64_t{v} + 1;
        int bits = 0;
        while ((code >> bits) > 1)
            ++bits;
        u(bits, 0);
        u(bits + 1, code);
    }
    void se(int32_t v) {
        const int64_t w = v;
        ue(static_cast<uint32_t>(w > 0 ? 2 * w - 1 : -2 * w));
    }
    // Runs of fields whose values the code under test does not care about.
    void bits(std::initializer_list<int> values) {
        for (int b : values)
            bit(b);
    }
    void ues(std::initializer_list<uint32_t> values) {
        for (uint32_t v : values)
            ue(v);
    }
    void align() {
        while (m_used % 8)
            bit(0);
    }
    // rbsp_trailing_bits: a stop bit, then zeros to the byte end.
    void trailing() {
        bit(1);
        align();
    }
    void bytes(const std::string& raw) {
        for (char c : raw)
            u(8, static_cast<uint8_t>(c));
    }
    size_t pos() const { return m_used; }
    const std::string& str() const { return m_bytes; }

private:
    std::string m_bytes;
    size_t m_used = 0;
};

}  // namespace testbits
