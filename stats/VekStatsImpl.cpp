#include "stats/VekStatsImpl.h"

#include <android/log.h>
#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "config/Parameters.h"
#include "foundation/DebugFlag.h"
#include "platform/Clock.h"
#include "platform/Root.h"
#include "rules/IptablesManager.h"
#include "stats/StatsFileAccess.h"

namespace {

constexpr const char* kTag = "VekStatsImpl";
constexpr const char* kControlPath = "/proc/vek/config";
constexpr const char* kProcDir = "/proc/vek";
constexpr int kMapAttempts = 3;
constexpr useconds_t kMapRetryMicros = 500000;
constexpr int kCommandBufferSize = 512;

std::atomic<VekStatsImpl*> gInstance{nullptr};

vekd::stats::StatsFileAccess& files() { return vekd::Seam<vekd::stats::StatsFileAccess>::get(); }

// Records replaced in the interface map or dropped from it without their
// statistics, and estimators whose file was unmapped, are kept rather than
// destroyed, so that nothing that still points at them can dangle.
struct Retired {
    std::vector<linkStatsWrapper_t*> records;
    std::vector<VekStatsData*> estimators;
};

Retired& retired() {
    static Retired r;
    return r;
}

}  // namespace

VekStatsImpl* VekStatsImpl::instance() {
    VekStatsImpl* existing = gInstance.load(std::memory_order_acquire);
    if (existing != nullptr) return existing;
    auto* created = new VekStatsImpl();
    gInstance.store(created, std::memory_order_release);
    return created;
}

void VekStatsImpl::finalize() {
    VekStatsImpl* stats = gInstance.load(std::memory_order_acquire);
    if (stats == nullptr) return;
    if (gDebugLogEnabled) __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s +\n", "~VekStatsImpl");
    stats->freeMmap();
    gInstance.store(nullptr, std::memory_order_release);
    delete stats;
}

void VekStatsImpl::resetForTesting() {
    finalize();
    Retired& r = retired();
    for (linkStatsWrapper_t* record : r.records) {
        // A replaced record still holds its mapping.
        if (record->statsData != nullptr) {
            files().munmap(record->statsData->map, kVekStatsFileSize);
            delete record->statsData;
        }
        delete record;
    }
    for (VekStatsData* data : r.estimators) delete data;
    r.records.clear();
    r.estimators.clear();
}

int VekStatsImpl::writeStatsConfFile(const char* command) {
    if (command == nullptr) return -1;
    if (gDebugLogEnabled) {
        __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s:%s", "writeStatsConfFile", command);
    }
    const std::string path = vekd::platform::rootedPath(kControlPath);
    int fd = files().open(path.c_str(), O_WRONLY, 0);
    if (fd < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "open stats config file failed:%s",
                            strerror(errno));
        return -1;
    }
    // The module takes one command per write, NUL included.
    const size_t length = strlen(command) + 1;
    ssize_t written = files().write(fd, command, length);
    int savedErrno = errno;
    files().close(fd);
    if (written != static_cast<ssize_t>(length)) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "write the config failed:%s\n",
                            strerror(savedErrno));
        return -1;
    }
    return 0;
}

bool VekStatsImpl::enableVEK(bool enable) {
    char command[kCommandBufferSize];
    if (!enable) {
        freeMmap();
        snprintf(command, sizeof(command), "%s%d", "enable=", 0);
        return writeStatsConfFile(command) == 0;
    }

    Parameters* params = Parameters::instance();
    // A list that does not fit is left out rather than sent cut short.
    auto writeList = [this](const char* text, const char* key) {
        if (text == nullptr) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "%s command does not fit in %d bytes, not written",
                                key, kCommandBufferSize);
            return;
        }
        writeStatsConfFile(text);
    };
    writeList(params->getStatsProtocols(command, sizeof(command)), "protocols");
    writeList(params->getStatsPorts(command, sizeof(command)), "ports");
    for (const auto& entry : params->interfaces()) {
        snprintf(command, sizeof(command), "%s%s", "iface=", entry.first.c_str());
        writeStatsConfFile(command);
    }
    initMmap();
    snprintf(command, sizeof(command), "%s%d", "enable=", 1);
    return writeStatsConfFile(command) == 0;
}

void* VekStatsImpl::getStatsMmap(std::string iface) {
    char path[128];
    snprintf(path, sizeof(path), "%s%s%s_mmap", kProcDir, "/", iface.c_str());
    if (gDebugLogEnabled) {
        __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s %s+ filename =%s", "getStatsMmap",
                            iface.c_str(), path);
    }
    const std::string rooted = vekd::platform::rootedPath(path);
    int fd = files().open(rooted.c_str(), O_RDONLY | O_CREAT, 0777);
    if (fd < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "open mmap file failed:%s", strerror(errno));
        return nullptr;
    }
    void* map = files().mmap(kVekStatsFileSize, PROT_READ, MAP_SHARED, fd, 0);
    if (map == MAP_FAILED) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "mmap stats file failed:%s", strerror(errno));
    }
    files().close(fd);
    return map;
}

bool VekStatsImpl::initMmap() {
    if (gDebugLogEnabled) __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s +\n", "initMmap");
    const Interfaces configured = Parameters::instance()->interfaces();
    std::lock_guard<std::mutex> lock(m_mutex);
    if (configured.empty()) return m_linkStatsMap.empty();

    size_t mapped = 0;
    for (const auto& entry : configured) {
        const std::string& name = entry.first;
        auto* record = new linkStatsWrapper_t();
        snprintf(record->interfaceName, sizeof(record->interfaceName), "%s", name.c_str());

        void* map = nullptr;
        for (int attempt = 0; attempt < kMapAttempts; ++attempt) {
            map = getStatsMmap(name);
            if (map != nullptr && map != MAP_FAILED) break;
            map = nullptr;
            vekd::Seam<vekd::platform::Clock>::get().sleepMicros(kMapRetryMicros);
        }
        if (map != nullptr) {
            record->statsData = new VekStatsData(map, false);
            ++mapped;
        }

        auto found = m_linkStatsMap.find(name);
        if (found != m_linkStatsMap.end()) {
            if (found->second != nullptr) retired().records.push_back(found->second);
            found->second = record;
        } else {
            m_linkStatsMap.emplace(name, record);
        }
    }

    return mapped == m_linkStatsMap.size();
}

bool VekStatsImpl::lockHeldForTesting() const {
    if (!m_mutex.try_lock()) return true;
    m_mutex.unlock();
    return false;
}

void VekStatsImpl::addLinkForTesting(const std::string& name, void* map) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto* record = new linkStatsWrapper_t();
    snprintf(record->interfaceName, sizeof(record->interfaceName), "%s", name.c_str());
    if (map != nullptr) record->statsData = new VekStatsData(map, false);
    linkStatsWrapper_t*& slot = m_linkStatsMap[name];
    if (slot != nullptr) retired().records.push_back(slot);
    slot = record;
}

int64_t VekStatsImpl::receivedAgoMs(const std::string& iface) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_linkStatsMap.find(iface);
    if (it == m_linkStatsMap.end() || it->second == nullptr || it->second->statsData == nullptr) return -1;
    // 8 KB in half a second: a flow; a dead uplink's retransmissions are less.
    const uint64_t newest = it->second->statsData->lastFlowMs(8192, 500);
    struct timeval tv {};
    if (newest == 0 || vekd::Seam<vekd::platform::Clock>::get().getTimeOfDay(&tv) != 0) return -1;
    const uint64_t now = vekd::platform::msOf(tv);
    // A sample stamped ahead of this clock counts as just now.
    return now > newest ? static_cast<int64_t>(std::min<uint64_t>(now - newest, INT64_MAX)) : 0;
}

std::vector<vekd::report::LinkRow> VekStatsImpl::snapshot(const IptablesManager* rules) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    // Under the lock the rewrite holds: the shares installed for these records.
    const std::map<std::string, float> installed =
        rules != nullptr ? rules->installedShares() : std::map<std::string, float>();
    std::vector<vekd::report::LinkRow> out;
    for (const auto& [name, record] : m_linkStatsMap) {
        if (record == nullptr) continue;
        vekd::report::LinkRow link;
        link.name = name;
        link.measured = record->statsData != nullptr;
        link.estimate = record->lre;
        link.historyMax = record->history.maxRate;
        link.historyLength = static_cast<uint32_t>(record->history.rates.size());
        link.samples = record->pktCnt;
        link.computedShare = record->interfaceRatio;
        auto share = installed.find(name);
        if (share != installed.end()) link.installedShare = share->second;
        out.push_back(std::move(link));
    }
    return out;
}

void VekStatsImpl::freeMmap() {
    if (gDebugLogEnabled) __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s +\n", "freeMmap");
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto& entry : m_linkStatsMap) {
        linkStatsWrapper_t* record = entry.second;
        if (record == nullptr) continue;
        if (record->statsData != nullptr) {
            files().munmap(record->statsData->map, kVekStatsFileSize);
            retired().estimators.push_back(record->statsData);
            delete record;
        } else {
            retired().records.push_back(record);
        }
    }
    m_linkStatsMap.clear();
}

unsigned int VekStatsImpl::getMaxLinkRateFromHistory(linkHistory_t& history, unsigned int lre,
                                                     Parameters* params) {
    const int32_t keep = params->m_bestEstCacheSize;
    if (keep <= 0) return lre;

    if (history.rates.size() < static_cast<size_t>(keep)) {
        history.rates.push_back(lre);
        if (history.maxRate < lre) history.maxRate = lre;
        return history.maxRate;
    }

    // One value leaves per turn, even when the history is longer than the
    // current size: lowering the size at run time never shrinks it at once.
    const unsigned int leaving = history.rates.front();
    history.rates.pop_front();
    history.rates.push_back(lre);
    if (history.maxRate == 0 || history.maxRate != leaving) {
        if (history.maxRate < lre) history.maxRate = lre;
        return history.maxRate;
    }

    // The maximum itself left: rescan.
    history.maxRate = 0;
    for (unsigned int rate : history.rates) {
        if (rate > history.maxRate) history.maxRate = rate;
    }
    return history.maxRate;
}
