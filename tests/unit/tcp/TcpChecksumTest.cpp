// The TCP checksum unit: its scalar and SIMD versions and the one chosen at run
// time, against a plain sum of big-endian 16-bit words, and the packet
// handler's frame check built on it.
#include "src/tcp/TcpChecksum.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <new>
#include <random>
#include <vector>

#include "sim/MdqpBuilder.h"
#include "tests/support/TcpHarness.h"

namespace {

using Bytes = std::vector<unsigned char>;
using ChecksumFunc = uint16_t (*)(const char*, const char*, size_t);

constexpr size_t kMaxLength = 2048;
constexpr size_t kAlignments = 64;

// Pseudo-header and segment written out byte by byte, the check field
// cleared, padded to even length, summed as big-endian words.
uint16_t Reference(const unsigned char* ip, const unsigned char* tcp, size_t seglen) {
    Bytes bytes(ip + 12, ip + 20);
    bytes.push_back(0);
    bytes.push_back(6);
    bytes.push_back(static_cast<unsigned char>(seglen >> 8));
    bytes.push_back(static_cast<unsigned char>(seglen));
    bytes.insert(bytes.end(), tcp, tcp + seglen);
    for (size_t i = 16; i < 18 && i < seglen; ++i) {
        bytes[12 + i] = 0;
    }
    if (bytes.size() % 2 != 0) {
        bytes.push_back(0);
    }
    uint64_t sum = 0;
    for (size_t i = 0; i < bytes.size(); i += 2) {
        sum += static_cast<uint64_t>(bytes[i]) << 8 | bytes[i + 1];
    }
    while (sum >> 16) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}

const char* Chars(const unsigned char* p) {
    return reinterpret_cast<const char*>(p);
}

struct Version {
    const char* name;
    ChecksumFunc run;
};

std::vector<Version> Versions() {
    std::vector<Version> versions{{"scalar", tcp_segment_checksum_scalar}, {"chosen", tcp_segment_checksum}};
    if (tcp_segment_checksum_simd_supported()) {
        versions.push_back({"simd", tcp_segment_checksum_simd});
    }
    return versions;
}

// Every length at every alignment, each segment in an allocation of its own
// size, so that the sanitizer builds see a read past either end.
void SweepLengthsAndAlignments(ChecksumFunc run, const Bytes& ip, const Bytes& data) {
    for (size_t align = 0; align < kAlignments; ++align) {
        for (size_t len = 0; len <= kMaxLength; ++len) {
            const size_t size = align + len;
            unsigned char* block = static_cast<unsigned char*>(::operator new(size, std::align_val_t(64)));
            memcpy(block + align, data.data() + len % 61, len);
            const uint16_t expected = Reference(ip.data(), block + align, len);
            const uint16_t got = run(Chars(ip.data()), Chars(block + align), len);
            ::operator delete(block, std::align_val_t(64));
            ASSERT_EQ(got, expected) << "length " << len << " alignment " << align;
        }
    }
}

Bytes RandomBytes(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    Bytes bytes(n);
    for (unsigned char& b : bytes) {
        b = static_cast<unsigned char>(rng());
    }
    return bytes;
}

Bytes IpHeader(std::initializer_list<unsigned char> src, std::initializer_list<unsigned char> dst) {
    Bytes ip(20, 0);
    ip[0] = 0x45;
    ip[9] = 6;
    std::copy(src.begin(), src.end(), ip.begin() + 12);
    std::copy(dst.begin(), dst.end(), ip.begin() + 16);
    return ip;
}

TEST(TcpChecksumTest, ScalarMatchesReferenceOnRandomDataAtEveryLengthAndAlignment) {
    SweepLengthsAndAlignments(tcp_segment_checksum_scalar, RandomBytes(20, 7),
                              RandomBytes(kMaxLength + 64, 11));
}

TEST(TcpChecksumTest, SimdMatchesReferenceOnRandomDataAtEveryLengthAndAlignment) {
    if (!tcp_segment_checksum_simd_supported()) {
        GTEST_SKIP() << "this CPU has no AVX2";
    }
    SweepLengthsAndAlignments(tcp_segment_checksum_simd, RandomBytes(20, 7),
                              RandomBytes(kMaxLength + 64, 11));
}

TEST(TcpChecksumTest, ChosenMatchesReferenceOnRandomDataAtEveryLengthAndAlignment) {
    SweepLengthsAndAlignments(tcp_segment_checksum, RandomBytes(20, 7), RandomBytes(kMaxLength + 64, 11));
}

TEST(TcpChecksumTest, AllOnesFoldEveryCarryAtEveryLengthAndAlignment) {
    const Bytes ones(kMaxLength + 64, 0xFF);
    for (const Version& v : Versions()) {
        SCOPED_TRACE(v.name);
        SweepLengthsAndAlignments(v.run, Bytes(20, 0xFF), ones);
    }
}

TEST(TcpChecksumTest, AllZeroSegmentsSumOnlyThePseudoHeader) {
    const Bytes ip(20, 0);
    const Bytes zeros(kMaxLength, 0);
    for (const Version& v : Versions()) {
        for (size_t len = 0; len <= kMaxLength; ++len) {
            // 0x0006 + len, complemented.
            ASSERT_EQ(v.run(Chars(ip.data()), Chars(zeros.data()), len), static_cast<uint16_t>(~(6 + len)))
                << v.name << " length " << len;
        }
    }
}

TEST(TcpChecksumTest, KnownSegments) {
    // 192.168.1.10:40000 -> 10.1.2.3:33022, PSH+ACK, seven bytes of data.
    const Bytes ip1 = IpHeader({192, 168, 1, 10}, {10, 1, 2, 3});
    const Bytes seg1{0x9c, 0x40, 0x80, 0xfe, 0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0, 0x50, 0x18,
                     0xff, 0xff, 0x00, 0x00, 0x00, 0x00, 's',  'n',  'a',  'p',  ' ',  'o',  'k'};
    // 172.16.0.1:51000 -> 172.16.0.2:80, SYN with a maximum segment size option.
    const Bytes ip2 = IpHeader({172, 16, 0, 1}, {172, 16, 0, 2});
    const Bytes seg2{0xc7, 0x38, 0x00, 0x50, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00,
                     0x60, 0x02, 0xfa, 0xf0, 0x00, 0x00, 0x00, 0x00, 0x02, 0x04, 0x05, 0xb4};
    EXPECT_EQ(Reference(ip1.data(), seg1.data(), seg1.size()), 0x8228);
    EXPECT_EQ(Reference(ip2.data(), seg2.data(), seg2.size()), 0x7d88);
    for (const Version& v : Versions()) {
        SCOPED_TRACE(v.name);
        EXPECT_EQ(v.run(Chars(ip1.data()), Chars(seg1.data()), seg1.size()), 0x8228);
        EXPECT_EQ(v.run(Chars(ip2.data()), Chars(seg2.data()), seg2.size()), 0x7d88);
        // The check field's content does not count.
        Bytes filled = seg1;
        filled[16] = 0x82;
        filled[17] = 0x28;
        EXPECT_EQ(v.run(Chars(ip1.data()), Chars(filled.data()), filled.size()), 0x8228);
    }
}

TEST(TcpChecksumTest, ReadsNothingOutsideTheSegment) {
    // Segments that end at, or start right after, a page that cannot be read.
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* map = mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(map, MAP_FAILED);
    unsigned char* base = static_cast<unsigned char*>(map);
    ASSERT_EQ(mprotect(base, page, PROT_NONE), 0);
    ASSERT_EQ(mprotect(base + 2 * page, page, PROT_NONE), 0);
    unsigned char* first = base + page;
    unsigned char* end = base + 2 * page;
    const Bytes data = RandomBytes(page, 13);
    memcpy(first, data.data(), page);
    const Bytes ip = RandomBytes(20, 17);
    for (const Version& v : Versions()) {
        for (size_t len = 0; len <= kMaxLength; ++len) {
            ASSERT_EQ(v.run(Chars(ip.data()), Chars(end - len), len), Reference(ip.data(), end - len, len))
                << v.name << " length " << len;
            ASSERT_EQ(v.run(Chars(ip.data()), Chars(first), len), Reference(ip.data(), first, len))
                << v.name << " length " << len;
        }
    }
    munmap(map, 3 * page);
}

TEST(TcpChecksumTest, LongBuffersMatchReference) {
    // Past the SIMD version's 64 KiB blocks, and long enough to overflow its
    // 32-bit lanes without them; the length field keeps its low 16 bits.
    const Bytes ip = RandomBytes(20, 19);
    const Bytes random = RandomBytes(1048579, 23);
    const Bytes ones(1048579, 0xFF);
    for (const Version& v : Versions()) {
        for (const size_t len : {65535u, 65536u, 65537u, 131090u, 1048579u}) {
            EXPECT_EQ(v.run(Chars(ip.data()), Chars(random.data()), len),
                      Reference(ip.data(), random.data(), len))
                << v.name << " length " << len;
            EXPECT_EQ(v.run(Chars(ip.data()), Chars(ones.data()), len),
                      Reference(ip.data(), ones.data(), len))
                << v.name << " length " << len;
        }
    }
}

TEST(TcpChecksumTest, ChoosesSimdExactlyWhenTheCpuHasIt) {
    EXPECT_EQ(tcp_segment_checksum_uses_simd(), tcp_segment_checksum_simd_supported());
#if defined(__x86_64__)
    __builtin_cpu_init();
    EXPECT_EQ(tcp_segment_checksum_simd_supported(), __builtin_cpu_supports("avx2") != 0);
#endif
}

TEST(TcpChecksumTest, PacketHandlerCheckAcceptsIntactFrameAndRejectsEveryOneBitChange) {
    CTcpHarness h;
    const Bytes random = RandomBytes(1001, 29);
    const std::vector<char> payload(random.begin(), random.end());
    std::vector<char> frame = build_tcp_frame(TcpSegmentFields{}, payload);
    char* ip = frame.data() + 14;
    const int seglen = 20 + static_cast<int>(payload.size());
    ASSERT_TRUE(CExanicTcpFuncTestAccess::ChecksumOk(*h.tcp, ip, 20, seglen));
    // The pseudo-header's addresses, then every byte of the segment.
    std::vector<int> offsets;
    for (int i = 12; i < 20; ++i) {
        offsets.push_back(i);
    }
    for (int i = 20; i < 20 + seglen; ++i) {
        offsets.push_back(i);
    }
    for (const int at : offsets) {
        for (int bit = 0; bit < 8; ++bit) {
            ip[at] = static_cast<char>(ip[at] ^ (1 << bit));
            ASSERT_FALSE(CExanicTcpFuncTestAccess::ChecksumOk(*h.tcp, ip, 20, seglen))
                << "byte " << at << " bit " << bit;
            ip[at] = static_cast<char>(ip[at] ^ (1 << bit));
        }
    }
    EXPECT_TRUE(CExanicTcpFuncTestAccess::ChecksumOk(*h.tcp, ip, 20, seglen));
}

}  // namespace
