// Interface parameter strings -> validated records in the configured-interface map.
#include <android/log.h>

#include <cstdlib>
#include <cstring>
#include <sstream>

#include "config/Parameters.h"
#include "foundation/CommandRunner.h"
#include "foundation/DebugFlag.h"

namespace {

constexpr const char* kTag = "VekParameters";
constexpr int kFieldCount = 8;

void copyBounded(char* dst, size_t dstSize, const std::string& src) {
    const size_t n = src.size() < dstSize - 1 ? src.size() : dstSize - 1;
    memcpy(dst, src.data(), n);
    dst[n] = '\0';
}

// Text that ends up inside command lines: letters, digits, blank and . _ - : / @ +.
// Whitespace passes here and is judged by the one-word test, so a tab gets
// the same answer as an inner blank.
bool isSafeText(const char* text) {
    for (const char* p = text; *p; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) continue;
        if (strchr(" ._-:/@+", c) == nullptr && strchr(kOtherWhitespace, c) == nullptr) return false;
    }
    return true;
}


}  // namespace

void Parameters::setInterfaceSlot(int index, std::string text) {
    if (index < 0 || index >= kMaxInterfaceSlots) return;
    std::lock_guard<std::mutex> lock(m_interfaceMutex);
    m_ifaceParams[index] = std::move(text);
}

std::map<std::string, InterfaceInfo_t> Parameters::interfaces() const {
    std::lock_guard<std::mutex> lock(m_interfaceMutex);
    std::map<std::string, InterfaceInfo_t> copy;
    for (const auto& [name, info] : m_interfaceMap) {
        if (info != nullptr) copy.emplace(name, *info);
    }
    return copy;
}

void Parameters::updateInterfaceParams() {
    std::lock_guard<std::mutex> lock(m_interfaceMutex);
    if (m_numInterfaces == 0) {
        if (gDebugLogEnabled) {
            __android_log_print(ANDROID_LOG_DEBUG, kTag,
                                " VekParameters added ifaces = %d getNumInterfaces =%d", 0, 0);
        }
        return;
    }
    int added = 0;
    // Only four slots exist; a larger or negative count considers all four.
    const int slots = (m_numInterfaces < 0 || m_numInterfaces > kMaxInterfaceSlots)
                          ? kMaxInterfaceSlots
                          : m_numInterfaces;
    for (int i = 0; i < slots; ++i) {
        const std::string& text = m_ifaceParams[i];
        if (text.empty()) continue;
        if (gDebugLogEnabled) {
            __android_log_print(ANDROID_LOG_DEBUG, kTag, " VEK processing iface %d, m_ifaceParams[%d]=%s",
                                i, i, text.c_str());
        }
        InterfaceInfo_t* info = parseInterfaceParams(text);
        if (info == nullptr) continue;
        if (addNewInterfacetoMap(info)) {
            ++added;
        } else {
            free(info);  // rejected: nothing points at it
        }
    }
    if (gDebugLogEnabled) {
        __android_log_print(ANDROID_LOG_DEBUG, kTag,
                            " VekParameters added ifaces = %d getNumInterfaces =%d", added,
                            m_numInterfaces);
    }
}

InterfaceInfo_t* Parameters::parseInterfaceParams(std::string params) {
    auto* info = static_cast<InterfaceInfo_t*>(malloc(sizeof(InterfaceInfo_t)));
    memset(info, 0, sizeof(*info));

    std::vector<std::string> fields;
    std::istringstream in(params);
    std::string field;
    while (std::getline(in, field, ',')) {
        fields.push_back(field);
        if (gDebugLogEnabled) {
            __android_log_print(ANDROID_LOG_DEBUG, kTag, "parseInterfaceParams %s %d %d ",
                                field.c_str(), static_cast<int>(fields.size()), kFieldCount);
        }
    }

    if (fields.size() == kFieldCount) {
        copyBounded(info->name, sizeof(info->name), fields[0]);
        copyBounded(info->routeTable, sizeof(info->routeTable), fields[2]);
        copyBounded(info->fwmark, sizeof(info->fwmark), fields[3]);
        info->isDefault = atoi(fields[4].c_str()) != 0;
        info->metered = atoi(fields[1].c_str()) != 0;
        info->cost = atoi(fields[5].c_str());
        info->bias = atoi(fields[6].c_str());
        copyBounded(info->dnsServer, sizeof(info->dnsServer), fields[7]);
        if (validateInterfaceParams(info)) return info;
    }
    free(info);
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s Check vekd.conf for interface errors",
                        "parseInterfaceParams");
    return nullptr;
}

bool Parameters::validateInterfaceParams(InterfaceInfo_t* info) {
    static const char* kFn = "validateInterfaceParams";
    bool result = true;
    if (info == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "%s Interface Obj is NULL", kFn);
        result = false;
    } else {
        if (info->name[0] == '\0') {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "%s Interface name is NULL", kFn);
            result = false;
        }
        if (info->routeTable[0] == '\0') {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "%s Interface routeTable is NULL", kFn);
            result = false;
        }
        if (info->fwmark[0] == '\0') {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "%s Interface fwmark is NULL", kFn);
            result = false;
        }
        // These texts become parts of shell command lines.
        if (!isSafeText(info->name) || !isSafeText(info->routeTable) || !isSafeText(info->fwmark) ||
            !isSafeText(info->dnsServer)) {
            __android_log_print(ANDROID_LOG_ERROR, kTag,
                                "%s Interface %s rejected: only letters, digits, blank and "
                                "._-:/@+ are allowed in its fields",
                                kFn, info->name);
            result = false;
        } else if (!isOneWord(info->name) || !isOneWord(info->routeTable) || !isOneWord(info->fwmark) ||
                   !isOneWord(info->dnsServer)) {
            __android_log_print(ANDROID_LOG_ERROR, kTag,
                                "%s Interface %s rejected: a field holds more than one word", kFn,
                                info->name);
            result = false;
        }
    }

    if (!hasValidRoute(info ? info->name : nullptr)) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "%s Interface %s has no route, do not add into map",
                            kFn, info ? info->name : "(null)");
        return false;
    }
    if (!result) return false;

    if (gDebugLogEnabled) __android_log_print(ANDROID_LOG_ERROR, kTag, "%s Interface name is       %s", kFn, info->name);
    if (gDebugLogEnabled) __android_log_print(ANDROID_LOG_ERROR, kTag, "%s Interface routeTable is %s", kFn, info->routeTable);
    if (gDebugLogEnabled) __android_log_print(ANDROID_LOG_ERROR, kTag, "%s Interface fwmark is     %s", kFn, info->fwmark);
    if (gDebugLogEnabled) __android_log_print(ANDROID_LOG_ERROR, kTag, "%s Interface default is    %d", kFn, info->isDefault);
    if (gDebugLogEnabled) __android_log_print(ANDROID_LOG_ERROR, kTag, "%s Interface metered is    %d", kFn, info->metered);
    if (gDebugLogEnabled) __android_log_print(ANDROID_LOG_ERROR, kTag, "%s Interface cost is       %d", kFn, info->cost);
    if (gDebugLogEnabled) __android_log_print(ANDROID_LOG_ERROR, kTag, "%s Interface bias is       %d", kFn, info->bias);
    return true;
}

bool Parameters::addNewInterfacetoMap(InterfaceInfo_t* info) {
    if (!validateInterfaceParams(info)) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "%s Add interface failed ", "addNewInterfacetoMap");
        return false;
    }
    InterfaceInfo_t*& slot = m_interfaceMap[info->name];
    // Readers of the map hold no pointer into a record beyond their own turn
    // (the link manager keeps a copy of its DNS choice), so the replaced
    // record can go at once.
    if (slot != info) free(slot);
    slot = info;
    if (gDebugLogEnabled) {
        __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s Added %s to list of interfaces ",
                            "addNewInterfacetoMap", info->name);
    }
    return true;
}
