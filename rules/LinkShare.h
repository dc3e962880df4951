// One link's share of new connections, as the ratio rules take it.
#pragma once

#include <string>

struct LinkShare {
    std::string name;
    float share = 0.0f;       // 0 to 1
    bool metered = false;     // metered links come after the unmetered ones
    bool configured = false;  // a link without configuration gets no rule
};
