#include "src/tcp/TcpChecksum.h"

#include <arpa/inet.h>

#include <atomic>
#include <cstring>

#include "src/tcp/WireLoad.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

// Words are summed as the host reads them and the result is put in host order
// once at the end: the one's-complement sum does not depend on byte order.
// Partial sums are 64-bit with the carry out added back in (arithmetic modulo
// 2^64 - 1), so they stay congruent modulo 0xFFFF to the sum of 16-bit words
// and are zero only when every word is; folding them to 16 bits then gives the
// same value as folding the exact sum.

namespace {

inline uint64_t AddWithCarry(uint64_t a, uint64_t b) {
    a += b;
    return a + (a < b);
}

inline uint16_t Fold(uint64_t sum) {
    sum = (sum & 0xFFFFFFFFu) + (sum >> 32);
    sum = (sum & 0xFFFFFFFFu) + (sum >> 32);
    sum = (sum & 0xFFFFu) + (sum >> 16);
    sum = (sum & 0xFFFFu) + (sum >> 16);
    return static_cast<uint16_t>(sum);
}

// Fewer than eight bytes; a last odd byte is padded with a zero byte.
inline uint64_t SumShort(const char* p, size_t n) {
    uint64_t sum = 0;
    if (n & 4) {
        sum += Load32(p);
        p += 4;
    }
    if (n & 2) {
        sum += Load16(p);
        p += 2;
    }
    if (n & 1) {
        uint16_t last = 0;
        memcpy(&last, p, 1);
        sum += last;
    }
    return sum;
}

inline uint64_t SumScalar(const char* p, size_t n) {
    unsigned __int128 a = 0;
    unsigned __int128 b = 0;
    for (; n >= 16; p += 16, n -= 16) {
        a += Load64(p);
        b += Load64(p + 8);
    }
    if (n >= 8) {
        a += Load64(p);
        p += 8;
        n -= 8;
    }
    a += b;
    a += SumShort(p, n);
    return AddWithCarry(static_cast<uint64_t>(a), static_cast<uint64_t>(a >> 64));
}

// The pseudo-header and the segment without its check field, each part
// starting at an even offset so that the words pair up as in the segment.
template <uint64_t (*SumBody)(const char*, size_t)>
inline uint16_t Checksum(const char* ip, const char* tcp, size_t seglen) {
    uint64_t sum = Load64(ip + 12);
    sum = AddWithCarry(sum, static_cast<uint64_t>(htons(6)) + htons(static_cast<uint16_t>(seglen)));
    if (seglen <= 16) {
        sum = AddWithCarry(sum, SumScalar(tcp, seglen));
    } else {
        sum = AddWithCarry(sum, Load64(tcp));
        sum = AddWithCarry(sum, Load64(tcp + 8));
        if (seglen > 18) {
            sum = AddWithCarry(sum, SumBody(tcp + 18, seglen - 18));
        }
    }
    return ntohs(static_cast<uint16_t>(~Fold(sum)));
}

#if defined(__x86_64__)

// 32-bit lanes take each 16-bit word whole. Once the accumulators and their
// halves are combined, a lane holds eight words of every 64 bytes: under 2^29
// for a block of 64 KiB.
constexpr size_t kSimdBlock = 65536;

__attribute__((target("avx2"))) inline uint64_t SumAvx2Block(const char* p, size_t n) {
    const __m256i low = _mm256_set1_epi32(0xFFFF);
    __m256i a = _mm256_setzero_si256();
    __m256i b = _mm256_setzero_si256();
    __m256i c = _mm256_setzero_si256();
    __m256i d = _mm256_setzero_si256();
    for (; n >= 64; p += 64, n -= 64) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
        const __m256i w = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 32));
        a = _mm256_add_epi32(a, _mm256_and_si256(v, low));
        b = _mm256_add_epi32(b, _mm256_srli_epi32(v, 16));
        c = _mm256_add_epi32(c, _mm256_and_si256(w, low));
        d = _mm256_add_epi32(d, _mm256_srli_epi32(w, 16));
    }
    if (n >= 32) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
        a = _mm256_add_epi32(a, _mm256_and_si256(v, low));
        b = _mm256_add_epi32(b, _mm256_srli_epi32(v, 16));
        p += 32;
        n -= 32;
    }
    a = _mm256_add_epi32(_mm256_add_epi32(a, b), _mm256_add_epi32(c, d));
    __m128i s = _mm_add_epi32(_mm256_castsi256_si128(a), _mm256_extracti128_si256(a, 1));
    if (n >= 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        const __m128i low128 = _mm_set1_epi32(0xFFFF);
        s = _mm_add_epi32(s, _mm_add_epi32(_mm_and_si128(v, low128), _mm_srli_epi32(v, 16)));
        p += 16;
        n -= 16;
    }
    const __m128i zero = _mm_setzero_si128();
    s = _mm_add_epi64(_mm_unpacklo_epi32(s, zero), _mm_unpackhi_epi32(s, zero));
    uint64_t sum =
        static_cast<uint64_t>(_mm_cvtsi128_si64(s)) + static_cast<uint64_t>(_mm_extract_epi64(s, 1));
    if (n >= 8) {
        sum = AddWithCarry(sum, Load64(p));
        p += 8;
        n -= 8;
    }
    return AddWithCarry(sum, SumShort(p, n));
}

__attribute__((target("avx2"))) uint64_t SumAvx2(const char* p, size_t n) {
    uint64_t sum = 0;
    for (; n > kSimdBlock; p += kSimdBlock, n -= kSimdBlock) {
        sum = AddWithCarry(sum, SumAvx2Block(p, kSimdBlock));
    }
    return AddWithCarry(sum, SumAvx2Block(p, n));
}

#endif

using ChecksumFunc = uint16_t (*)(const char*, const char*, size_t);

uint16_t ChooseAndRun(const char* ip, const char* tcp, size_t seglen);

// Starts at the chooser, so that a call before static initialisation is done
// still finds a function; relaxed loads are plain loads on every target.
std::atomic<ChecksumFunc> g_checksum{&ChooseAndRun};

ChecksumFunc Chosen() {
    ChecksumFunc f = g_checksum.load(std::memory_order_relaxed);
    if (f == &ChooseAndRun) {
        f = tcp_segment_checksum_simd_supported() ? &tcp_segment_checksum_simd : &tcp_segment_checksum_scalar;
        g_checksum.store(f, std::memory_order_relaxed);
    }
    return f;
}

uint16_t ChooseAndRun(const char* ip, const char* tcp, size_t seglen) {
    return Chosen()(ip, tcp, seglen);
}

// The choice is made before main, off the first frame's path.
[[maybe_unused]] const ChecksumFunc g_chosenAtStart = Chosen();

}  // namespace

uint16_t tcp_segment_checksum(const char* ip, const char* tcp, size_t seglen) {
    return g_checksum.load(std::memory_order_relaxed)(ip, tcp, seglen);
}

uint16_t tcp_segment_checksum_scalar(const char* ip, const char* tcp, size_t seglen) {
    return Checksum<SumScalar>(ip, tcp, seglen);
}

#if defined(__x86_64__)

__attribute__((target("avx2"))) uint16_t tcp_segment_checksum_simd(const char* ip, const char* tcp,
                                                                   size_t seglen) {
    return Checksum<SumAvx2>(ip, tcp, seglen);
}

bool tcp_segment_checksum_simd_supported() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2");
}

#else

uint16_t tcp_segment_checksum_simd(const char* ip, const char* tcp, size_t seglen) {
    return Checksum<SumScalar>(ip, tcp, seglen);
}

bool tcp_segment_checksum_simd_supported() {
    return false;
}

#endif

bool tcp_segment_checksum_uses_simd() {
    return Chosen() == &tcp_segment_checksum_simd;
}
