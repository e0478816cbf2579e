// Player loop: builds one qoraCmd from a pattern set, runs it the requested
// number of times, verifies every run and optionally dumps failing outputs.
//
// Contract: BuildCmd once, then Execute once; both return true on success.
// The player owns its qoraCmd; the pattern set is borrowed.
#ifndef QORA_PLAYER_H
#define QORA_PLAYER_H

#include <cstdint>
#include <vector>

class qoraCmd;
class qoraPattern;

class QORAPlayer
{
public:
    QORAPlayer(int id, int loop, int debug_lv, int sleep_us, int delay_off, int boost_value, int soft_limit,
               int hard_limit, bool dump, bool perf_mode);
    ~QORAPlayer();

    bool BuildCmd(qoraPattern* ptn, int prio_lv, std::vector<uint16_t>& pmu_evt, int flusher_mode, bool vlm_disable);
    bool Execute();

private:
    int m_id;
    int m_loop;
    int m_debug_lv;
    int m_sleep_us;
    int m_boost_value;
    int m_delay_off;
    int m_soft_limit;
    int m_hard_limit;
    bool m_dump;
    bool m_perf_mode;
    qoraCmd* m_cmd;
};

#endif // QORA_PLAYER_H
