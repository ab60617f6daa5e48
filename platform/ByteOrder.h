#pragma once
// Little-endian fields of the RIFF, WAVE and recorder records, read and written byte by byte
// so the code neither depends on the host's byte order nor on the field's alignment.
#include <cstdint>

namespace zub {

constexpr std::uint16_t ReadLe16(const unsigned char* p)
{
    return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}

constexpr std::uint32_t ReadLe32(const unsigned char* p)
{
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

constexpr void WriteLe16(unsigned char* p, std::uint32_t v)
{
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}

constexpr void WriteLe32(unsigned char* p, std::uint32_t v)
{
    WriteLe16(p, v);
    WriteLe16(p + 2, v >> 16);
}

}  // namespace zub
