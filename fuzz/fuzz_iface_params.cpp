// The interface parameter string parser: eight comma-separated fields from
// the client, parsed, validated and entered into the configured-interface
// map. Whatever gets in must be terminated and free of shell syntax.
#include <cstdint>
#include <cstring>
#include <string>

#include "config/Parameters.h"
#include "foundation/DebugFlag.h"
#include "fuzz/FuzzSupport.h"

namespace {

vekd::fuzz::HostStandIns* world;

void checkField(const char* text, size_t size, bool mayBeEmpty) {
    const size_t n = strnlen(text, size);
    FUZZ_CHECK(n < size);
    FUZZ_CHECK(mayBeEmpty || n > 0);
    for (size_t i = 0; i < n; ++i) {
        FUZZ_CHECK(strchr(";|&$`<>()\\'\"\n\t\v\f\r*?", text[i]) == nullptr);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    world = new vekd::fuzz::HostStandIns();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Parameters::resetForTesting();
    Parameters* params = Parameters::instance();
    const std::string text(reinterpret_cast<const char*>(data), size);
    gDebugLogEnabled = size > 0 && data[0] == ' ' ? 1 : 0;

    InterfaceInfo_t* info = params->parseInterfaceParams(text);
    if (info != nullptr) {
        checkField(info->name, sizeof(info->name), false);
        checkField(info->routeTable, sizeof(info->routeTable), false);
        checkField(info->fwmark, sizeof(info->fwmark), false);
        checkField(info->dnsServer, sizeof(info->dnsServer), true);
        const std::string name = info->name;
        FUZZ_CHECK(params->addNewInterfacetoMap(info));
        FUZZ_CHECK(params->m_interfaceMap.at(name) == info);
    }

    // The same text through the store's slot, as the client sends it.
    params->m_ifaceParams[0] = text;
    params->m_ifaceParams[1] = text;
    params->updateInterfaceParams();
    FUZZ_CHECK(params->m_interfaceMap.size() <= 1);

    Parameters::resetForTesting();
    gDebugLogEnabled = 0;
    return 0;
}
