// How calcVekRatios shares traffic out in one turn.
#pragma once

enum VEK_ratio_calc_process : int {
    // The unmetered links together are above wifi_threshold: they alone
    // carry new connections, in proportion to their rates.
    RATIO_CALC_UNMETERED_ONLY = 0,
    // The unmetered links together are at or below wifi_threshold: the
    // metered links fill up the rest.
    RATIO_CALC_WITH_METERED = 1,
};
