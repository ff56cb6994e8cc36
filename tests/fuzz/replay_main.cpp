// Replays a fuzz target's committed corpus in the native sanitized build, so that every input the
// fuzzer kept is a regression test of the unit tier: `<target>_replay <corpus folder>`.
#include <sanitizer/common_interface_defs.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>

#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

static std::string current;  // named when it brings the run down (a sanitizer or FUZZ_CHECK)

int main(int argc, char** argv) {
    std::vector<std::filesystem::path> inputs;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(argc == 2 ? argv[1] : "", error))
        if (entry.is_regular_file()) inputs.push_back(entry.path());
    if (inputs.empty()) return std::fprintf(stderr, "usage: %s <corpus folder>\n", argv[0]), 2;
    std::sort(inputs.begin(), inputs.end());
    static constexpr auto name = [] { std::fprintf(stderr, "replaying %s\n", current.c_str()); };
    __sanitizer_set_death_callback(name);
    std::signal(SIGABRT, [](int) { name(); });
    for (const std::filesystem::path& input : inputs) {
        current = input.string();
        // Exactly the input's size, as libFuzzer gives it, so a read past it is caught.
        const std::size_t size = std::filesystem::file_size(input);
        const auto data = std::make_unique<std::uint8_t[]>(size);
        std::ifstream(input, std::ios::binary).read(reinterpret_cast<char*>(data.get()), size);
        LLVMFuzzerTestOneInput(data.get(), size);
    }
    std::printf("%zu inputs replayed from %s\n", inputs.size(), argv[1]);
}
