// Face-library requests: which need a picture, what becomes of it, and how faults are answered.
#include <optional>
#include <tuple>

#include "passthrough/device_kavro_pto.h"
#include "platform/base_library.h"
#include "tests/unit/cases.h"
#include "tests/unit/golden.h"

namespace QNKAVROProtocol {
namespace {

constexpr const char* kRecordUrl = "/KAVRO/Intelligent/FDLib/FaceDataRecord?format=json";
constexpr const char* kSetUpUrl = "/KAVRO/Intelligent/FDLib/FDSetUp";
const std::string kPicture("\xFF\xD8\xFF\0{}\"picture", 15);
const std::string kRecord = R"({"FaceInfo":{"employeeNo":"1"}})" + kPicture;
const std::string kBoth = R"({"FaceInfo":{"employeeNo":"1"},"faceLibType":"blackFD","FDID":"1",)"
                          R"("name":"n","bornTime":"2000"})" +
                          kPicture;

class FacePicture : public PlatformTest {};

Outcome send(const std::string& url, const std::string& body, const std::string& mimeType = "") {
  auto record = fake::http().open({QNHttpService::HTTP_POST, url, body});
  record.hasMimePart = !mimeType.empty();
  record.mimeType = mimeType;
  Outcome outcome;
  outcome.take(record, QN_Protocol_HTTPProcess);
  EXPECT_EQ(outcome.asyncReply, 1);
  return outcome;
}

// The client's one answer is the error, or else, with code 0, the device's reply.
void expectAnswer(const Outcome& outcome, const std::string& url, unsigned int code) {
  const fake::Answer answer = outcome.answer();
  EXPECT_EQ(answer.count, code == 0 ? 0 : 1) << code;
  if (code != 0) {
    EXPECT_EQ(answer.status, getHttpStatusCodeByErrorNo(code));
    EXPECT_EQ(answer.headers.at("Content-Type"), "application/json");
    EXPECT_EQ(answer.body, CProtocolBase::getResponseByError(static_cast<int>(code), url));
  }
  EXPECT_EQ(fake::deviceBus().reply("{}"), 0);
  EXPECT_EQ(outcome.answer().count, 1) << code;
}

TEST_F(FacePicture, Uploads) {
  for (auto& [head, json, expected] : casesOf("face_uploads.txt")) {
    const auto [url, given] = std::pair(requestOf(head).url, requestOf(head).body);
    const bool hasPicture = json.ends_with('@');
    const std::string body = hasPicture ? json.substr(0, json.size() - 1) + kPicture : json;
    const bool changed = expected[0] == '{';
    const bool twice = expected.find("pictures/2") != expected.npos;
    const std::vector<std::string> types{"", "image/jpeg", "image/png", "image/bmp"};
    for (const std::string& type : given.empty() ? types : std::vector{given}) {
      SCOPED_TRACE(json + type);
      fake::reset();
      const Outcome outcome = send(url, body, type);
      ASSERT_EQ(fake::deviceBus().seen.size(), 1u);
      EXPECT_EQ(fake::deviceBus().seen[0].body,
                changed ? qn::json::writeJson(parsed(expected)) : body);
      EXPECT_EQ(fake::config().uploads,
                std::vector<std::string>(changed ? 1 + int(twice) : 0, kPicture));
      const bool isCode = expected.starts_with("0x");
      expectAnswer(outcome, url, isCode ? std::stoul(expected, nullptr, 16) : 0);
    }
  }
}

TEST_F(FacePicture, StoresFaults) {
  const std::tuple<int, std::vector<std::optional<int>>, unsigned int> cases[] = {
      {-1, {}, 0x30000014}, {0, {0}, 0x400011E9}, {0, {3610}, 0x40001275}};
  for (const auto& [addressResult, uploadFaults, code] : cases) {
    fake::reset();
    fake::config().addressResult = addressResult;
    fake::config().uploadFaults = uploadFaults;
    const Outcome outcome = send(kRecordUrl, kRecord);
    EXPECT_EQ(fake::deviceBus().seen.at(0).body, kRecord);
    expectAnswer(outcome, kRecordUrl, code);
  }
}

// Of two uploads one fails: the device gets what had been done by then.
TEST_F(FacePicture, OneOfTwoUploadsFails) {
  fake::config().uploadFaults = {std::nullopt, 3610};
  EXPECT_EQ(send(kRecordUrl, kBoth).answer().status, getHttpStatusCodeByErrorNo(0x40001275));
  const Json::Value forwarded = parsed(fake::deviceBus().seen.at(0).body);
  EXPECT_EQ(forwarded["FaceInfo"]["faceURL"].asString(), "http://pictures/1");
  EXPECT_FALSE(forwarded.isMember("faceURL"));
  fake::reset();
  fake::config().uploadFaults = {0};
  EXPECT_EQ(send(kRecordUrl, kBoth).answer().status, getHttpStatusCodeByErrorNo(0x400011E9));
  EXPECT_EQ(fake::config().uploads.size(), 1u);
}

TEST_F(FacePicture, NoConfigurationIsAnInternalError) {
  auto record = fake::http().open({QNHttpService::HTTP_POST, kSetUpUrl, "{\"FPID\":\"1\"}P"});
  fake::config().present = false;
  CDeviceKAVROPto handler;
  std::string body = record.body;
  int answered = 0;
  EXPECT_EQ(handler.procPssUrlReq(body, answered, record), 1);
  EXPECT_EQ(answered, 1);
  EXPECT_EQ(body, "{\"FPID\":\"1\"}P");
  EXPECT_EQ(fake::http().answer(record.exchange->getHttpHandle()).status,
            getHttpStatusCodeByErrorNo(0x30000014));
}

// The URL of the upload rides along with the request.
TEST_F(FacePicture, UrlIsTheRecordsExtraData) {
  send(kSetUpUrl, R"({"FPID":"1"})" + kPicture);
  const auto* data =
      static_cast<const tagDEVCFG_USERDATA*>(fake::deviceBus().pending.at(0).userData);
  EXPECT_STREQ(data->data, "http://pictures/1");
  EXPECT_EQ(data->dataLength, 17);
  // The next request has nothing of it.
  send(kSetUpUrl, R"({"FPID":"1","deleteFP":true})");
  data = static_cast<const tagDEVCFG_USERDATA*>(fake::deviceBus().pending.at(1).userData);
  EXPECT_STREQ(data->data, "");
  EXPECT_EQ(data->dataLength, 0);
}

// Whichever allocation fails, nobody is answered twice and nothing is lost or left over.
TEST_F(FacePicture, EveryFailedAllocation) {
  bool clean = false;
  const int count = forEachFailedAllocation([&](int n, const Failing& failing) {
    fake::reset();
    const auto record = fake::http().open({QNHttpService::HTTP_POST, kRecordUrl, kRecord});
    Outcome outcome;
    const bool returned = failing([&] { outcome.take(record, QN_Protocol_HTTPProcess); });
    const bool queued = !fake::deviceBus().pending.empty();
    EXPECT_TRUE(returned || !queued) << n;
    EXPECT_TRUE(!queued || outcome.asyncReply == 1) << n;
    clean = queued && outcome.answer().count == 0;
    if (queued) fake::deviceBus().reply("{}");
    EXPECT_LE(outcome.answer().count, 1) << n;
  });
  EXPECT_TRUE(clean);
  EXPECT_GT(count, 20);
}

}  // namespace
}  // namespace QNKAVROProtocol
