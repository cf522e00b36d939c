// Hunts crashes in the option parsers. The input, split at NUL bytes, is
// the command line after "-o". The parsers end the process for most
// inputs; exit is wrapped (-Wl,--wrap=exit) to come back here instead.
#include <unistd.h>

#include <csetjmp>
#include <cstdint>
#include <vector>

#include "mount/mount_opts.h"

namespace {

std::jmp_buf* parsing;

}  // namespace

// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" [[noreturn]] void __real_exit(int status);

// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" [[noreturn]] void __wrap_exit(int status)
{
    if (parsing != nullptr)
        std::longjmp(*parsing, 1);  // NOLINT(cert-err52-cpp): no destructor is skipped
    __real_exit(status);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // Sized to the byte, so that an overread shows.
    std::vector<char> text(data, data + size);
    text.push_back('\0');
    char prog[] = "mount.qeodmfs";
    char dash_o[] = "-o";
    std::vector<char*> argv{prog, dash_o, text.data()};
    for (std::size_t i = 0; i + 1 < text.size(); ++i)
        if (text[i] == '\0')
            argv.push_back(&text[i + 1]);
    argv.push_back(nullptr);

    std::jmp_buf back;
    if (setjmp(back) == 0) {  // NOLINT(cert-err52-cpp): see __wrap_exit
        parsing = &back;
        prog_name = prog;
        optind = 0;
        check_table();
        check_conflicts(parse_args(static_cast<int>(argv.size() - 1), argv.data()));
    }
    parsing = nullptr;
    return 0;
}
