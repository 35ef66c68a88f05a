// The TCP checksum of a segment carried in IPv4: the one's-complement sum of
// the pseudo-header (source and destination address, a zero byte, protocol 6,
// the segment length) and the segment, complemented.
//
// A scalar and a SIMD (AVX2) version give identical results for every input;
// tcp_segment_checksum calls the one chosen once from the CPU's features.
// Every call reads only ip[12..20) and tcp[0..seglen), at any alignment,
// allocates nothing and may run on any thread.
#pragma once

#include <cstddef>
#include <cstdint>

// The checksum, in host order, of the `seglen` bytes of TCP header and data at
// `tcp`, with the addresses of the pseudo-header taken from the IPv4 header at
// `ip` and its length field the low 16 bits of `seglen`. The check field (bytes
// 16 and 17 of the segment, as far as `seglen` reaches) counts as zero and an
// odd last byte is padded with a zero byte. A segment is intact when its check
// field holds this value big-endian. The result is never 0xFFFF.
uint16_t tcp_segment_checksum(const char* ip, const char* tcp, size_t seglen);

// The same, on general-purpose registers only.
uint16_t tcp_segment_checksum_scalar(const char* ip, const char* tcp, size_t seglen);

// The same, with AVX2; call only when tcp_segment_checksum_simd_supported().
uint16_t tcp_segment_checksum_simd(const char* ip, const char* tcp, size_t seglen);

// True when this CPU runs tcp_segment_checksum_simd.
bool tcp_segment_checksum_simd_supported();

// True when tcp_segment_checksum calls the SIMD version.
bool tcp_segment_checksum_uses_simd();
