// Lookup of "KEY = number" lines in a short text file: the GPIO pin file and the calibration-offset
// file both keep their settings this way. Every key ends in a space and an equals sign.
#pragma once

#include <cstdint>

// Looks up key in text: the first occurrence, then the decimal number right behind it (leading
// blanks skipped, stops at the first non-digit, no digits give 0), low 16 bits. A missing key,
// or a key that occurs again after the end of its line, gives def.
uint32_t ini_get_value(const char* text, const char* key, uint16_t def);
