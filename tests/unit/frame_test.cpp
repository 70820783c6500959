// What every claimed request goes through: claim, activation, login, operation log.
#include <json/json.h>

#include "json/text.h"
#include "platform/base_library.h"
#include "platform/wlog.h"
#include "protocol/error_code.h"
#include "protocol/protocol_base.h"
#include "tests/unit/conversation.h"

namespace QNKAVROProtocol {
namespace {

constexpr const char* kUrl = "/KAVRO/System/deviceInfo";

std::string statusDocument(const std::string& attributes, const std::string& children) {
  return R"(<?xml version="1.0" encoding="UTF-8"?><ResponseStatus)" + attributes + "><requestURL>" +
         kUrl + "</requestURL>" + children + "</ResponseStatus>";
}

constexpr const char* kUnauthorized =
    "<statusCode>401</statusCode><statusString>Unauthorized</statusString>"
    "<subStatusCode>badAuthorization</subStatusCode>";

class Frame : public PlatformTest {};

TEST_F(Frame, UnclaimedUrlIs404WithTheJsonDocumentAndNoOtherEffect) {
  const struct {
    unsigned int method;
    const char* url;
  } cases[] = {{0, "/index.html"}, {0, ""}, {1, "/KAVRO-not/System/deviceInfo"}};
  for (const auto& [method, url] : cases) {
    const Outcome outcome = process({method, url});
    EXPECT_EQ(outcome.status, 404) << url;
    EXPECT_EQ(outcome.bodyIsXml, 0) << url;
    EXPECT_EQ(outcome.asyncReply, 0) << url;
    Json::Value document;
    ASSERT_TRUE(qn::json::parseJson(outcome.body, document)) << outcome.body;
    EXPECT_EQ(document["statusCode"].asInt(), 4);
    EXPECT_EQ(document["errorCode"].asInt(), 0x40000006);
  }
  EXPECT_EQ(fake::login().checks, 0);
  EXPECT_TRUE(fake::operationLog().empty());
  EXPECT_TRUE(fake::logLines().empty());
}

TEST_F(Frame, NoExchangeIsDeclined) {
  int bodyIsXml = -1;
  int asyncReply = 0;
  std::string body;
  EXPECT_EQ(QN_Protocol_HTTPProcess(bodyIsXml, body, asyncReply, {}), 404);
}

TEST_F(Frame, NobodyIsServedBeforeActivation) {
  fake::config().activated = false;
  const Outcome outcome = get(kUrl);
  EXPECT_EQ(outcome.status, getHttpStatusCodeByErrorNo(ERROR_NOT_ACTIVATED));
  EXPECT_EQ(outcome.body, CProtocolBase::getResponseByError(ERROR_NOT_ACTIVATED, kUrl));
  EXPECT_EQ(outcome.bodyIsXml, 1);
  EXPECT_EQ(fake::login().checks, 0);
}

TEST_F(Frame, ConfigurationNotReadYetCountsAsNotActivated) {
  fake::config().present = false;
  EXPECT_EQ(get(kUrl).body, CProtocolBase::getResponseByError(ERROR_NOT_ACTIVATED, kUrl));
}

TEST_F(Frame, RefusedLoginTellsTheLockAndTheBusChallenge) {
  const struct {
    int retries;
    int unlockTime;
    const char* lockInfo;
  } cases[] = {
      {3, 0, "<lockStatus>unlocked</lockStatus><retryLoginTime>3</retryLoginTime>"},
      {3, 77, "<lockStatus>unlocked</lockStatus><retryLoginTime>3</retryLoginTime>"},
      {0, 0,
       "<lockStatus>locked</lockStatus><unlockTime>1800</unlockTime>"
       "<retryLoginTime>0</retryLoginTime>"},
      {0, -5,
       "<lockStatus>locked</lockStatus><unlockTime>1800</unlockTime>"
       "<retryLoginTime>0</retryLoginTime>"},
      {0, 12,
       "<lockStatus>locked</lockStatus><unlockTime>12</unlockTime>"
       "<retryLoginTime>0</retryLoginTime>"},
  };
  fake::login().verdict = DIGEST_REFUSED;
  fake::login().setChallenge("Digest of the bus");
  for (const auto& [retries, unlockTime, lockInfo] : cases) {
    fake::login().result.retryLoginTime = retries;
    fake::login().result.unlockTime = unlockTime;
    const Outcome outcome = get(kUrl);
    EXPECT_EQ(outcome.status, 401);
    EXPECT_EQ(outcome.body, statusDocument("", std::string(kUnauthorized) + lockInfo));
    EXPECT_EQ(outcome.answer().headers.at("WWW-Authenticate"), "Digest of the bus");
  }
  EXPECT_TRUE(fake::deviceBus().seen.empty());
  EXPECT_TRUE(fake::operationLog().empty());
}

TEST_F(Frame, RefusedLoginSendsEvenAnEmptyChallenge) {
  fake::login().verdict = DIGEST_REFUSED;
  EXPECT_EQ(get(kUrl).answer().headers.at("WWW-Authenticate"), "");
}

TEST_F(Frame, MissingLoginGetsAChallengeAndNothingAboutTheLock) {
  const struct {
    const char* fromBus;
    const char* sent;
  } cases[] = {
      {"", R"(Digest qop="auth", realm="KAVRO", nonce="fresh-nonce", stale="FALSE")"},
      {"Digest stale", "Digest stale"},
  };
  fake::login().verdict = DIGEST_NO_CREDENTIALS;
  fake::login().result.retryLoginTime = 4;
  for (const auto& [fromBus, sent] : cases) {
    fake::login().setChallenge(fromBus);
    const Outcome outcome = get(kUrl);
    EXPECT_EQ(outcome.status, 401);
    EXPECT_EQ(outcome.body, statusDocument("", kUnauthorized));
    EXPECT_EQ(outcome.answer().headers.at("WWW-Authenticate"), sent);
  }
}

TEST_F(Frame, ChallengeIsCutAt255Characters) {
  fake::config().realm = std::string(400, 'r');
  EXPECT_EQ(CProtocolBase::buildUnauthorHead(0).size(), 255u);
  fake::config().realm = "R";
  EXPECT_EQ(CProtocolBase::buildUnauthorHead(1),
            R"(Digest qop="auth", realm="R", nonce="fresh-nonce", stale="TRUE")");
}

TEST_F(Frame, OtherVerdictsAnswerTheirCodeInTheUrlsOwnFormat) {
  const struct {
    int verdict;
    unsigned int code;
  } cases[] = {{DIGEST_NOT_ALLOWED, 0x40000009}, {-1, 0x30000014}, {2, 0x40001007}};
  for (const auto& [verdict, code] : cases) {
    fake::login().verdict = verdict;
    const Outcome xml = get(kUrl);
    EXPECT_EQ(xml.status, getHttpStatusCodeByErrorNo(code));
    EXPECT_EQ(xml.bodyIsXml, 1);
    EXPECT_EQ(xml.body, CProtocolBase::getResponseByError(static_cast<int>(code), kUrl));

    const Outcome json = get(std::string(kUrl) + "?format=json");
    EXPECT_EQ(json.status, getHttpStatusCodeByErrorNo(code));
    EXPECT_EQ(json.bodyIsXml, 0);
    Json::Value document;
    ASSERT_TRUE(qn::json::parseJson(json.body, document)) << json.body;
    EXPECT_EQ(document["errorCode"].asUInt(), code);
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
  const struct {
    fake::Headers headers;
    std::string address;
  } cases[] = {
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
  const struct {
    const char* text;
    int found;
    std::string vector;
  } cases[] = {
      {"a=1&security=2", 0, "-"},
      {"iv=0123456789abcdef0123456789abcdefXYZ", 1, "0123456789abcdef0123456789abcdef"},
      {"x&iv=short", 1, "short"},
      {"iv=", 1, ""},
  };
  for (const auto& [text, found, vector] : cases) {
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

struct ProbeOutcome {
  int status;
  std::string body;
};

ProbeOutcome probe(int handlerStatus, unsigned int method, const char* url) {
  Probe handler;
  handler.status = handlerStatus;
  int bodyIsXml = 1;
  int asyncReply = 0;
  ProbeOutcome outcome;
  outcome.status =
      handler.proc(bodyIsXml, outcome.body, asyncReply,
                   fake::http().open({method, url, "", {{"X-Forwarded-For", "9.9.9.9"}}}));
  return outcome;
}

TEST_F(Frame, HandlersFailureIsAnInternalError) {
  const ProbeOutcome good = probe(207, 0, kUrl);
  EXPECT_EQ(good.status, 207);
  EXPECT_EQ(good.body, "of 1");
  const ProbeOutcome failed = probe(-1, 0, kUrl);
  EXPECT_EQ(failed.status, getHttpStatusCodeByErrorNo(ERROR_INTERNAL));
  EXPECT_EQ(failed.body, CProtocolBase::getResponseByError(ERROR_INTERNAL, kUrl));
}

TEST_F(Frame, OperationsThatAreRecorded) {
  const struct {
    unsigned int method;
    const char* url;
    const char* operation;  // empty: none
  } cases[] = {
      {0, "/KAVRO/System/deviceInfo", ""},
      {0, "/KAVRO/Security/userCheck", "GET /KAVRO/Security/userCheck"},
      {0, "/KAVRO/Security/userCheck?a=b", "GET /KAVRO/Security/userCheck?a=b"},
      {1, "/KAVRO/a", "PUT /KAVRO/a"},
      {2, "/KAVRO/a", "POST /KAVRO/a"},
      {3, "/KAVRO/a", "DELETE /KAVRO/a"},
      {4, "/KAVRO/a", ""},
      {6, "/KAVRO/a", ""},
      {1, "", ""},
      {1, "/KAVRO/Security/sessionHeartbeat", ""},
      {2, "/KAVRO/Security/sessionHeartbeat", ""},
  };
  for (const auto& [method, url, operation] : cases) {
    fake::operationLog().clear();
    probe(200, method, url);
    ASSERT_EQ(fake::operationLog().size(), *operation == '\0' ? 0u : 1u) << method << url;
    if (*operation != '\0') {
      EXPECT_EQ(fake::operationLog()[0].operation, operation);
    }
  }
}

TEST_F(Frame, OperationRecordHoldsWhoWhenAndTheLoginsResult) {
  probe(200, 1, kUrl);
  ASSERT_EQ(fake::operationLog().size(), 1u);
  const tagLogInfo& info = fake::operationLog()[0];
  EXPECT_EQ(info.time, fake::runtime().nowUs / 1000000);
  EXPECT_EQ(info.user, "admin");
  EXPECT_EQ(info.clientIp, "9.9.9.9");
  EXPECT_EQ(info.isoTime.size(), getISO8601Time().size());
  EXPECT_EQ(info.category, "Device");
  EXPECT_EQ(info.result, "Fail") << "the login's 0, not the handler's 200";
}

TEST_F(Frame, OperationTextIsCutAt256Characters) {
  const std::string url = "/KAVRO/" + std::string(293, 'u');
  std::string type;
  EXPECT_EQ(CProtocolBase::getOperationType(type, url, 1), 1);
  EXPECT_EQ(type, ("PUT " + url).substr(0, 256));
  EXPECT_EQ(CProtocolBase::getOperationType(type, url, 0), 0);
  EXPECT_EQ(type, "");
}

TEST_F(Frame, LockRecords) {
  const struct {
    int locked;
    int unlocked;
    const char* operation;  // empty: none
  } cases[] = {{0, 0, ""},
               {1, 0, "Operation/clientIpLock"},
               {1, 1, "Operation/clientIpLock"},
               {0, 1, "Operation/clientIpUnlock"}};
  for (const auto& [locked, unlocked, operation] : cases) {
    fake::operationLog().clear();
    Probe().savelockLog("eve", fake::http().open({0, kUrl}).exchange, locked, unlocked);
    ASSERT_EQ(fake::operationLog().size(), *operation == '\0' ? 0u : 1u);
    if (*operation == '\0') continue;
    const tagLogInfo& info = fake::operationLog()[0];
    EXPECT_EQ(info.operation, operation);
    EXPECT_EQ(info.user, "eve");
    EXPECT_EQ(info.clientIp, "192.0.2.7");
    EXPECT_EQ(info.category, "Service");
    EXPECT_EQ(info.result, "Success");
  }
}

}  // namespace
}  // namespace QNKAVROProtocol
