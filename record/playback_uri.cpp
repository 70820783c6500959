// CRecordOperation: the addresses of recordings.
#include <cstdint>

#include "platform/zrt.h"
#include "record/record_operation.h"

namespace QNKAVROProtocol {
namespace {

constexpr std::size_t kIdentifierLength = 36;

// 1 to 3, or 0 when the URI names none.
int streamOf(std::string_view uri) {
  if (uri.find("/MAIN/") != std::string_view::npos) return 1;
  if (uri.find("/SUB/") != std::string_view::npos) return 2;
  if (uri.find("/SUB1/") != std::string_view::npos) return 3;
  return 0;
}

// Appends the track and the query behind it; false when the URI lacks one of them.
bool appendTrackAndQuery(std::string& out, std::string_view uri, std::string_view channelDigits) {
  const int64_t channel = ZRT_Atoi32(std::string(channelDigits).c_str());
  const int stream = streamOf(uri);
  const std::size_t query = uri.find('?');
  if (stream == 0 || query == std::string_view::npos) return false;
  out.append(std::to_string(channel * 100 + stream)).append(uri.substr(query));
  return true;
}

}  // namespace

int CRecordOperation::getPlaybackURI(std::string& out, std::string_view deviceUri) {
  constexpr std::string_view kCamera = "camera/";
  const std::size_t dac = deviceUri.find("/dac");
  if (dac == std::string_view::npos) return 0;
  out.clear();
  const std::size_t camera = deviceUri.find("camera", dac);
  if (camera == std::string_view::npos) return 0;
  const std::size_t begin = camera + kCamera.size();
  const std::size_t end = deviceUri.find('/', begin);
  if (end == std::string_view::npos) return 0;
  if (end - begin <= kIdentifierLength) {
    out = deviceUri;
    return 1;
  }
  constexpr std::string_view kTracks = "/KAVRO/Streaming/tracks/";
  out.reserve(deviceUri.size() + kTracks.size());
  out.append(deviceUri.substr(0, dac)).append(kTracks);
  const std::string_view segment = deviceUri.substr(begin, end - begin);
  if (appendTrackAndQuery(out, deviceUri, segment.substr(kIdentifierLength))) return 1;
  out.clear();
  return 0;
}

}  // namespace QNKAVROProtocol
