// The resources that take longer than others: for the module, which sends them to devices, and for
// the HTTP service, which has to keep a thread and the client waiting for them.
#pragma once

#include <algorithm>
#include <chrono>
#include <iterator>
#include <string_view>

#include "platform/http_service.h"

// How a request is slow on the thread that the service runs it on. All but the first belong on a
// worker: they block.
enum class SlowPart { DeviceOnly, AsksDeviceFirst, TakesPicture };

struct SlowResource {
  static constexpr int kAnyMethod = -1;

  std::string_view path;  // exact, without the query
  int method;
  std::chrono::milliseconds timeout;  // for the device's reply
  SlowPart slowPart;

  constexpr bool isFor(unsigned int itsMethod) const {
    return method == kAnyMethod || static_cast<unsigned int>(method) == itsMethod;
  }
};

// Every device time-out above the usual ones, which are at most 15 s.
inline constexpr SlowResource kSlowResources[] = {
    {"/KAVRO/AccessControl/CardInfo/Delete", QNHttpService::HTTP_PUT, std::chrono::seconds(60),
     SlowPart::DeviceOnly},
    {"/KAVRO/AccessControl/AcsEvent", QNHttpService::HTTP_POST, std::chrono::seconds(30),
     SlowPart::DeviceOnly},
    {"/KAVRO/Intelligent/FDLib/FaceDataRecord", SlowResource::kAnyMethod, std::chrono::seconds(30),
     SlowPart::TakesPicture},
    {"/KAVRO/Intelligent/FDLib/FDSetUp", SlowResource::kAnyMethod, std::chrono::seconds(30),
     SlowPart::TakesPicture},
    {"/KAVRO/System/Audio/channels", SlowResource::kAnyMethod, std::chrono::seconds(15),
     SlowPart::AsksDeviceFirst},
};

// An exchange that nobody has answered by then is answered 504: every device has had its time.
inline constexpr std::chrono::milliseconds kAnswerTimeout =
    std::ranges::max_element(kSlowResources, {}, &SlowResource::timeout)->timeout +
    std::chrono::seconds(10);
