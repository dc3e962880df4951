// Host stand-in for the platform header that the Android property API
// (cutils/properties.h) includes: only the size limits it needs.
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
