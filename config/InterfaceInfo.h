// One configured interface, as described by its parameter string
// "name,metered,routeTable,fwmark,isDefault,cost,bias,dnsServer".
#pragma once

#include <cstdint>

struct InterfaceInfo_t {
    char name[128];
    char routeTable[128];
    bool metered;
    bool isDefault;
    int32_t cost;
    int32_t bias;
    char fwmark[128];
    char dnsServer[16];
};
