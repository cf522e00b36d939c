// The mount-table options string for any 64-bit mask, with and without
// "rw": known words only, in table order, each once, never "wait", and
// smartsync when neither sync word was asked for.
#include <string_view>

#include "mount/mount_opts.h"
#include "mount/mtab.h"
#include "tests/fuzz/fuzz_input.h"

using fuzz::expect;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::input in(data, size);
    const auto mask = in.take<std::uint64_t>();
    rw_given = in.take<std::uint8_t>() & 1;

    int mount_flags = 0;
    const char* out = nullptr;
    mtab_options(&out, mount_flags, mask);
    expect(out != nullptr);
    expect(mount_flags == 0);

    std::uint64_t seen = 0;
    bool rw_seen = false;
    std::size_t next_row = 0;
    std::size_t words = 0;
    for (std::string_view rest(out);; ++words) {
        const std::size_t comma = rest.find(',');
        const std::string_view word = rest.substr(0, comma);
        if (word == "rw") {
            expect(words == 0);
            rw_seen = true;
        } else {
            std::size_t row = next_row;
            while (row < mount_opts.size() && word != mount_opts[row].name)
                ++row;
            expect(row < mount_opts.size() && row != ROW_WAIT && mount_opts[row].flag != 0);
            seen |= mount_opts[row].flag;
            next_row = row + 1;
        }
        if (comma == std::string_view::npos)
            break;
        rest = rest.substr(comma + 1);
    }

    expect(rw_seen == (rw_given != 0));
    const std::uint64_t syncs = OPT_SMARTSYNC | OPT_NOSMARTSYNC;
    const std::uint64_t expected_sync = (mask & syncs) != 0 ? mask & syncs : OPT_SMARTSYNC;
    const std::uint64_t written = mask & (OPT_ALL_MODES | syncs);
    expect(seen == ((written & ~syncs) | expected_sync));
    return 0;
}
