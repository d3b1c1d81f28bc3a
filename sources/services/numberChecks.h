#pragma once

#include <cstdint>
#include <string>

// Checks of numbers that scripts and the runner pass in, kept apart from V8 so that they can be
// tested alone.
namespace kesh {

// A TCP port: an integer from 0 to 65535. False for fractions, NaN, infinities and the rest,
// which a cast would silently turn into another port.
bool portFromNumber(double value, uint16_t* port);

// A timer delay in whole milliseconds, cut towards zero as JavaScript's integer conversion does;
// NaN and negative delays give 0. False for the infinities and for 2^64 ms or more, which libuv's
// 64-bit time-out cannot hold: a cast would make them fire at once.
bool timerDelayFromNumber(double value, uint64_t* ms);

// The number as a message shows it: "NaN", "Infinity", "-Infinity", or the shortest of its
// decimal and exponent forms that reads back as the same number ("70000", "0.5", "1e+300").
std::string numberText(double value);

}  // namespace kesh
