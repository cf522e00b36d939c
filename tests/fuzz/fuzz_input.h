// What the fuzz targets share: taking fields off the front of an input, and
// stopping at a broken invariant the way a sanitizer would.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace fuzz {

// Aborts rather than returns, so that libFuzzer and the replay both see it.
inline void expect(bool ok)
{
    if (!ok)
        std::abort();
}

class input {
public:
    input(const std::uint8_t* data, std::size_t size) : p_(data), left_(size) {}

    // A short input reads as zeros from where it runs out.
    template <class T>
    T take()
    {
        T value{};
        const std::size_t n = left_ < sizeof value ? left_ : sizeof value;
        std::memcpy(&value, p_, n);
        p_ += n;
        left_ -= n;
        return value;
    }

    // The rest as a C string on the heap, sized to the byte, so that an
    // overread shows; an embedded NUL ends it early, as it would for C.
    std::vector<char> rest()
    {
        std::vector<char> text(p_, p_ + left_);
        text.push_back('\0');
        return text;
    }

private:
    const std::uint8_t* p_;
    std::size_t left_;
};

}  // namespace fuzz
