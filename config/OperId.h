// Slots of the parameter store's numeric block, read through Parameters::get.
#pragma once

enum OperId : int {
    OPER_VEK_ENABLED = 0,
    OPER_WIFI_THRESHOLD = 1,
    OPER_WAN_THRESHOLD = 2,
    OPER_MINI_EST_INTERVAL = 3,
    OPER_MINI_STALE_INTERVAL = 4,
    OPER_IDEAL_EST_WINDOW = 5,
    OPER_MINI_RATE_WINDOW = 6,
    OPER_CELLULAR_SOCK_ASSIGN_RATE = 7,
    OPER_SOCK_ACTIVE_TIME = 8,
    OPER_SOCK_STALE_TIME = 9,
    OPER_UPDATE_PM_FREQ = 10,
    // 11 to 22 are reserved.
    OPER_PARAM_COUNT = 23,
};
