// The configuration file reader, from raw file bytes to the parameter store:
// key=value parsing, UID lists, the parameter dump and the interface
// strings it names. Accepted interfaces must never carry text that could
// change the meaning of a command line.
#include <cstdint>
#include <cstring>
#include <fstream>

#include "config/Parameters.h"
#include "foundation/DebugFlag.h"
#include "fuzz/FuzzSupport.h"

namespace {

vekd::fuzz::HostStandIns* world;

bool safeField(const char* text, size_t size) {
    const size_t n = strnlen(text, size);
    FUZZ_CHECK(n < size);
    for (size_t i = 0; i < n; ++i) {
        // Shell syntax, and whitespace other than the blank, which a shell splits at.
        if (strchr(";|&$`<>()\\'\"\n\t\v\f\r", text[i]) != nullptr) return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    world = new vekd::fuzz::HostStandIns();
    world->root.writeFile(kVekdConfPath, "");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    {
        std::ofstream out(world->root.at(kVekdConfPath), std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    // The verbose dump runs through every text the file set.
    gDebugLogEnabled = size > 0 && (data[size - 1] & 1) ? 1 : 0;
    world->props.set("vendor.bemo.operator.iso-country", size > 1 && (data[size - 2] & 1) ? "CN" : "TW");

    Parameters::resetForTesting();
    Parameters* params = Parameters::instance();
    params->updateInterfaceParams();

    // A command either fits its buffer whole or is refused.
    char buf[64];
    const char* protocols = params->getStatsProtocols(buf, sizeof(buf));
    FUZZ_CHECK((protocols == nullptr) == (strlen("protocols=") + params->m_protocols.size() >= sizeof(buf)));
    const char* ports = params->getStatsPorts(buf, sizeof(buf));
    FUZZ_CHECK((ports == nullptr) == (strlen("ports=") + params->m_ports.size() >= sizeof(buf)));
    FUZZ_CHECK(ports == nullptr || strlen(ports) < sizeof(buf));
    for (int id = -1; id <= OPER_PARAM_COUNT; ++id) params->get(static_cast<OperId>(id));

    for (const auto& entry : params->m_interfaceMap) {
        const InterfaceInfo_t* info = entry.second;
        FUZZ_CHECK(info != nullptr && info->name[0] != '\0');
        FUZZ_CHECK(safeField(info->name, sizeof(info->name)));
        FUZZ_CHECK(safeField(info->routeTable, sizeof(info->routeTable)));
        FUZZ_CHECK(safeField(info->fwmark, sizeof(info->fwmark)));
        FUZZ_CHECK(safeField(info->dnsServer, sizeof(info->dnsServer)));
    }
    Parameters::resetForTesting();
    gDebugLogEnabled = 0;
    return 0;
}
