// The recordings of a device: for every stream one an hour over two fixed days, so that a search
// has the same matches on every run.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <optional>
#include <string>

namespace subdevice {

struct Search {
  int track = 101;  // channel * 100 + stream
  std::string startTime, endTime;
  std::string contentType;
  std::string metadata;
  std::string rtspPort;  // what the gateway sent as the search keyword
  int position = 0;
  int maxResults = 40;
};

class RecordingDatabase {
 public:
  static constexpr int kHours = 48;
  static constexpr int kMostResults = 200;  // in one answer
  static constexpr int kStreams = 3;

  explicit RecordingDatabase(int channels) : channels_(channels) {}

  // The "CMSearchResult" object.
  Json::Value find(const Search& search) const;

 private:
  int channels_;
};

}  // namespace subdevice
