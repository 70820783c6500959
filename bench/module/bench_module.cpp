// The module alone: what a request costs beside HTTP, login and network.
#include <benchmark/benchmark.h>

#include <string>

#include "include/QNKAVROProtocol.h"
#include "json/text.h"
#include "protocol/protocol_base.h"
#include "tests/unit/fake/fake_platform.h"

namespace {

constexpr const char* kDeviceInfoUrl = "/KAVRO/System/deviceInfo";

// 600 bytes, as cameras send it.
std::string deviceInfoReply() {
  return R"({
	"DeviceInfo": {
		"deviceName": "North gate camera",
		"deviceID": "3f2a8c50-5a1e-4a5c-9b1d-0a1b2c3d4e5f",
		"deviceDescription": "IPCamera",
		"deviceLocation": "Building 4, north entrance",
		"systemContact": "control room",
		"model": "VT-RQ4830",
		"serialNumber": "VT-RQ483020260131AAWR12345678",
		"macAddress": "44:19:b6:12:34:56",
		"firmwareVersion": "V5.6.11",
		"firmwareReleasedDate": "build 260119",
		"bootVersion": "V1.3.4",
		"bootReleasedDate": "100316",
		"hardwareVersion": "0x0",
		"deviceType": "IPCamera",
		"telecontrolID": 88,
		"supportBeep": false,
		"supportVideoLoss": false
	}
}
)";
}

int process(const QNHttpService::stHttpRes& request, std::string& body) {
  int bodyIsXml = 0;
  int asyncReply = 0;
  return QN_Protocol_HTTPProcess(bodyIsXml, body, asyncReply, request);
}

// A request as a browser's, with credentials of the usual length.
QNHttpService::stHttpRes open(const char* url) {
  fake::beQuiet();
  return fake::http().open(
      {QNHttpService::HTTP_GET,
       url,
       "",
       {{"Host", "gateway:8080"},
        {"X-Forwarded-For", "192.0.2.7"},
        {"Authorization",
         "Digest username=\"admin\", realm=\"KAVRO\", nonce=\"0123456789abcdef0123456789abcdef\", "
         "uri=\"/KAVRO/System/deviceInfo\", response=\"0123456789abcdef0123456789abcdef\", "
         "qop=auth, nc=00000001, cnonce=\"0123456789abcdef\""}}});
}

fake::BusRequest takePending() {
  fake::BusRequest pending = std::move(fake::deviceBus().pending.at(0));
  fake::deviceBus().pending.clear();
  return pending;
}

void chainMiss(benchmark::State& state) {
  const auto request = open("/nothing/that/any/handler/serves");
  std::string body;
  for (auto _ : state) {
    process(request, body);
    benchmark::DoNotOptimize(body.data());
  }
}

void deviceInfoRequest(benchmark::State& state) {
  const auto request = open(kDeviceInfoUrl);
  std::string body;
  for (auto _ : state) {
    process(request, body);
    delete static_cast<tagDEVCFG_USERDATA*>(takePending().userData);
  }
}

// From the reply to the answer; the record that the callback frees is made for each.
void deviceInfoReplyToAnswer(benchmark::State& state) {
  const auto request = open(kDeviceInfoUrl);
  std::string body;
  process(request, body);
  const fake::BusRequest pending = takePending();
  const auto* first = static_cast<tagDEVCFG_USERDATA*>(pending.userData);
  std::string reply = deviceInfoReply();
  for (auto _ : state) {
    auto* record = new tagDEVCFG_USERDATA;
    record->httpHandle = first->httpHandle;
    record->owner = first->owner;
    pending.callback(reply.data(), static_cast<int>(reply.size()), record);
  }
  delete first;
  state.counters["reply_bytes"] = static_cast<double>(reply.size());
  state.counters["answer_bytes"] =
      static_cast<double>(fake::http().answer(request.exchange->getHttpHandle()).body.size());
}

void jsonParsing(benchmark::State& state) {
  const std::string reply = deviceInfoReply();
  for (auto _ : state) {
    Json::Value value;
    benchmark::DoNotOptimize(qn::json::parseJson(reply, value));
  }
}

void xmlWriting(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(QNKAVROProtocol::CProtocolBase::getResponseByError(1, kDeviceInfoUrl));
  }
}

BENCHMARK(chainMiss);
BENCHMARK(deviceInfoRequest);
BENCHMARK(deviceInfoReplyToAnswer);
BENCHMARK(jsonParsing);
BENCHMARK(xmlWriting);

}  // namespace

BENCHMARK_MAIN();
