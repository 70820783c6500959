// Face-library requests: which need a picture, what becomes of it, and how faults are answered.
#include <optional>

#include "json/text.h"
#include "passthrough/device_kavro_pto.h"
#include "platform/base_library.h"
#include "tests/unit/conversation.h"

namespace QNKAVROProtocol {
namespace {

constexpr const char* kRecordUrl = "/KAVRO/Intelligent/FDLib/FaceDataRecord?format=json";
constexpr const char* kSetUpUrl = "/KAVRO/Intelligent/FDLib/FDSetUp";
const std::string kPicture("\xFF\xD8\xFF\0{}\"picture", 15);
const std::string kFlat = R"("faceLibType":"blackFD","FDID":"1","name":"n","bornTime":"2000")";

class FacePicture : public PlatformTest {};

struct Upload {
  const char* url = kRecordUrl;
  std::string body;
  std::optional<std::string> mimeType = std::nullopt;
};

Outcome send(const Upload& upload) {
  auto record = fake::http().open({QNHttpService::HTTP_POST, upload.url, upload.body});
  record.hasMimePart = upload.mimeType.has_value();
  record.mimeType = upload.mimeType.value_or("");
  Outcome outcome;
  outcome.handle = record.exchange->getHttpHandle();
  outcome.status =
      QN_Protocol_HTTPProcess(outcome.bodyIsXml, outcome.body, outcome.asyncReply, record);
  return outcome;
}

// Forwarded without a fault; the reply is then the client's one answer.
void expectForwarded(const Upload& upload, const std::string& body) {
  const Outcome outcome = send(upload);
  EXPECT_EQ(outcome.answer().count, 0) << upload.body;
  ASSERT_EQ(fake::deviceBus().seen.size(), 1u) << upload.body;
  EXPECT_EQ(fake::deviceBus().seen[0].body, body);
  EXPECT_EQ(fake::deviceBus().reply("{}"), 0);
  EXPECT_EQ(outcome.answer().count, 1) << upload.body;
}

TEST_F(FacePicture, NeedsNoPicture) {
  const Upload cases[] = {
      {kRecordUrl, R"({"FaceInfo":{"employeeNo":"1","faceURL":"u"}} )"},
      {kRecordUrl, R"({"FaceInfo":{"employeeNo":"1","faceURL":7}})"},
      {kRecordUrl, R"({"FaceInfo":{"employeeNo":"1","faceURL":"u"},)" + kFlat + "}" + kPicture},
      {kRecordUrl, "{" + kFlat + R"(,"faceURL":null})"},
      {kSetUpUrl, R"({"FPID":"1","faceURL":"u"})"},
      {kSetUpUrl, R"({"FPID":"1","deleteFP":true})"},
      {"/KAVRO/Intelligent/FDLib/FDSetUp/", "no json"},
      {"/KAVRO/Intelligent/FDLib", R"({"FPID":"1"})" + kPicture},
  };
  for (const Upload& upload : cases) {
    fake::reset();
    expectForwarded(upload, upload.body);
    EXPECT_TRUE(fake::config().uploads.empty()) << upload.body;
  }
}

TEST_F(FacePicture, IsStoredAndItsUrlGoesToTheDevice) {
  const struct {
    const char* url;
    std::string json;
    std::string forwarded;
    std::size_t uploads = 1;
  } cases[] = {
      {kRecordUrl, R"({"FaceInfo":{"employeeNo":"1"},"x":[1]})",
       R"({"FaceInfo":{"employeeNo":"1","faceURL":"http://pictures/1"},"x":[1]})"},
      {kRecordUrl, "{" + kFlat + "}", "{" + kFlat + R"(,"faceURL":"http://pictures/1"})"},
      {kRecordUrl, R"({"FaceInfo":[],)" + kFlat + "}",
       R"({"FaceInfo":[],)" + kFlat + R"(,"faceURL":"http://pictures/1"})"},
      {kRecordUrl, R"({"FaceInfo":{"employeeNo":"1"},)" + kFlat + "}",
       R"({"FaceInfo":{"employeeNo":"1","faceURL":"http://pictures/1"},)" + kFlat +
           R"(,"faceURL":"http://pictures/2"})",
       2},
      {kRecordUrl, R"({"FaceInfo":{"employeeNo":"1"},"faceURL":"u",)" + kFlat + "}",
       R"({"FaceInfo":{"employeeNo":"1","faceURL":"http://pictures/1"},"faceURL":"u",)" + kFlat +
           "}"},
      {kSetUpUrl, "/* \" */{\"FPID\":\"}\",\"deleteFP\":false}",
       R"({"FPID":"}","deleteFP":false,"faceURL":"http://pictures/1"})"},
      {kSetUpUrl, R"({"FPID":"1","deleteFP":"true"})",
       R"({"FPID":"1","deleteFP":"true","faceURL":"http://pictures/1"})"},
  };
  for (const auto& [url, json, forwarded, uploads] : cases) {
    for (const char* type : {"", "image/jpeg", "image/png", "image/bmp"}) {
      fake::reset();
      Json::Value expected;
      ASSERT_TRUE(qn::json::parseJson(forwarded, expected));
      const bool marked = *type != '\0';
      expectForwarded(
          {url, json + kPicture, marked ? std::optional<std::string>(type) : std::nullopt},
          qn::json::writeJson(expected));
      EXPECT_EQ(fake::config().uploads, std::vector<std::string>(uploads, kPicture)) << json;
    }
  }
}

TEST_F(FacePicture, FaultIsAnsweredOnceAndTheRequestForwardedAllTheSame) {
  const std::string record = R"({"FaceInfo":{"employeeNo":"1"}})";
  const auto nothing = [] {};
  const struct {
    Upload upload;
    unsigned int code;
    void (*prepare)();
  } cases[] = {
      {{kRecordUrl, "no json"}, 0x50000002, nothing},
      {{kRecordUrl, "null"}, 0x50000002, nothing},
      {{kRecordUrl, "[]"}, 0x50000002, nothing},
      {{kRecordUrl, "7"}, 0x50000002, nothing},
      {{kRecordUrl, "{}"}, 0x50000002, nothing},
      {{kRecordUrl, R"({"FaceInfo":{}})" + kPicture}, 0x50000002, nothing},
      {{kRecordUrl, R"({"FaceInfo":{"employeeNo":1,"faceURL":"u"}})"}, 0x50000002, nothing},
      {{kRecordUrl, R"({"FaceInfo":{},)" + kFlat + "}" + kPicture}, 0x50000002, nothing},
      {{kRecordUrl, R"({"FDID":"1","name":"n","bornTime":"2000"})"}, 0x50000002, nothing},
      {{kRecordUrl, R"({"faceLibType":1,"FDID":"1","name":"n","bornTime":"2000"})"},
       0x50000002,
       nothing},
      {{kSetUpUrl, "[]"}, 0x50000002, nothing},
      {{kSetUpUrl, "{}"}, 0x50000002, nothing},
      {{kSetUpUrl, R"({"FPID":1})"}, 0x50000002, nothing},
      {{kSetUpUrl, R"({"FPID":"1","faceURL":7})"}, 0x50000002, nothing},
      {{kRecordUrl, record + kPicture, "image/gif"}, 0x30002028, nothing},
      {{kRecordUrl, record + kPicture, "IMAGE/JPEG"}, 0x30002028, nothing},
      {{kRecordUrl, record, "image/gif"}, 0x30002028, nothing},
      {{kRecordUrl, record}, 0x60000001, nothing},
      {{kRecordUrl, record + "undefined", "image/png"}, 0x60000001, nothing},
      {{kRecordUrl, record + kPicture}, 0x30000014, [] { fake::config().addressResult = -1; }},
      {{kRecordUrl, record + kPicture}, 0x400011E9, [] { fake::config().uploadFaults = {0}; }},
      {{kRecordUrl, record + kPicture}, 0x40001275, [] { fake::config().uploadFaults = {3610}; }},
  };
  for (const auto& [upload, code, prepare] : cases) {
    fake::reset();
    prepare();
    const Outcome outcome = send(upload);
    const fake::Answer answer = outcome.answer();
    EXPECT_EQ(answer.count, 1) << upload.body;
    EXPECT_EQ(answer.status, getHttpStatusCodeByErrorNo(code)) << upload.body;
    EXPECT_EQ(answer.headers.at("Content-Type"), "application/json");
    EXPECT_EQ(answer.body, CProtocolBase::getResponseByError(static_cast<int>(code), upload.url));
    EXPECT_EQ(outcome.asyncReply, 1);
    ASSERT_EQ(fake::deviceBus().seen.size(), 1u) << upload.body;
    EXPECT_EQ(fake::deviceBus().seen[0].body, upload.body);
    EXPECT_EQ(fake::deviceBus().reply("{}"), 0);
    EXPECT_EQ(outcome.answer().count, 1) << upload.body;
  }
}

// Of two uploads one fails: the device gets what had been done by then.
TEST_F(FacePicture, OneOfTwoUploadsFails) {
  const std::string both = R"({"FaceInfo":{"employeeNo":"1"},)" + kFlat + "}" + kPicture;
  fake::config().uploadFaults = {std::nullopt, 3610};
  EXPECT_EQ(send({kRecordUrl, both}).answer().status, getHttpStatusCodeByErrorNo(0x40001275));
  Json::Value forwarded;
  ASSERT_TRUE(qn::json::parseJson(fake::deviceBus().seen.at(0).body, forwarded));
  EXPECT_EQ(forwarded["FaceInfo"]["faceURL"].asString(), "http://pictures/1");
  EXPECT_FALSE(forwarded.isMember("faceURL"));
  fake::reset();
  fake::config().uploadFaults = {0};
  EXPECT_EQ(send({kRecordUrl, both}).answer().status, getHttpStatusCodeByErrorNo(0x400011E9));
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
  send({kSetUpUrl, R"({"FPID":"1"})" + kPicture});
  const auto* data =
      static_cast<const tagDEVCFG_USERDATA*>(fake::deviceBus().pending.at(0).userData);
  EXPECT_STREQ(data->data, "http://pictures/1");
  EXPECT_EQ(data->dataLength, 17);
  // The next request has nothing of it.
  send({kSetUpUrl, R"({"FPID":"1","deleteFP":true})"});
  data = static_cast<const tagDEVCFG_USERDATA*>(fake::deviceBus().pending.at(1).userData);
  EXPECT_STREQ(data->data, "");
  EXPECT_EQ(data->dataLength, 0);
}

// Whichever allocation fails, nobody is answered twice and nothing is lost or left over.
TEST_F(FacePicture, EveryFailedAllocation) {
  bool clean = false;
  const int count = forEachFailedAllocation([&](int n, const Failing& failing) {
    fake::reset();
    auto record = fake::http().open(
        {QNHttpService::HTTP_POST, kRecordUrl, R"({"FaceInfo":{"employeeNo":"1"}})" + kPicture});
    Outcome outcome;
    outcome.handle = record.exchange->getHttpHandle();
    const bool returned = failing([&] {
      outcome.status =
          QN_Protocol_HTTPProcess(outcome.bodyIsXml, outcome.body, outcome.asyncReply, record);
    });
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
