// qora_player: the thin executable over libqora_ut.so.3.
#include <cstdio>
#include <exception>
#include <new>

#include "qora_test.h"

// The library lets a failed allocation (or another standard exception) pass
// through its entry point. The run then ends with one line on standard
// error and status 1, after everything already printed, instead of an abort.
static int run_to_the_end(int argc, char** argv)
{
    try {
        return execute_pattern(argc, argv);
    } catch (const std::bad_alloc&) {
        fflush(stdout);
        fputs("qora_player: out of memory, the run did not complete\n", stderr);
    } catch (const std::exception& e) {
        fflush(stdout);
        fprintf(stderr, "qora_player: %s, the run did not complete\n", e.what());
    }
    return 1;
}

int main(int argc, char** argv)
{
    return run_to_the_end(argc, argv);
}
