// See process.h.
#include "gateway/admin/process.h"

#include <dirent.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>

namespace qn {
namespace {

double seconds(const timeval& time) {
  constexpr double kMicroseconds = 1e-6;
  return double(time.tv_sec) + double(time.tv_usec) * kMicroseconds;
}

double seconds(clockid_t clock) {
  constexpr double kNanoseconds = 1e-9;
  timespec time{};
  clock_gettime(clock, &time);
  return double(time.tv_sec) + double(time.tv_nsec) * kNanoseconds;
}

double openDescriptors() {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc/self/fd"), closedir);
  int entries = 0;
  while (folder && readdir(folder.get()) != nullptr) ++entries;
  constexpr int kOthers = 3;  // itself, "." and ".."
  return entries > kOthers ? entries - kOthers : 0;
}

// The fields of /proc/self/stat behind the program's name, which may hold blanks.
void readStat(ProcessFigures& figures) {
  std::string line;
  std::ifstream stat("/proc/self/stat");
  std::getline(stat, line);
  const std::size_t name = line.rfind(')');
  if (name == std::string::npos) return;
  constexpr int kThreads = 17;  // place behind the name, from 0
  constexpr int kStart = 19;
  constexpr int kResident = 21;
  std::size_t at = name + 2;
  for (int field = 0; at < line.size(); ++field) {
    const double value = std::strtod(line.c_str() + at, nullptr);
    if (field == kThreads) figures.threads = value;
    if (field == kStart) {
      const double sinceBoot = value / double(sysconf(_SC_CLK_TCK));
      figures.startTime = seconds(CLOCK_REALTIME) - seconds(CLOCK_BOOTTIME) + sinceBoot;
    }
    if (field == kResident) figures.residentBytes = value * double(sysconf(_SC_PAGESIZE));
    at = line.find(' ', at);
    if (at == std::string::npos) return;
    ++at;
  }
}

}  // namespace

ProcessFigures processFigures() {
  ProcessFigures figures;
  rusage usage{};
  if (getrusage(RUSAGE_SELF, &usage) == 0) {
    figures.cpuSeconds = seconds(usage.ru_utime) + seconds(usage.ru_stime);
  }
  rlimit descriptors{};
  if (getrlimit(RLIMIT_NOFILE, &descriptors) == 0) {
    figures.mostDescriptors = double(descriptors.rlim_cur);
  }
  figures.openDescriptors = openDescriptors();
  readStat(figures);
  return figures;
}

}  // namespace qn
