// Renders parcel bytes the way the platform prints a Parcel: "Parcel(NULL)" when empty,
// one line of little-endian words and their characters up to 16 bytes, else indented lines
// of 16 bytes with their offsets.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

std::string formatParcelBytes(const uint8_t* data, size_t size);
