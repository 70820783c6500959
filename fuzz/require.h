// The frame of every fuzz target.
#pragma once

#include <cstdlib>
#include <string_view>

// What a target does with one input; each defines its own.
void fuzz(std::string_view input);

// What it ends with when it has found a fault.
inline void Require(bool holds) {
  if (!holds) std::abort();
}
