#pragma once

#include <cutils/properties.h>

// Buffer the debug property is read into at start-up.
extern char gDebugPropValue[PROPERTY_VALUE_MAX];

// Sets bDebug from "persist.sys.qmed.debug": only the exact value "true" counts.
void readDebugProperty();

// Parses -t and -v with getopt. Returns -1 when -v was given (a version query), else 0.
int parse_args(int argc, char** argv);

// The whole start-up sequence; runs until the process is killed.
int zoqmed_main(int argc, char** argv);
