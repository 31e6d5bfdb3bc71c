// Runs every file of the given folders through a fuzzer once; folders that are not there hold none.
#include <filesystem>
#include <iostream>

#include "fuzz.h"

int main(int argc, char** argv) {
    unsigned long inputs = 0;
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::is_directory(argv[i])) continue;
        for (auto const& entry : std::filesystem::directory_iterator(argv[i])) {
            // Before it runs, since an input that fails is the last.
            std::cout << entry.path().string() << std::endl;
            std::string const input = test::ReadFile(entry.path());
            LLVMFuzzerTestOneInput(reinterpret_cast<unsigned char const*>(input.data()), input.size());
            ++inputs;
        }
    }
    std::cout << inputs << " inputs\n";
    return inputs > 0 ? 0 : 1;
}
