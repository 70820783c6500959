// The handlers of the route table, one file for each family of resources.
#pragma once

#include "subdevice/message.h"
#include "subdevice/routes.h"

namespace subdevice {

// The JSON object of a request body; null when the body is no JSON object.
Json::Value bodyObject(const Request& request);

// maintenance.cpp
Reply getDocument(Call& call);
Reply putDocument(Call& call);
Reply getStatusXml(Call& call);
Reply getSnapshot(Call& call);
Reply acceptAnything(Call& call);
Reply findAccessEvents(Call& call);

// streaming.cpp
Reply listStreams(Call& call);
Reply getStream(Call& call);
Reply putStream(Call& call);
Reply getStreamCapabilities(Call& call);

// ptz.cpp
Reply listPtzChannels(Call& call);
Reply movePtz(Call& call);
Reply getPtzStatus(Call& call);
Reply listPresets(Call& call);
Reply setPreset(Call& call);
Reply deletePreset(Call& call);
Reply gotoPreset(Call& call);
Reply gotoHome(Call& call);

// recordings.cpp
Reply searchRecordings(Call& call);

// io_ports.cpp
Reply triggerOutput(Call& call);
Reply getOutput(Call& call);

// face_library.cpp
Reply addFace(Call& call);
Reply setUpFace(Call& call);
Reply listFaces(Call& call);
Reply getFacePicture(Call& call);

}  // namespace subdevice
