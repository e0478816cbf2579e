// Run mode of the entry point (not built yet).
#include "qora_test_settings.h"

int run_pattern_mode()
{
    return 1;
}
