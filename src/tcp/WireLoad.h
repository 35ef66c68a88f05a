// Fields read from frames and messages at any alignment, in the byte order
// they arrived in: through memcpy, which compiles to a plain load.
#pragma once

#include <cstdint>
#include <cstring>

template <typename T>
inline T WireLoad(const char* p) {
    T v;
    memcpy(&v, p, sizeof(v));
    return v;
}

inline uint16_t Load16(const char* p) {
    return WireLoad<uint16_t>(p);
}

inline uint32_t Load32(const char* p) {
    return WireLoad<uint32_t>(p);
}

inline uint64_t Load64(const char* p) {
    return WireLoad<uint64_t>(p);
}
