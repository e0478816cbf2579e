// Helpers shared by the pattern store's source files (not part of its API).
#ifndef QORA_PATTERN_INTERNAL_H
#define QORA_PATTERN_INTERNAL_H

#include "qora_pattern.h"

// Releases every region of the golden (data, mask, record) and empties its list.
void free_sub_golden(golden* g);

#endif // QORA_PATTERN_INTERNAL_H
