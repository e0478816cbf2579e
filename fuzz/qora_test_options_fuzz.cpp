// Option parser: the input split at NUL bytes into an argument vector. The
// do-nothing flag is raised first, so every call ends after parsing (no mode
// runs, no file is made).
#include <cstring>

#include "fuzz_util.h"
#include "qora_test.h"
#include "qora_test_settings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_dir();
    std::vector<std::string> args {"qora_player"};
    std::string current;
    for (size_t i = 0; i < size; i++) {
        if (data[i] == '\0') {
            args.push_back(current);
            current.clear();
        } else {
            current.push_back((char)data[i]);
        }
    }
    args.push_back(current);
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    do_nothing = true;
    execute_pattern((int)args.size(), argv.data());
    // The settings accumulate by design; each input starts from the defaults.
    reset_settings();
    return 0;
}
