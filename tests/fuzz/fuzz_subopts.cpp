// Suboption parsing on arbitrary text, against getsubopt's rules written
// out plainly: each comma-separated word is matched whole up to any '='.
#include <cstring>
#include <string_view>

#include "mount/mount_opts.h"
#include "tests/fuzz/fuzz_input.h"

using fuzz::expect;

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    check_table();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::input in(data, size);
    std::vector<char> text = in.rest();
    const std::vector<char> original = text;

    rw_given = 0;
    std::uint64_t mask = 0;
    const char* unknown = nullptr;
    const subopt_stop stop = scan_subopts(text.data(), mask, unknown);

    std::uint64_t want_mask = 0;
    int want_rw = 0;
    subopt_stop want_stop = subopt_stop::end;
    std::string_view want_unknown;
    for (std::string_view rest(original.data()); !rest.empty();) {
        const std::size_t comma = rest.find(',');
        const std::string_view word = rest.substr(0, comma);
        rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);

        const std::string_view name = word.substr(0, word.find('='));
        const mount_opt* row = nullptr;
        for (const mount_opt& opt : mount_opts)
            if (name == opt.name)
                row = &opt;
        if (row == nullptr) {
            want_stop = subopt_stop::unknown;
            want_unknown = word;
            break;
        }
        if (row->index == ROW_REMOUNT) {
            want_stop = subopt_stop::remount;
            break;
        }
        want_rw |= row->index == ROW_RW ? 1 : 0;
        want_mask |= row->flag;
    }

    expect(stop == want_stop);
    expect(mask == want_mask);
    expect(rw_given == want_rw);
    expect((mask & ~std::uint64_t{0x7f}) == 0);
    if (stop == subopt_stop::unknown) {
        // The word handed back lies in the parsed text itself.
        expect(unknown >= text.data() && unknown < text.data() + text.size());
        expect(want_unknown == unknown);
    }
    return 0;
}
