// Cost of translating documents, each beside the bare cost of its libraries for the same bytes:
// reading the JSON and building and writing the XML, or reading the XML and writing the JSON.
#include <benchmark/benchmark.h>

#include <pugixml.hpp>
#include <string>
#include <vector>

#include "channel/streaming_channel.h"
#include "json/reader.h"
#include "json/text.h"
#include "record/record_operation.h"
#include "tests/unit/documents.h"
#include "tests/unit/fake/fake_platform.h"

namespace QNKAVROProtocol {
namespace {

// The golden document's first list entry, or the document itself, `count` times in a list.
std::string repeated(const Json::Value& entry, int count) {
  std::string text;
  for (int i = 0; i < count; ++i) {
    text += i == 0 ? '[' : ',';
    text += qn::json::writeJson(entry);
  }
  return text + "]";
}

Json::Value parsed(const std::string& text) {
  Json::Value value;
  if (!qn::json::parseJson(text, value)) std::abort();
  return value;
}

std::string channelListJson() {
  return R"({"StreamingChannelList":)" + repeated(parsed(golden("streaming_channel.json")), 64) +
         "}";
}

std::string searchReplyJson() {
  Json::Value reply = parsed(golden("search_result.json"));
  Json::Value& matches = reply["CMSearchResult"]["matchList"];
  matches = parsed(repeated(matches[0], 100));
  return qn::json::writeJson(reply);
}

// What a tree is built of, so that the bare build looks nothing up.
struct Step {
  const char* name;  // null: leave the element
  const char* text;  // null: none
};
void plan(pugi::xml_node element, std::vector<Step>& steps) {
  const bool leaf = element.first_child().type() == pugi::node_pcdata;
  steps.push_back({element.name(), leaf ? element.first_child().value() : nullptr});
  for (pugi::xml_node child : element.children()) {
    if (child.type() == pugi::node_element) plan(child, steps);
  }
  steps.push_back({nullptr, nullptr});
}

class StringWriter final : public pugi::xml_writer {
 public:
  void write(const void* data, std::size_t size) override {
    text.append(static_cast<const char*>(data), size);
  }
  std::string text;
};

std::string buildAndWrite(const std::vector<Step>& steps) {
  pugi::xml_document tree;
  pugi::xml_node at = tree;
  for (const Step& step : steps) {
    if (step.name == nullptr) {
      at = at.parent();
      continue;
    }
    at = at.append_child(step.name);
    if (step.text != nullptr) at.append_child(pugi::node_pcdata).set_value(step.text);
  }
  StringWriter writer;
  tree.print(writer, "", pugi::format_raw | pugi::format_no_declaration, pugi::encoding_utf8);
  return std::move(writer.text);
}

void count(benchmark::State& state, std::size_t in, std::size_t out) {
  state.counters["in"] = static_cast<double>(in);
  state.counters["out"] = static_cast<double>(out);
}

// Reading `json` and writing `xml` with the libraries alone.
void bareReply(benchmark::State& state, const std::string& json, const std::string& xml) {
  pugi::xml_document source;
  if (!source.load_string(xml.c_str(), pugi::parse_default & ~pugi::parse_escapes)) std::abort();
  std::vector<Step> steps;
  plan(source.document_element(), steps);
  std::size_t size = 0;
  for (auto _ : state) {
    Json::Value reply;
    qn::json::parseJson(json, reply);
    size = buildAndWrite(steps).size();
  }
  count(state, json.size(), size);
}

std::string translatedList(const std::string& json) {
  const qn::json::Reading reply(json);
  std::string xml;
  if (getXmlStreamingChannelList(xml, reply.root()) != 0) std::abort();
  return xml;
}

void channelListReply(benchmark::State& state) {
  const std::string json = channelListJson();
  std::size_t size = 0;
  for (auto _ : state) size = translatedList(json).size();
  count(state, json.size(), size);
}
BENCHMARK(channelListReply);

void channelListReplyBare(benchmark::State& state) {
  const std::string json = channelListJson();
  bareReply(state, json, translatedList(json));
}
BENCHMARK(channelListReplyBare);

std::string translatedSearch(const std::string& json) {
  const QNHttpService::stHttpRes record =
      fake::http().open({QNHttpService::HTTP_POST, "/KAVRO/ContentMgmt/search"});
  const qn::json::Reading reply(json);
  std::string xml;
  CRecordOperation::covertSearchRsp(
      xml, {reply.root(), record.exchange->getUrl(), QNHttpService::HTTP_POST, *record.exchange});
  return xml;
}

void searchReply(benchmark::State& state) {
  const std::string json = searchReplyJson();
  std::size_t size = 0;
  for (auto _ : state) size = translatedSearch(json).size();
  count(state, json.size(), size);
}
BENCHMARK(searchReply);

void searchReplyBare(benchmark::State& state) {
  const std::string json = searchReplyJson();
  bareReply(state, json, translatedSearch(json));
}
BENCHMARK(searchReplyBare);

void channelRequest(benchmark::State& state) {
  const std::string xml = golden("streaming_channel_put.xml");
  std::string json;
  for (auto _ : state) {
    if (getJsonStreamingChannel(json, xml) != 0) std::abort();
  }
  count(state, xml.size(), json.size());
}
BENCHMARK(channelRequest);

// Reading the XML, building the same JSON values and writing them with the libraries alone.
void channelRequestBare(benchmark::State& state) {
  const std::string xml = golden("streaming_channel_put.xml");
  std::string json;
  if (getJsonStreamingChannel(json, xml) != 0) std::abort();
  const Json::Value value = parsed(json);
  for (auto _ : state) {
    pugi::xml_document tree;
    benchmark::DoNotOptimize(tree.load_buffer(xml.data(), xml.size()));
    const Json::Value copy = value;
    json = qn::json::writeJson(copy);
  }
  count(state, xml.size(), json.size());
}
BENCHMARK(channelRequestBare);

}  // namespace
}  // namespace QNKAVROProtocol

int main(int argc, char** argv) {
  fake::beQuiet();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
