// The cost of one login check, as each request pays it: alone and by parts.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "gateway/auth/digest_credentials.h"
#include "gateway/config/configuration.h"
#include "gateway/devices/device_login.h"
#include "platform/kavro_mgr_bus.h"

namespace {

constexpr const char* kUri = "/KAVRO/System/deviceInfo";

void publish(qn::DigestAlgorithm algorithm) {
  const auto configuration = std::make_shared<qn::Configuration>();
  configuration->kavro.algorithm = algorithm;
  const auto ha1 = qn::hexDigest(algorithm, {"admin", "KAVRO", "password"});
  configuration->users.push_back({"admin", std::string(ha1.text()), "1", {}});
  qn::publishConfiguration(configuration);
}

qn::ClientLogin client(qn::DigestAlgorithm algorithm) {
  char nonce[64];
  CreateNonce(nonce, sizeof nonce, 8, 0);
  qn::ClientLogin client("admin", "password");
  client.takeChallenge("Digest qop=\"auth\", realm=\"KAVRO\", nonce=\"" + std::string(nonce) +
                       "\", algorithm=" + std::string(qn::algorithmName(algorithm)));
  return client;
}

// Every request has a nonce count of its own, computed outside the measured time.
void checkDigest(benchmark::State& state, qn::DigestAlgorithm algorithm) {
  constexpr int kBatch = 4096;
  if (state.thread_index() == 0) publish(algorithm);
  static thread_local tagDIGEST_RESULT result;
  tagDIGEST_REQUEST request{};
  std::vector<std::string> batch;
  for (auto _ : state) {
    if (batch.empty()) {
      state.PauseTiming();
      qn::ClientLogin login = client(algorithm);
      for (int i = 0; i < kBatch; ++i) batch.push_back(login.authorization("GET", kUri));
      std::reverse(batch.begin(), batch.end());
      state.ResumeTiming();
    }
    std::memcpy(request.authorization, batch.back().c_str(), batch.back().size() + 1);
    batch.pop_back();
    if (QN_KAVROMgrBus_CheckDigest(result, "GET", request, DIGEST_MODE_OWN_DEVICE) != DIGEST_OK) {
      state.SkipWithError("refused");
      break;
    }
  }
}
BENCHMARK_CAPTURE(checkDigest, md5, qn::DigestAlgorithm::MD5)->Threads(1)->Threads(2);
BENCHMARK_CAPTURE(checkDigest, sha256, qn::DigestAlgorithm::SHA256)->Threads(1);

void response(benchmark::State& state) {
  const auto ha1 = qn::hexDigest(qn::DigestAlgorithm::MD5, {"admin", "KAVRO", "password"});
  for (auto _ : state) {
    const qn::DigestResponses responses(
        qn::DigestAlgorithm::MD5, ha1.text(),
        {"0123456789abcdef0123456789abcdef0123456789abcd", "00000001", "0a4f113b"});
    benchmark::DoNotOptimize(responses.of("GET", kUri));
  }
}
BENCHMARK(response);

void parse(benchmark::State& state) {
  const std::string value = client(qn::DigestAlgorithm::MD5).authorization("GET", kUri);
  qn::DigestCredentials given;
  for (auto _ : state) benchmark::DoNotOptimize(qn::parseDigestCredentials(value, given));
}
BENCHMARK(parse);

void createNonce(benchmark::State& state) {
  char nonce[64];
  for (auto _ : state) benchmark::DoNotOptimize(CreateNonce(nonce, sizeof nonce, 8, 0));
}
BENCHMARK(createNonce);

}  // namespace
