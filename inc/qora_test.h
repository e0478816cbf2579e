// Public API of libqora_ut.so.3: the test-pattern player's one entry point.
//
// Contract: execute_pattern takes a command line (argv[0] is the program
// name) and returns 0 or 1. It runs on the caller's thread, is not
// re-entrant, and keeps its settings across calls in one process.
#ifndef QORA_TEST_H
#define QORA_TEST_H

#ifdef __cplusplus
extern "C" {
#endif

__attribute__((visibility("default"))) int execute_pattern(int argc, char** argv);

#ifdef __cplusplus
}
#endif

#endif // QORA_TEST_H
