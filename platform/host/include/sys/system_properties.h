// Host stand-in for the platform's <sys/system_properties.h> limits, needed by
// <cutils/properties.h>.
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
