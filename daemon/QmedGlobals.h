#pragma once

// Process-wide globals set at start-up; read by every module.
extern bool bDebug;  // debug logging; only ever switched on
extern int vp_type;  // value of -t, selects the freezer group prefix
extern const char* const QMED_VERSION;
