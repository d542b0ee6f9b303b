// The PNG writer's row helpers: the Paeth predictor and the malloc'd buffers
// rows are held in.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

namespace orvane::PngRows {

/// The PNG Paeth predictor of a byte from its left (a), upper (b) and
/// upper-left (c) neighbours.
inline std::uint8_t paeth(std::uint8_t a, std::uint8_t b, std::uint8_t c)
{
    const int pa = std::abs(int(b) - int(c));
    const int pb = std::abs(int(a) - int(c));
    const int pc = std::abs(int(a) + int(b) - 2 * int(c));
    return pa <= pb && pa <= pc ? a : pb <= pc ? b : c;
}

struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};
/// Bytes from malloc: uninitialised, unlike a vector's, since every byte is
/// written before it is read.
using Buffer = std::unique_ptr<std::uint8_t[], FreeDeleter>;

} // namespace orvane::PngRows
