// The documents a device starts with.
#pragma once

#include <json/json.h>

#include <map>
#include <string>

namespace subdevice {

struct DeviceOptions;

constexpr int kIoOutputs = 2;

// Is it a recorder: video inputs instead of audio inputs of its own?
bool isRecorder(const std::string& deviceType);

std::map<std::string, Json::Value, std::less<>> factoryDocuments(const DeviceOptions& options);
std::map<int, Json::Value> factoryStreams(const DeviceOptions& options);

}  // namespace subdevice
