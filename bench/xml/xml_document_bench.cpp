// Cost of the XML document itself: a device-information answer built and written, and read again.
#include <benchmark/benchmark.h>

#include <string>
#include <utility>

#include "platform/xml_base.h"

namespace {

constexpr std::pair<const char*, const char*> kChildren[] = {
    {"deviceName", "Entrance camera north"},
    {"deviceID", "0a1b2c3d-4e5f-6071-8293-a4b5c6d7e8f9"},
    {"deviceDescription", "IPCamera"},
    {"model", "VT-RQ4830"},
    {"serialNumber", "VT-RQ483020260131AAWR012345678"},
    {"macAddress", "02:00:5e:10:20:30"},
    {"firmwareVersion", "V5.6.3"},
    {"firmwareReleasedDate", "build 260131"},
    {"bootVersion", "V1.3.4"},
    {"deviceType", "IPCamera"},
    {"telecontrolID", "88"},
    {"supportBeep", "false"},
};

void Build(QNBase::CXmlBase& xml, std::string_view name) {
  xml.CreateDeclaration("1.0", "UTF-8");
  xml.CreateRoot("DeviceInfo");
  xml.SetAttribute("version", "2.0");
  for (const auto& [element, text] : kChildren) {
    xml.AddNode(element, text);
    xml.OutOfElem();
  }
  xml.AddNode("name", name);
  xml.OutOfElem();
}

std::string Written(std::string_view name) {
  QNBase::CXmlBase xml;
  Build(xml, name);
  return xml.GetChildren();
}

void BuildAndWriteText(benchmark::State& state) {
  std::size_t size = 0;
  for (auto _ : state) size = Written("plain").size();
  state.counters["bytes"] = static_cast<double>(size);
}
BENCHMARK(BuildAndWriteText);

void BuildAndWriteBuffer(benchmark::State& state) {
  char buffer[20480];
  for (auto _ : state) {
    QNBase::CXmlBase xml;
    Build(xml, "plain");
    int length = 0;
    benchmark::DoNotOptimize(xml.WriteToBuf(buffer, sizeof(buffer), length));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BuildAndWriteBuffer);

void BuildAndWriteNonAscii(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(Written("\xE5\x89\x8D\xE9\x97\xA8 \xFF"));
}
BENCHMARK(BuildAndWriteNonAscii);

void Parse(benchmark::State& state) {
  const std::string text = Written("plain");
  for (auto _ : state) {
    QNBase::CXmlBase xml;
    benchmark::DoNotOptimize(xml.Parse(text));
  }
}
BENCHMARK(Parse);

}  // namespace
