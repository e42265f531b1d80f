// Start-code scanners for the byte-stream splitter. They sit on the hot path of every video
// byte, so they test 32 or 64 positions at once: a position starts a code when it and the
// next bytes are 00 and the last one is 01, which three (or four) shifted loads and compares
// answer for a whole vector. The scalar loop handles the tail and CPUs without SIMD.
#include <cstring>

#include "packetizer/mpeg4video_internal.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define CAMFETCH_SCAN_X86 1
#endif

const uint8_t kStartCode3[3] = {0x00, 0x00, 0x01};
const uint8_t kStartCode4[4] = {0x00, 0x00, 0x00, 0x01};

namespace {

typedef const uint8_t* (*Finder)(const uint8_t*, const uint8_t*);

const uint8_t* Scalar3(const uint8_t* p, const uint8_t* end) {
    while (end - p >= 3) {
        // p[2] decides for three positions at once: above 1 none of p, p+1, p+2 can start
        // a code; 1 only p can; 0 leaves p+1 and p+2 open.
        if (p[2] > 1) {
            p += 3;
        } else if (p[2] == 1) {
            if (p[0] == 0 && p[1] == 0)
                return p;
            p += 3;
        } else {
            ++p;
        }
    }
    return nullptr;
}

const uint8_t* Scalar4(const uint8_t* p, const uint8_t* end) {
    while (end - p >= 4) {
        const uint8_t* hit = Scalar3(p + 1, end);
        if (!hit)
            return nullptr;
        if (hit[-1] == 0)
            return hit - 1;
        p = hit;
    }
    return nullptr;
}

#ifdef CAMFETCH_SCAN_X86

inline unsigned Ctz(uint32_t v) {
    return static_cast<unsigned>(__builtin_ctz(v));
}

const uint8_t* Sse2Scan3(const uint8_t* p, const uint8_t* end) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i one = _mm_set1_epi8(1);
    while (end - p >= 16 + 2) {
        __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 1));
        __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 2));
        __m128i m = _mm_and_si128(_mm_and_si128(_mm_cmpeq_epi8(a, zero), _mm_cmpeq_epi8(b, zero)),
                                  _mm_cmpeq_epi8(c, one));
        uint32_t bits = static_cast<uint32_t>(_mm_movemask_epi8(m));
        if (bits)
            return p + Ctz(bits);
        p += 16;
    }
    return Scalar3(p, end);
}

const uint8_t* Sse2Scan4(const uint8_t* p, const uint8_t* end) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i one = _mm_set1_epi8(1);
    while (end - p >= 16 + 3) {
        __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 1));
        __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 2));
        __m128i d = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 3));
        __m128i m = _mm_and_si128(_mm_and_si128(_mm_cmpeq_epi8(a, zero), _mm_cmpeq_epi8(b, zero)),
                                  _mm_and_si128(_mm_cmpeq_epi8(c, zero), _mm_cmpeq_epi8(d, one)));
        uint32_t bits = static_cast<uint32_t>(_mm_movemask_epi8(m));
        if (bits)
            return p + Ctz(bits);
        p += 16;
    }
    return Scalar4(p, end);
}

__attribute__((target("avx2"))) inline __m256i Load32(const uint8_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

// Positions in [p, p + 32) that start 00 00 01, as a bit mask.
__attribute__((target("avx2"))) inline uint32_t Mask3(const uint8_t* p, __m256i zero, __m256i one) {
    __m256i m = _mm256_and_si256(_mm256_and_si256(_mm256_cmpeq_epi8(Load32(p), zero),
                                                  _mm256_cmpeq_epi8(Load32(p + 1), zero)),
                                 _mm256_cmpeq_epi8(Load32(p + 2), one));
    return static_cast<uint32_t>(_mm256_movemask_epi8(m));
}

__attribute__((target("avx2"))) inline uint32_t Mask4(const uint8_t* p, __m256i zero, __m256i one) {
    __m256i m = _mm256_and_si256(_mm256_and_si256(_mm256_cmpeq_epi8(Load32(p), zero),
                                                  _mm256_cmpeq_epi8(Load32(p + 1), zero)),
                                 _mm256_and_si256(_mm256_cmpeq_epi8(Load32(p + 2), zero),
                                                  _mm256_cmpeq_epi8(Load32(p + 3), one)));
    return static_cast<uint32_t>(_mm256_movemask_epi8(m));
}

__attribute__((target("avx2"))) const uint8_t* Avx2Scan3(const uint8_t* p, const uint8_t* end) {
    const __m256i zero = _mm256_setzero_si256();
    const __m256i one = _mm256_set1_epi8(1);
    while (end - p >= 64 + 2) {
        uint32_t lo = Mask3(p, zero, one);
        uint32_t hi = Mask3(p + 32, zero, one);
        if (lo | hi)
            return lo ? p + Ctz(lo) : p + 32 + Ctz(hi);
        p += 64;
    }
    return Sse2Scan3(p, end);
}

__attribute__((target("avx2"))) const uint8_t* Avx2Scan4(const uint8_t* p, const uint8_t* end) {
    const __m256i zero = _mm256_setzero_si256();
    const __m256i one = _mm256_set1_epi8(1);
    while (end - p >= 64 + 3) {
        uint32_t lo = Mask4(p, zero, one);
        uint32_t hi = Mask4(p + 32, zero, one);
        if (lo | hi)
            return lo ? p + Ctz(lo) : p + 32 + Ctz(hi);
        p += 64;
    }
    return Sse2Scan4(p, end);
}

bool HaveAvx2() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2");
}

const Finder g_scan3 = HaveAvx2() ? Avx2Scan3 : Sse2Scan3;
const Finder g_scan4 = HaveAvx2() ? Avx2Scan4 : Sse2Scan4;

#else

const Finder g_scan3 = Scalar3;
const Finder g_scan4 = Scalar4;

#endif

}  // namespace

const uint8_t* FindStartCode3(const uint8_t* begin, const uint8_t* end) {
    if (!begin || end - begin < 3)
        return nullptr;
    return g_scan3(begin, end);
}

const uint8_t* FindStartCode4(const uint8_t* begin, const uint8_t* end) {
    if (!begin || end - begin < 4)
        return nullptr;
    return g_scan4(begin, end);
}
