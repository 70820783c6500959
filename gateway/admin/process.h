// What the system says of this process. Used by the metrics.
#pragma once

namespace qn {

struct ProcessFigures {
  double cpuSeconds = 0;
  double residentBytes = 0;
  double openDescriptors = 0;
  double mostDescriptors = 0;
  double threads = 0;
  double startTime = 0;  // seconds since the epoch
};

// Reads /proc; what it does not find stays 0.
ProcessFigures processFigures();

}  // namespace qn
