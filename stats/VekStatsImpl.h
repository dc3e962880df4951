// The statistics engine: the channel to the kernel module (control commands,
// mapped statistics files), the per-link rate history, and the per-turn split
// of new connections over the links.
#pragma once

#include <pthread.h>

#include <map>
#include <set>
#include <string>

#include "stats/LinkStatsWrapper.h"
#include "stats/VekRatioCalc.h"
#include "stats/VekStatsData.h"

class Parameters;

class VekStatsImpl {
  public:
    // The singleton, created (with an empty interface map) on first call.
    static VekStatsImpl* instance();
    // Unmaps everything and destroys the singleton; a later instance()
    // starts afresh.
    static void finalize();
    // Tests: finalize, and forget the records kept from earlier runs.
    static void resetForTesting();

    // One NUL-terminated command to the module's control file: 0 or -1.
    int writeStatsConfFile(const char* command);
    // true: configure the module, map the statistics files, start measuring.
    // false: unmap the files, stop measuring. The result is that of the final
    // "enable=" command.
    bool enableVEK(bool enable);
    // Maps the statistics file of every configured interface (three attempts
    // each, 500 ms apart) into the interface map; true when all were mapped.
    bool initMmap();
    // The read-only mapping of `iface`'s statistics file; null when it cannot
    // be opened, MAP_FAILED when it cannot be mapped.
    void* getStatsMmap(std::string iface);
    // Unmaps every statistics file and empties the interface map.
    void freeMmap();

    // Records `lre` in `history` and returns the largest estimate kept.
    unsigned int getMaxLinkRateFromHistory(linkHistory_t& history, unsigned int lre,
                                           Parameters* params);

    // One evaluation turn: estimate every link, compute the shares and, when
    // they moved enough, install them as ratio rules. The result carries no
    // meaning.
    int evalAndSetVEKInterfaceRatio();
    // Writes every record's interfaceRatio; true when the split moved by more
    // than min_ratio_change and is to be installed.
    bool calcVekRatios(VEK_ratio_calc_process mode, float totalMeteredLRE, float totalUnmeteredLRE,
                       float maxUnmeteredLRE);

    // Links known to be dead: no estimate, share 0, and the other links'
    // shares scaled to add up to 1. Ignored when it names every link.
    void setDownLinks(std::set<std::string> down);

    // Interface name -> record; owns the records. Guarded by m_mutex.
    std::map<std::string, linkStatsWrapper_t*> m_linkStatsMap;
    // Reserved; zero.
    int m_reserved0 = 0;
    int m_reserved1 = 0;

    // Held by initMmap, freeMmap and a whole evaluation turn (including the
    // rule rewrite). Initialised with the singleton, destroyed by finalize.
    static pthread_mutex_t m_mutex;

  private:
    // Of m_downLinks, those among the configured records; empty when that
    // would be all of them.
    std::set<std::string> downAmongConfigured(Parameters* params) const;
    // calcVekRatios with the turn's down links already worked out.
    bool calcVekRatios(VEK_ratio_calc_process mode, float totalMeteredLRE, float totalUnmeteredLRE,
                       float maxUnmeteredLRE, const std::set<std::string>& down);

    std::set<std::string> m_downLinks;  // guarded by m_mutex

    VekStatsImpl() = default;
    ~VekStatsImpl() = default;
    VekStatsImpl(const VekStatsImpl&) = delete;
    VekStatsImpl& operator=(const VekStatsImpl&) = delete;
};
