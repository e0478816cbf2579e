// Conversion modes of the entry point (not built yet).
#include "qora_test_settings.h"

bool run_conversion_mode()
{
    return false;
}
