// Message resolution on arbitrary identifiers, severities, codes and buffer
// sizes, with and without a catalogue; and msg_errno on arbitrary codes.
//
// Input: severity (1 byte), code (4), flags (1), then the identifier.
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "msg/msg_format.h"
#include "tests/fuzz/fuzz_input.h"

using fuzz::expect;

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    // Our catalogue, after the product's directory that msg_nls_init puts
    // in front of it.
    setenv("NLSPATH", FUZZ_CATALOG_DIR "/%N", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::input in(data, size);
    // 0 to 3 are the words; every other value stands for ERROR.
    const int severity = in.take<std::uint8_t>();
    const auto code = in.take<std::int32_t>();
    const auto flags = in.take<std::uint8_t>();
    const int use_catalog = flags & 1;
    // 1 to 128 bytes, the helper's own size at the top.
    const std::size_t outsize = 1 + ((flags >> 1) & 0x7f);
    const std::vector<char> id = in.rest();

    // Both buffers sized to the byte, so that a write past either shows.
    std::vector<char> out(outsize);
    std::vector<char> other(MSG_BUF_SIZE);
    const char* got = msg_format(id.data(), severity, out.data(), outsize, use_catalog, code);
    const char* plain = msg_format(id.data(), SEV_NONE, other.data(), other.size(), !use_catalog, 0);

    // Whether an identifier resolves depends on it alone.
    expect(got == id.data() || got == out.data());
    expect((got == id.data()) == (plain == id.data()));
    if (got == out.data()) {
        expect(std::strlen(got) < outsize);
        expect(std::string_view(plain).find(" T-41-") != std::string_view::npos);
    }

    if (const char* e = msg_errno(code, use_catalog)) {
        expect(std::strlen(e) < MSG_BUF_SIZE);
        expect(std::string_view(e).starts_with("ODM "));
    }
    return 0;
}
