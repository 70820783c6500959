// What every claimed request goes through: claim, activation, login, operation log.
#include <tuple>

#include "platform/base_library.h"
#include "platform/wlog.h"
#include "protocol/error_code.h"
#include "protocol/protocol_base.h"
#include "tests/unit/cases.h"
#include "tests/unit/golden.h"

namespace QNKAVROProtocol {
namespace {

constexpr const char* kUrl = "/KAVRO/System/deviceInfo";

const std::string kUnauthorized =
    R"(<?xml version="1.0" encoding="UTF-8"?><ResponseStatus><requestURL>/KAVRO/System/deviceInfo)"
    "</requestURL><statusCode>401</statusCode><statusString>Unauthorized</statusString>"
    "<subStatusCode>badAuthorization</subStatusCode>";

class Frame : public PlatformTest {};

TEST_F(Frame, UnclaimedUrlIs404WithTheJsonDocumentAndNoOtherEffect) {
  for (const char* url : {"/index.html", "", "/KAVRO-not/System/deviceInfo"}) {
    const Outcome outcome = process({QNHttpService::HTTP_PUT, url});
    EXPECT_EQ(std::tuple(outcome.status, outcome.bodyIsXml, outcome.asyncReply),
              std::tuple(404, 0, 0));
    const Json::Value document = parsed(outcome.body);
    EXPECT_EQ(document["statusCode"].asInt(), 4);
    EXPECT_EQ(document["errorCode"].asInt(), 0x40000006);
  }
  Outcome none;
  EXPECT_EQ(QN_Protocol_HTTPProcess(none.bodyIsXml, none.body, none.asyncReply, {}), 404);
  EXPECT_EQ(fake::login().checks, 0);
  EXPECT_TRUE(fake::operationLog().empty());
  EXPECT_TRUE(fake::logLines().empty());
}

TEST_F(Frame, NobodyIsServedBeforeActivationOrWithoutAConfiguration) {
  for (const bool present : {true, false}) {
    fake::config().activated = false;
    fake::config().present = present;
    const Outcome outcome = get(kUrl);
    EXPECT_EQ(outcome.status, getHttpStatusCodeByErrorNo(ERROR_NOT_ACTIVATED));
    EXPECT_EQ(outcome.body, CProtocolBase::getResponseByError(ERROR_NOT_ACTIVATED, kUrl));
    EXPECT_EQ(outcome.bodyIsXml, 1);
  }
  EXPECT_EQ(fake::login().checks, 0);
}

TEST_F(Frame, RefusedAndMissingLoginsGetAChallengeAndARefusedOneTheLock) {
  const auto lock = [](int unlockTime) {
    return "<lockStatus>locked</lockStatus><unlockTime>" + std::to_string(unlockTime) +
           "</unlockTime><retryLoginTime>0</retryLoginTime>";
  };
  const std::string open = "<lockStatus>unlocked</lockStatus><retryLoginTime>3</retryLoginTime>";
  const std::string fresh =
      R"(Digest qop="auth", realm="KAVRO", nonce="fresh-nonce", stale="FALSE")";
  const struct {
    int verdict;
    int retries;
    int unlockTime;
    const char* challenge;  // of the bus
    std::string sent;
    std::string lockInfo;
  } cases[] = {
      {DIGEST_REFUSED, 3, 0, "bus", "bus", open},
      {DIGEST_REFUSED, 3, 77, "bus", "bus", open},
      {DIGEST_REFUSED, 0, 0, "bus", "bus", lock(1800)},
      {DIGEST_REFUSED, 0, -5, "bus", "bus", lock(1800)},
      {DIGEST_REFUSED, 0, 12, "bus", "bus", lock(12)},
      {DIGEST_REFUSED, 3, 0, "", "", open},
      {DIGEST_NO_CREDENTIALS, 4, 0, "", fresh, ""},
      {DIGEST_NO_CREDENTIALS, 4, 0, "Digest stale", "Digest stale", ""},
  };
  for (const auto& [verdict, retries, unlockTime, challenge, sent, lockInfo] : cases) {
    fake::login().verdict = verdict;
    fake::login().setChallenge(challenge);
    fake::login().result.retryLoginTime = retries;
    fake::login().result.unlockTime = unlockTime;
    const Outcome outcome = get(kUrl);
    EXPECT_EQ(outcome.status, 401);
    EXPECT_EQ(outcome.body, kUnauthorized + lockInfo + "</ResponseStatus>");
    EXPECT_EQ(outcome.answer().headers.at("WWW-Authenticate"), sent);
  }
  EXPECT_TRUE(fake::deviceBus().seen.empty());
  EXPECT_TRUE(fake::operationLog().empty());
}

TEST_F(Frame, ChallengeIsCutAt255Characters) {
  fake::config().realm = std::string(400, 'r');
  EXPECT_EQ(CProtocolBase::buildUnauthorHead(0).size(), 255u);
  fake::config().realm = "R";
  EXPECT_EQ(CProtocolBase::buildUnauthorHead(1),
            R"(Digest qop="auth", realm="R", nonce="fresh-nonce", stale="TRUE")");
}

TEST_F(Frame, OtherVerdictsAnswerTheirCodeInTheUrlsOwnFormat) {
  const std::pair<int, unsigned int> cases[] = {
      {DIGEST_NOT_ALLOWED, 0x40000009}, {-1, 0x30000014}, {2, 0x40001007}};
  for (const auto& [verdict, code] : cases) {
    fake::login().verdict = verdict;
    const Outcome xml = get(kUrl);
    EXPECT_EQ(xml.status, getHttpStatusCodeByErrorNo(code));
    EXPECT_EQ(xml.bodyIsXml, 1);
    EXPECT_EQ(xml.body, CProtocolBase::getResponseByError(static_cast<int>(code), kUrl));

    const Outcome json = get(std::string(kUrl) + "?format=json");
    EXPECT_EQ(json.status, getHttpStatusCodeByErrorNo(code));
    EXPECT_EQ(json.bodyIsXml, 0);
    EXPECT_EQ(parsed(json.body)["errorCode"].asUInt(), code);
    EXPECT_FALSE(xml.answer().headers.contains("WWW-Authenticate"));
  }
}

TEST_F(Frame, HostPortChoosesTheModeOfTheLogin) {
  const struct {
    const char* host;
    int configured;
    int mode;
    int port;
  } cases[] = {
      {"10.0.0.1:8080", 8080, DIGEST_MODE_OWN_DEVICE, 0},
      {"10.0.0.1:9001", 8080, DIGEST_MODE_BY_PORT, 9001},
      {"10.0.0.1", 80, DIGEST_MODE_BY_PORT, 0},  // no port never equals a configured one
      {"10.0.0.1", 0, DIGEST_MODE_OWN_DEVICE, 0},
      {"", 8080, DIGEST_MODE_BY_PORT, 0},
      {"[::1]:8080", 8080, DIGEST_MODE_BY_PORT, 0},  // the first colon counts
      {"h:8080x", 8080, DIGEST_MODE_OWN_DEVICE, 0},
      {"h:99999999999", 8080, DIGEST_MODE_BY_PORT, 0xFFFF},
  };
  for (const auto& [host, configured, mode, port] : cases) {
    fake::config().httpPort = configured;
    process({0, kUrl, "", {{"Host", host}}});
    EXPECT_EQ(fake::login().mode, mode) << host;
    EXPECT_EQ(fake::login().request.port, port) << host;
  }
}

TEST_F(Frame, LoginSeesMethodAuthorizationAndClientCutToTheirFields) {
  const std::string authorization(6000, 'a');
  const std::string address = "2001:db8::1:2:3:4";  // 17 characters
  process({QNHttpService::HTTP_GET,
           kUrl,
           "",
           {{"Authorization", authorization}, {"X-Forwarded-For", address + "56"}}});
  EXPECT_EQ(fake::login().method, "GET");
  EXPECT_EQ(fake::login().request.authorization, authorization.substr(0, 5121));
  EXPECT_EQ(fake::login().request.clientIp, address);
}

TEST_F(Frame, ClientAddressIsTheFirstOfXForwardedFor) {
  const std::string longText(60, '1');
  const std::pair<fake::Headers, std::string> cases[] = {
      {{}, ""},
      {{{"X-Forwarded-For", "1.2.3.4"}}, "1.2.3.4"},
      {{{"x-forwarded-for", "1.2.3.4, 5.6.7.8"}}, "1.2.3.4"},
      {{{"X-Forwarded-For", ",5.6.7.8"}}, ""},
      {{{"X-Forwarded-For", longText}}, longText.substr(0, 48)},
      {{{"X-Forwarded-For", longText + ",2"}}, longText},
  };
  for (const auto& [headers, address] : cases) {
    const auto record = fake::http().open({0, kUrl, "", headers});
    EXPECT_EQ(CProtocolBase::getClientIP(record.exchange), address);
  }
}

TEST_F(Frame, InitialVectorIsWhatFollowsItsNameUpToTheEnd) {
  const std::string iv = "0123456789abcdef0123456789abcdef";
  for (const auto& [text, found, vector] : {std::tuple("a=1&security=2", 0, std::string("-")),
                                            {"x&iv=short", 1, "short"},
                                            {"iv=0123456789abcdef0123456789abcdefXYZ", 1, iv},
                                            {"iv=", 1, ""}}) {
    char out[33] = "-";
    EXPECT_EQ(CProtocolBase::getEncryptIV(text, out), found) << text;
    EXPECT_EQ(out, vector) << text;
  }
}

TEST_F(Frame, UnknownDeviceIsNotedAndTheHandlerAnswersAllTheSame) {
  fake::login().setDevIndex("gone");
  const Outcome outcome = get(kUrl);
  EXPECT_TRUE(
      fake::loggedIn("proc", WLOG_ERROR, "[szDevIndx=gone]User Bound Device is not exist."));
  EXPECT_EQ(outcome.status, 200);
  EXPECT_EQ(outcome.asyncReply, 1);
  EXPECT_EQ(fake::deviceBus().seen.at(0).url, std::string(kUrl) + "?format=json&devIndex=gone");
}

// A handler for what the pipeline's own handlers never do.
class Probe final : public CProtocolBase {
 public:
  int status = 200;

  int checkUrlAndMethod(const std::string& /*url*/, unsigned int /*method*/) override { return 0; }
  int procProtocol(int& /*bodyIsXml*/, std::string& body, int& /*asyncReply*/,
                   const stHttpRes& /*request*/, const std::string& devIndex) override {
    body = "of " + devIndex;
    return status;
  }
};

Outcome probe(int handlerStatus, unsigned int method, const char* url) {
  Probe handler;
  handler.status = handlerStatus;
  Outcome outcome;
  outcome.take(fake::http().open({method, url, "", {{"X-Forwarded-For", "9.9.9.9"}}}),
               [&](auto&... all) { return handler.proc(all...); });
  return outcome;
}

TEST_F(Frame, HandlersFailureIsAnInternalError) {
  const Outcome good = probe(207, 0, kUrl);
  EXPECT_EQ(good.status, 207);
  EXPECT_EQ(good.body, "of 1");
  const Outcome failed = probe(-1, 0, kUrl);
  EXPECT_EQ(failed.status, getHttpStatusCodeByErrorNo(ERROR_INTERNAL));
  EXPECT_EQ(failed.body, CProtocolBase::getResponseByError(ERROR_INTERNAL, kUrl));
}

TEST_F(Frame, OperationsThatAreRecorded) {
  std::vector<Case> cases = casesOf("operations.txt");
  const std::string longPut = "PUT /KAVRO/" + std::string(293, 'u');
  cases.push_back({"", longPut, longPut.substr(0, 256)});
  cases.push_back({"", "PUT", ""});
  for (const auto& [head, given, operation] : cases) {
    const auto [method, url, body, headers] = requestOf(given);
    fake::operationLog().clear();
    probe(200, method, url.c_str());
    ASSERT_EQ(fake::operationLog().size(), operation.empty() ? 0u : 1u) << method << url;
    if (operation.empty()) continue;
    const tagLogInfo& info = fake::operationLog()[0];
    EXPECT_EQ(info.operation, operation);
    EXPECT_EQ(info.time, fake::runtime().nowUs / 1000000);
    EXPECT_EQ(info.isoTime.size(), getISO8601Time().size());
    EXPECT_EQ(std::tie(info.user, info.clientIp, info.category),
              std::tuple("admin", "9.9.9.9", "Device"));
    EXPECT_EQ(info.result, "Fail") << "the login's 0, not the handler's 200";
  }
  std::string type = "before";
  EXPECT_EQ(CProtocolBase::getOperationType(type, "/KAVRO/a", 0), 0);
  EXPECT_EQ(type, "");
}

TEST_F(Frame, LockRecords) {
  // No operation: none is recorded.
  const std::tuple<int, int, const char*> cases[] = {{0, 0, ""},
                                                     {1, 0, "Operation/clientIpLock"},
                                                     {1, 1, "Operation/clientIpLock"},
                                                     {0, 1, "Operation/clientIpUnlock"}};
  for (const auto& [locked, unlocked, operation] : cases) {
    fake::operationLog().clear();
    Probe().savelockLog("eve", fake::http().open({0, kUrl}).exchange, locked, unlocked);
    ASSERT_EQ(fake::operationLog().size(), *operation == '\0' ? 0u : 1u);
    if (*operation == '\0') continue;
    const tagLogInfo& info = fake::operationLog()[0];
    EXPECT_EQ(std::tie(info.operation, info.user, info.clientIp, info.category, info.result),
              std::tuple(operation, "eve", "192.0.2.7", "Service", "Success"));
  }
}

}  // namespace
}  // namespace QNKAVROProtocol
