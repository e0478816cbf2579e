// Plumbing of the pattern set shared by its loaders: region release, the
// built-in pattern lookup, huge-page advice, and the seams tests and fuzz
// targets use (allocation failures, the loader's cross-file state).
//
// Contract: pattern_malloc and pattern_realloc are the only allocators of
// pattern buffer blocks; replacing them makes any allocation fail at will.
#ifndef QORA_PATTERN_INTERNAL_H
#define QORA_PATTERN_INTERNAL_H

#include <cstddef>
#include <string>

#include "qora_pattern.h"

// Releases every region of the golden (data, mask, record) and empties its list.
void free_sub_golden(golden* g);

// The tables of the built-in pattern a reserved name ("Test", "MaxPower")
// selects; null for any other name.
const internal_tables* internal_pattern(const std::string& name);

// Asks for huge pages under a large block about to be filled: fewer page
// faults while loading hundreds of megabytes. Only advice; failures are ignored.
void advise_huge_pages(void* block, size_t size);

// Allocation seam of the loaders, so tests can make allocations fail.
extern void* (*pattern_malloc)(size_t size);
extern void* (*pattern_realloc)(void* ptr, size_t size);

// Puts the state the text loader keeps across files back to where a process
// starts, for fuzz targets that load many unrelated files in one process.
void reset_pattern_load_state();

#endif // QORA_PATTERN_INTERNAL_H
