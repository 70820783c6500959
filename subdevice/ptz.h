// Pan, tilt and zoom of one channel: where the head is, how it moves, the presets it knows.
#pragma once

#include <json/json.h>

#include <chrono>
#include <map>
#include <string>

namespace subdevice {

struct Position {
  double pan = 0;
  double tilt = 0;
  double zoom = 0;
};

class PtzHead {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr int kFastest = 100;  // in units of the position a second
  static constexpr int kPresets = 300;

  explicit PtzHead(int channel);

  Json::Value channelDocument() const;
  Json::Value statusDocument();
  Json::Value presetsDocument() const;

  // False for a speed beyond the fastest.
  bool move(int pan, int tilt, int zoom);
  void home() { stopAt({}); }
  // False for an unknown preset.
  bool gotoPreset(int id);
  bool deletePreset(int id) { return presets_.erase(id) == 1; }
  // Stores the present position; false for an id that it cannot keep.
  bool setPreset(int id, const std::string& name);

 private:
  struct Preset {
    std::string name;
    Position position;
  };

  void advance();  // moves the position on to the present time
  void stopAt(const Position& position);

  int channel_;
  Position position_;
  Position speed_;
  Clock::time_point moved_ = Clock::now();
  std::map<int, Preset> presets_;
};

}  // namespace subdevice
