// The seccomp side: the filter that makes COMMAND's tree wait in the
// trapped calls, and the listener on which the sandbox answers them.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sandbox {

// In the child, just before exec: from here on the calls numbered in
// `trapped` wait for our answer. Returns once the parent has the listener.
bool install_filter(const std::vector<long>& trapped, int sock);
// In the parent: the child's listener, -1 when the child failed first.
int take_listener(pid_t child, int sock);

// One call at a time: received with its caller opened, read, then answered or passed on.
class listener {
public:
    explicit listener(int fd);
    ~listener();
    listener(const listener&) = delete;
    listener& operator=(const listener&) = delete;

    int fd() const { return fd_; }
    // False when the caller is gone, or unreadable: its call goes on then.
    bool receive();
    long nr() const { return nr_; }
    std::uint64_t arg(int i) const { return args_.at(i); }
    pid_t pid() const { return tgid_; }  // the process, not the thread
    std::uint64_t ignored_signals() const { return ignored_; }
    // Fewer than `len` bytes where the caller's memory ends.
    std::size_t read(std::uint64_t addr, void* out, std::size_t len) const;
    std::optional<std::string> string_at(std::uint64_t addr) const;
    std::string reachable(const std::string& path) const;  // a path the caller named
    // `go_on`: the kernel carries the call out as if it had never been trapped.
    void reply(std::int64_t val, int error, bool go_on = false);
    void pass_on() { reply(0, 0, true); }

private:
    int fd_, mem_ = -1;
    pid_t thread_ = 0, tgid_ = 0;
    std::uint64_t id_ = 0, ignored_ = 0;
    long nr_ = 0;
    std::array<std::uint64_t, 6> args_{};
    std::vector<char> req_, resp_;  // the kernel's sizes, which may exceed ours
};

}  // namespace sandbox
