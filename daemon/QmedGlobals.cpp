#include "daemon/QmedGlobals.h"

bool bDebug = false;
int vp_type = 0;
const char* const QMED_VERSION = "13.0.13";
