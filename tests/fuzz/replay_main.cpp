// Runs a fuzz target over the files it is given, or the files in the
// directories it is given, so that the corpora are replayed in every build,
// without libFuzzer.
#include <dirent.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" [[gnu::weak]] int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

int replayed;

bool replay_file(const std::string& path)
{
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr)
        return false;
    std::vector<std::uint8_t> data;
    for (int c; (c = std::fgetc(f)) != EOF;)
        data.push_back(static_cast<std::uint8_t>(c));
    std::fclose(f);
    LLVMFuzzerTestOneInput(data.data(), data.size());
    ++replayed;
    return true;
}

bool replay(const std::string& path)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return false;
    if (!S_ISDIR(st.st_mode))
        return replay_file(path);
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr)
        return false;
    bool ok = true;
    while (const dirent* e = readdir(dir))
        if (e->d_name[0] != '.')
            ok = replay(path + "/" + e->d_name) && ok;
    closedir(dir);
    return ok;
}

}  // namespace

int main(int argc, char** argv)
{
    if (LLVMFuzzerInitialize != nullptr)
        LLVMFuzzerInitialize(&argc, &argv);
    bool ok = true;
    for (int i = 1; i < argc; ++i)
        if (!replay(argv[i])) {
            std::fprintf(stderr, "%s: cannot read %s\n", argv[0], argv[i]);
            ok = false;
        }
    std::printf("%d inputs replayed\n", replayed);
    return ok && replayed > 0 ? 0 : 1;
}
