// Pattern set from files (not built yet).
#include "qora_pattern.h"

qoraPattern::qoraPattern(std::vector<std::string>&, std::vector<std::string>&, int thrd_num)
    : m_thrd_num(thrd_num < 1 ? 1 : thrd_num)
{
}
