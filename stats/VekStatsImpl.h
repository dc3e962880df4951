// The statistics engine: the channel to the kernel module (control commands,
// mapped statistics files), the per-link rate history, and the per-turn split
// of new connections over the links.
//
// Its lock (m_mutex) guards the interface map, the records in it and the
// down links. It is taken by initMmap, freeMmap, setDownLinks, snapshot and a
// whole evaluation turn, the ratio rewrite included, and by nothing outside
// this class. Its place in the lock order: manager/NuvManager.h.
#pragma once

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "config/InterfaceInfo.h"
#include "report/Snapshot.h"
#include "stats/LinkStatsWrapper.h"
#include "stats/VekRatioCalc.h"
#include "stats/VekStatsData.h"

class IptablesManager;
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
    // than min_ratio_change and is to be installed. The caller holds the
    // lock (the evaluation turn does).
    bool calcVekRatios(VEK_ratio_calc_process mode, float totalMeteredLRE, float totalUnmeteredLRE,
                       float maxUnmeteredLRE);

    // Links known to be dead: no estimate, share 0, and the other links'
    // shares scaled to add up to 1. Ignored when it names every link.
    void setDownLinks(std::set<std::string> down);

    // How long ago `iface` last received a flow of measured traffic, by the
    // samples of its statistics file; -1 when unknown.
    int64_t receivedAgoMs(const std::string& iface) const;

    // Every link in name order, copied under the lock, with the share
    // `rules` last installed (no health: that is the link monitor's).
    std::vector<vekd::report::LinkRow> snapshot(const IptablesManager* rules) const;
    // Tests: whether some thread holds the lock.
    bool lockHeldForTesting() const;
    // Tests and fuzzing: a record for `name` over a mapping of a statistics
    // file (null: a record without statistics), as initMmap makes one.
    void addLinkForTesting(const std::string& name, void* map);

  private:
    using Interfaces = std::map<std::string, InterfaceInfo_t>;
    // Of m_downLinks, those among the configured records; empty when that
    // would be all of them.
    std::set<std::string> downAmongConfigured(const Interfaces& configured) const;
    // calcVekRatios with the turn's configuration and down links worked out.
    bool calcVekRatios(VEK_ratio_calc_process mode, float totalMeteredLRE, float totalUnmeteredLRE,
                       float maxUnmeteredLRE, const Interfaces& configured,
                       const std::set<std::string>& down);

    mutable std::mutex m_mutex;
    // Interface name -> record; owns the records.
    std::map<std::string, linkStatsWrapper_t*> m_linkStatsMap;
    std::set<std::string> m_downLinks;
    std::set<std::string> m_downInLastTurn;  // the down links the last turn acted on
    std::map<std::string, int64_t> m_downSinceMs;  // monotonic ms each down link went down

    VekStatsImpl() = default;
    ~VekStatsImpl() = default;
    VekStatsImpl(const VekStatsImpl&) = delete;
    VekStatsImpl& operator=(const VekStatsImpl&) = delete;
};
