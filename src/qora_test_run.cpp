// Run mode of the entry point: the player, then the pattern set; both are
// released before returning, the pattern set first.
#include <new>

#include "qora_pattern.h"
#include "qora_player.h"
#include "qora_test_settings.h"
#include "qora_utils.h"

int run_pattern_mode()
{
    QORAPlayer* player = new QORAPlayer(core_id, loop, debug_lv, sleep_time_us, delay_off_ms, boost_value, soft_limit,
                                        hard_limit, dump_result_data, perf_mode);
    qoraPattern* pattern = new (std::nothrow) qoraPattern(pattern_list, golden_list, thrd_num);
    if (pattern == nullptr) {
        QORA_LOG_AT("E", "execute_pattern", 353, "create pattern fail!\n");
        delete player;
        return 1;
    }
    bool ok = player->BuildCmd(pattern, prio_lv, pmu_events, pmu_flusher, vlm_disable) && player->Execute();
    delete pattern;
    delete player;
    return ok ? 0 : 1;
}
