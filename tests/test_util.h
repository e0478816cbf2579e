// Helpers shared by the tests: captured calls of the entry point, runs of the
// real executable, scratch files, and a seam to build pattern sets by hand.
#ifndef QORA_TEST_UTIL_H
#define QORA_TEST_UTIL_H

#include <functional>
#include <string>
#include <vector>

#include "qora_pattern.h"
#include "qora_test_settings.h"

// Standard output printed while fn runs.
std::string capture_stdout(const std::function<void()>& fn);

// Calls execute_pattern with {"qora_player", args...}; stores its output.
int call_entry(const std::vector<std::string>& args, std::string* out);

// Runs the qora_player executable in a shell command line; returns its exit
// code and stores its standard output (and error, when asked). `env` goes to
// env(1) first: options such as "-C dir", then NAME=VALUE settings.
int run_player(const std::string& args, std::string* out, bool with_stderr = false, const std::string& env = "");

// One data line of a pattern or golden file: four words, the last one first.
std::string hex_line(uint32_t w0, uint32_t w1, uint32_t w2, uint32_t w3);

// The sixteen-token sscanf reading of a hex line that the decoders stand in
// for: its tokens, and its bytes and mask converted one character at a time
// ('x' reads as a masked-out 0 when `golden`). Both return sscanf's result.
int sscanf_hex_tokens(const char* line, char tok[16][3]);
int sscanf_hex_line(const char* line, bool golden, uint8_t data[16], uint8_t mask[16]);

// A scratch directory for one test, emptied when it is made.
std::string make_tmp_dir(const std::string& name);
void write_file(const std::string& path, const std::string& content);
std::string read_file(const std::string& path);

// What a forked child printed and returned. The loaders and converters keep
// state across calls on purpose; running a scenario in a child keeps the
// scenarios of one test run independent.
struct isolated_result {
    std::string out;    // its standard output
    std::string result; // what fn returned
};
isolated_result run_isolated(const std::function<std::string()>& fn);

// Text form of a pattern set as the accessors show it: code buffers with
// their bytes and bindings, data buffers, outputs and golden regions.
std::string describe_set(qoraPattern& set);

// Builds a set from files (inside run_isolated) and describes it.
std::string load_and_describe(const std::vector<std::string>& patterns, const std::vector<std::string>& goldens);

// Reaches the private lists of a qoraPattern so tests can build sets by hand.
struct qora_pattern_access {
    static std::vector<pattern*>& patterns(qoraPattern& p) { return p.m_ptn_list; }
    static std::vector<golden*>& goldens(qoraPattern& p) { return p.m_gdn_list; }
    static std::vector<output*>& outputs(qoraPattern& p) { return p.m_out_list; }
};

#endif // QORA_TEST_UTIL_H
