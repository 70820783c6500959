// One match of a recording search as a record.
#pragma once

namespace QNKAVROProtocol {

// Texts are NUL-terminated and cut to their fields.
struct SearchMatchItem {
  int trackID = 0;
  char startTime[129] = {};
  char endTime[129] = {};
  char contentType[256] = {};
  char codecType[256] = {};
  char playbackURI[2049] = {};
};

}  // namespace QNKAVROProtocol
