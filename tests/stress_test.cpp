// The helper under conditions chosen by machine rather than by hand: random
// command lines, environments and scenes; many helpers at once; helpers
// killed at chosen points. Each run gets a fresh sandbox.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "mount/mount_opts.h"
#include "sandbox_run.h"

namespace {

using nlohmann::json;

const std::string ENTRY_PREFIX = "none /dev/odm qeodmfs ";

// What a sanitizer or memcheck says when it finds something.
bool has_tool_report(const std::string& err)
{
    return err.find("Sanitizer") != std::string::npos ||
           err.find("runtime error:") != std::string::npos;
}

std::string entry_for(std::uint64_t mask, bool rw)
{
    if ((mask & (OPT_SMARTSYNC | OPT_NOSMARTSYNC)) == 0)
        mask |= OPT_SMARTSYNC;
    std::string words = rw ? "rw" : "";
    for (const mount_opt& opt : mount_opts)
        if (opt.index != ROW_WAIT && (opt.flag & mask) != 0)
            words += (words.empty() ? "" : ",") + std::string(opt.name);
    return ENTRY_PREFIX + words + " 0 0\n";
}

// What a run must end in, worked out from the run's plan alone.
struct outcome {
    std::optional<int> status;  // set once the helper is known to leave
    std::uint64_t mask = 0;
    bool rw = false;
};

// getsubopt's rules: comma-separated words, each matched whole up to '='.
void parse_into(const std::string& text, outcome& o)
{
    for (std::size_t pos = 0; pos < text.size() && !o.status;) {
        const std::size_t comma = std::min(text.find(',', pos), text.size());
        const std::string word = text.substr(pos, comma - pos);
        const std::string name = word.substr(0, word.find('='));
        pos = comma + 1;
        const auto* row = std::find_if(mount_opts.begin(), mount_opts.end(),
                                       [&](const mount_opt& opt) { return name == opt.name; });
        if (row == mount_opts.end()) {
            o.status = 255;
        } else if (row->index == ROW_REMOUNT) {
            o.status = 0;
        } else {
            o.rw = o.rw || row->index == ROW_RW;
            o.mask |= row->flag;
        }
    }
}

// One random run: what the helper is given, and what it must end in.
struct random_run {
    std::vector<std::string> scene{"--fast-sleep", "--timeout", "60"};
    std::vector<std::string> command{"env"};
    std::string kind;  // of /etc/mtab
    std::string old;   // what /etc/mtab held
    bool held = false;
    bool refused = false;
    bool locks = false;   // went on to try for the lock
    bool mounts = false;  // went on to call mount(2)
    outcome o;
};

class RandomRunTest : public SandboxTest {
protected:
    std::mt19937 rng{seed()};

    static unsigned seed()
    {
        const char* text = std::getenv("ODM_RANDOM_SEED");
        return text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : 1;
    }

    bool chance(double p) { return std::bernoulli_distribution(p)(rng); }

    template <class T>
    T pick(const std::vector<T>& items)
    {
        return items[std::uniform_int_distribution<std::size_t>(0, items.size() - 1)(rng)];
    }

    std::string suboptions()
    {
        static const std::vector<std::string> words = {
            "nocluster", "cluster", "exclusive", "cluster_bypass", "wait", "rw", "ro",
            "noauto", "nosmartsync", "smartsync"};
        static const std::vector<std::string> odd = {"remount", "bogus", "clust", "",
                                                     "wait=3", "cluster=yes", "=x", "Cluster"};
        std::string text;
        for (int n = std::uniform_int_distribution<int>(0, 3)(rng); n > 0; --n)
            text += (text.empty() ? "" : ",") + (chance(0.1) ? pick(odd) : pick(words));
        return chance(0.1) ? text + "," : text;
    }

    // Options in the order getopt meets them; the first that ends the
    // helper decides its status.
    void command_line(random_run& run)
    {
        std::vector<std::string> argv{HELPER_PATH};
        outcome& o = run.o;
        for (int items = std::uniform_int_distribution<int>(0, 4)(rng); items > 0; --items) {
            const int kind = std::uniform_int_distribution<int>(0, 19)(rng);
            if (kind < 11) {
                const std::string list = suboptions();
                if (!list.empty() && chance(0.3))
                    argv.push_back("-o" + list);
                else
                    argv.insert(argv.end(), {"-o", list});
                if (!o.status)
                    parse_into(list, o);
            } else if (kind < 19) {
                const auto words = pick<std::vector<std::string>>(
                    {{"-t", "qeodmfs"}, {"-n"}, {"-rv"}, {"none"}, {"/dev/odm"}});
                argv.insert(argv.end(), words.begin(), words.end());
            } else {
                // -h, an unknown letter and a missing argument all end in
                // the usage line with status 0; -L ends silently.
                argv.push_back(pick<std::string>({"-h", "-x", "-L", "-?"}));
                o.status = o.status.value_or(0);
            }
        }
        if (chance(0.05)) {
            argv.emplace_back("-o");
            o.status = o.status.value_or(0);
        }
        if (chance(0.3)) {
            const std::string env = suboptions();
            run.command.push_back("QEODM_MOUNT_OPTS=" + env);
            if (!o.status)
                parse_into(env, o);
        } else {
            run.command.insert(run.command.end(), {"-u", "QEODM_MOUNT_OPTS"});
        }
        run.command.insert(run.command.end(), argv.begin(), argv.end());
        const bool conflict = std::popcount(o.mask & OPT_ALL_MODES) > 1 ||
                              ((o.mask & OPT_SMARTSYNC) != 0 && (o.mask & OPT_NOSMARTSYNC) != 0);
        if (!o.status && conflict)
            o.status = 255;
        run.locks = !o.status;
    }

    void scene(random_run& run)
    {
        run.kind = pick<std::string>({"file", "file", "file", "file", "symlink", "missing"});
        run.old = pick<std::string>({"", "proc /proc proc rw 0 0\n", ENTRY_PREFIX + "cluster,smartsync 0 0\n"});
        const auto control =
            pick<std::string>({"normal", "normal", "normal", "normal", "missing", "readonly", "short"});
        const auto tool = pick<std::string>({"--tolvane-record", "--tolvane-noexec", ""});
        run.held = chance(0.1);
        run.refused = chance(0.08);
        const bool no_odm = chance(0.08);
        auto& sc = run.scene;
        sc.insert(sc.end(), {"--mtab", run.kind, "--mtab-content", run.old, "--control", control});
        for (const auto& [on, words] : std::vector<std::pair<bool, std::vector<std::string>>>{
                 {run.held, {"--mtab-lock"}},
                 {no_odm, {"--no-odm"}},
                 {run.refused, {"--mount-errno", "EIO"}},
                 {!tool.empty(), {tool}},
                 // A failed fork only costs the tool its run.
                 {chance(0.05), {"--fork-errno", "EAGAIN"}}})
            if (on)
                sc.insert(sc.end(), words.begin(), words.end());

        outcome& o = run.o;
        if (!o.status && (run.kind == "missing" || (run.held && run.kind == "file")))
            o.status = 1;
        run.mounts = !o.status && !no_odm;
        if (!o.status)
            o.status = no_odm || run.refused || control != "normal" ? 255 : 0;
    }

    static void check(const random_run& run, const sandbox_result& r)
    {
        ASSERT_TRUE(r.status == 0 || r.status == 1 || r.status == 2 || r.status == 255)
            << r.status << r.err;
        EXPECT_EQ(r.status, *run.o.status) << r.err;
        EXPECT_FALSE(has_tool_report(r.err)) << r.err;

        const json& calls = r.report["mounts"];
        ASSERT_EQ(calls.size(), run.mounts ? 1U : 0U) << r.err;
        if (run.mounts) {
            EXPECT_EQ(calls[0]["flags"], 0);
            EXPECT_EQ(calls[0]["data"]["version"], 2);
            EXPECT_EQ(calls[0]["data"]["size"], 32);
            EXPECT_EQ(calls[0]["data"]["requested"], run.o.mask);
            EXPECT_EQ(calls[0]["data"]["available"], OPT_ALL_MODES);
        }

        EXPECT_EQ(r.report["mtab"]["kind"], run.kind);
        if (run.kind == "file") {
            const bool entry = run.mounts && !run.refused;
            EXPECT_EQ(r.report["mtab"]["content"],
                      run.old + (entry ? entry_for(run.o.mask, run.o.rw) : ""));
        }
        // Only someone else's lock stays, with the temporary of a helper
        // that went on to try for it.
        const std::vector<std::string> left = r.report["lock_files"];
        const bool temp = run.held && run.kind == "file" && run.locks;
        ASSERT_EQ(left.size(), (run.held ? 1U : 0U) + (temp ? 1U : 0U));
        if (run.held) {
            EXPECT_EQ(left[0], "mtab~");
        }
        if (temp) {
            EXPECT_TRUE(std::regex_match(left[1], std::regex("mtab~[0-9]+")));
        }
    }
};

// The invariants hold whatever the input: a known status, no sanitizer
// report, nothing left in /etc but the held-lock case's files, the table
// grown by at most one whole line, and the kernel given the parsed mask.
TEST_F(RandomRunTest, InvariantsHoldForRandomRuns)
{
    const char* runs_text = std::getenv("ODM_RANDOM_RUNS");
    const long runs = runs_text ? std::strtol(runs_text, nullptr, 10) : 60;
    for (long n = 0; n < runs && !HasFailure(); ++n) {
        random_run run;
        command_line(run);
        scene(run);
        std::string plan = "seed " + std::to_string(seed()) + ", run " + std::to_string(n) + ":";
        for (const auto& w : run.scene)
            plan += " " + w;
        plan += " --";
        for (const auto& w : run.command)
            plan += " '" + w + "'";
        SCOPED_TRACE(plan);
        check(run, run_sandbox(run.scene, run.command));
    }
}

// Sixteen helpers race for the lock with assorted options. Answered sleeps
// make a loser give up at once, so each round sees winners and losers.
TEST_F(SandboxTest, LockStressEveryWinnerWritesOneWholeLine)
{
    const std::vector<std::pair<std::string, std::string>> variants = {
        {"cluster", "cluster,smartsync"},
        {"nocluster,wait", "nocluster,smartsync"},
        {"exclusive,nosmartsync", "exclusive,nosmartsync"},
        {"rw,cluster_bypass", "rw,cluster_bypass,smartsync"},
    };
    constexpr std::size_t HELPERS = 16;
    std::string script;
    for (std::size_t i = 0; i < HELPERS; ++i)
        script += "\"$0\" -o " + variants[i % variants.size()].first + " & p" + std::to_string(i) + "=$!; ";
    for (std::size_t i = 0; i < HELPERS; ++i)
        script += "wait $p" + std::to_string(i) + "; echo $p" + std::to_string(i) + " " +
                  std::to_string(i % variants.size()) + " $?; ";

    for (int round = 0; round < 3; ++round) {
        const sandbox_result r =
            run_sandbox({"--fast-sleep", "--timeout", "60"}, {"sh", "-c", script, HELPER_PATH});
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_FALSE(has_tool_report(r.err)) << r.err;

        std::multiset<std::string> want_lines;
        std::vector<std::string> want_left;
        std::map<int, int> winners;  // pid -> mount calls seen
        std::istringstream results(r.out);
        std::size_t helpers = 0;
        for (int pid, variant, status; results >> pid >> variant >> status; ++helpers) {
            ASSERT_TRUE(status == 0 || status == 1) << pid << " exited " << status;
            if (status == 0) {
                want_lines.insert(ENTRY_PREFIX + variants.at(variant).second + " 0 0");
                winners[pid] = 0;
            } else {
                // A helper that gave up leaves its temporary file, by design.
                want_left.push_back("mtab~" + std::to_string(pid));
            }
        }
        ASSERT_EQ(helpers, HELPERS) << r.out;

        const std::string content = r.report["mtab"]["content"];
        EXPECT_TRUE(content.empty() || content.back() == '\n') << content;
        std::multiset<std::string> lines;
        std::istringstream in(content);
        for (std::string line; std::getline(in, line);)
            lines.insert(line);
        EXPECT_EQ(lines, want_lines);

        for (const json& m : r.report["mounts"]) {
            const int pid = m["pid"];
            ASSERT_TRUE(winners.contains(pid)) << pid << " mounted but did not exit 0";
            EXPECT_EQ(++winners[pid], 1) << pid;
            EXPECT_TRUE(m["mtab_lock_present"].get<bool>()) << pid;
            EXPECT_FALSE(m["mtab_temp_present"].get<bool>()) << pid;
        }
        std::sort(want_left.begin(), want_left.end());
        EXPECT_EQ(r.report["lock_files"], json(want_left));
    }
}

// SIGKILL at chosen points. The table is never damaged; what each case
// leaves behind is checked, and the next helper's fate with it.
class KillTest : public SandboxTest {
protected:
    static constexpr char OLD[] = "proc /proc proc rw 0 0\n";

    // One helper in the background, killed once FILE (which may name $pid)
    // exists; its status is printed.
    static std::string kill_when(const std::string& file)
    {
        return "\"$0\" -o cluster & pid=$!; while [ ! -e " + file +
               " ]; do sleep 0.01; done; kill -KILL $pid; wait $pid; echo $?; ";
    }

    static void expect_left(const sandbox_result& r, const std::vector<std::string>& names)
    {
        const std::vector<std::string> left = r.report["lock_files"];
        ASSERT_EQ(left.size(), names.size()) << r.report["lock_files"];
        for (std::size_t i = 0; i < names.size(); ++i)
            EXPECT_TRUE(std::regex_match(left[i], std::regex(names[i]))) << left[i];
    }
};

// Waiting for someone else's lock: its temporary file stays; the other
// lock and the table are as they were.
TEST_F(KillTest, WhileWaitingForTheLock)
{
    const sandbox_result r =
        run_sandbox({"--mtab-lock", "--mtab-content", OLD, "--timeout", "60"},
                    {"sh", "-c", kill_when("/etc/mtab~$pid"), HELPER_PATH});
    EXPECT_EQ(r.out, "137\n") << r.err;
    EXPECT_TRUE(r.report["mounts"].empty());
    EXPECT_EQ(r.report["mtab"]["content"], OLD);
    expect_left(r, {"mtab~", "mtab~[0-9]+"});
}

// Holding the lock inside the mount call, the module not answering: the
// lock stays, the table is untouched, and the next helper gives up with 1.
TEST_F(KillTest, WhileHoldingTheLockInTheMountCall)
{
    const sandbox_result r = run_sandbox(
        {"--hold-mount", "--fast-sleep", "--mtab-content", OLD, "--timeout", "60"},
        {"sh", "-c", kill_when("/dev/.odm-sandbox/held.$pid") + "\"$0\"; echo $?", HELPER_PATH});
    EXPECT_EQ(r.out, "137\n1\n") << r.err;
    ASSERT_EQ(r.report["mounts"].size(), 1u);
    EXPECT_TRUE(r.report["mounts"][0]["mtab_lock_present"].get<bool>());
    EXPECT_EQ(r.report["mtab"]["content"], OLD);
    expect_left(r, {"mtab~", "mtab~[0-9]+"});
}

// While the configuration tool runs: the entry is in and the lock gone;
// only the switch is not written. The next helper does the whole job.
TEST_F(KillTest, WhileTheToolRuns)
{
    const std::string tool = testing::TempDir() + "tolvane-kills-its-parent";
    std::ofstream(tool) << "#!/bin/sh\n[ -e /etc/killed ] && exit 0\n: >/etc/killed\nkill -KILL $PPID\n";
    const std::string once = "\"$0\" -o cluster; echo $?; ";
    const sandbox_result r = run_sandbox({"--tolvane", tool, "--mtab-content", OLD, "--timeout", "60"},
                                         {"sh", "-c", once + once, HELPER_PATH});
    std::filesystem::remove(tool);
    EXPECT_EQ(r.out, "137\n0\n") << r.err;
    const std::string entry = entry_for(OPT_CLUSTER, false);
    EXPECT_EQ(r.report["mtab"]["content"], OLD + entry + entry);
    ASSERT_EQ(r.report["mounts"].size(), 2u);
    EXPECT_EQ(r.report["mounts"][0]["control"]["write_opens"], 0);
    EXPECT_EQ(r.report["mounts"][1]["control"]["content"], "on");
    expect_left(r, {});
}

// The end-to-end runs under valgrind's memcheck, which runs inside the
// sandbox with the helper. Only the g++ build is run so (tests/CMakeLists.txt).
TEST_F(SandboxTest, MemcheckFindsNothingEndToEnd)
{
    if (!MEMCHECK || !std::filesystem::exists("/usr/bin/valgrind"))
        GTEST_SKIP() << "no valgrind, or a build it cannot run";
    const std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>> runs = {
        {{"--tolvane-record"}, {"-o", "rw,exclusive,wait"}},
        {{"--tolvane-noexec", "--control", "short"}, {}},
        {{"--mount-errno", "EBUSY"}, {"-o", "nocluster"}},
        {{"--mtab", "symlink", "--control", "missing"}, {}},
        {{"--mtab-lock", "--fast-sleep"}, {}},
        {{"--no-odm"}, {}},
        {{"--messages", CATALOG_BUILD_DIR}, {"-o", "cluster,bogus"}},
        {{"--messages", CATALOG_BUILD_DIR}, {"-o", "cluster,exclusive"}},
    };
    for (const auto& [scene, args] : runs) {
        std::vector<std::string> command{"env",        "LANG=de_DE.UTF-8",   "/usr/bin/valgrind",
                                         "-q",         "--error-exitcode=97", "--leak-check=full",
                                         HELPER_PATH};
        command.insert(command.end(), args.begin(), args.end());
        const sandbox_result r = run_sandbox(scene, command);
        EXPECT_NE(r.status, 97) << scene[0] << ": " << r.err;
        EXPECT_FALSE(std::regex_search(r.err, std::regex("==[0-9]+=="))) << scene[0] << ": " << r.err;
    }
}

}  // namespace
