// See digest_guard.h.
#include "subdevice/digest_guard.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <utility>

#include "text/hex.h"

namespace subdevice {
namespace {

constexpr std::string_view kRealm = "subdevice";
constexpr std::size_t kNonces = 256;  // a client with more connections than that logs in anew

std::string newNonce() {
  std::array<unsigned char, 16> bytes{};
  RAND_bytes(bytes.data(), static_cast<int>(bytes.size()));
  return qn::text::hexOf(bytes);
}

// The value of one parameter of a Digest header, without its quotes; empty when absent. None of the
// values a client computes contains an escaped quote.
std::string field(std::string_view header, std::string_view name) {
  for (std::size_t at = header.find(name); at != std::string_view::npos;
       at = header.find(name, at + 1)) {
    const bool starts = at > 0 && (header[at - 1] == ' ' || header[at - 1] == ',');
    const std::size_t equals = at + name.size();
    if (!starts || equals >= header.size() || header[equals] != '=') continue;
    std::string_view value = header.substr(equals + 1);
    if (value.starts_with('"')) {
      value.remove_prefix(1);
      return std::string(value.substr(0, value.find('"')));
    }
    return std::string(value.substr(0, value.find_first_of(", ")));
  }
  return {};
}

}  // namespace

std::string md5Hex(std::string_view text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  EVP_Digest(text.data(), text.size(), digest.data(), &size, EVP_md5(), nullptr);
  return qn::text::hexOf({digest.data(), size});
}

DigestGuard::DigestGuard(std::string username, std::string password)
    : username_(std::move(username)), password_(std::move(password)) {}

bool DigestGuard::admit(const Request& request, Reply& refusal) {
  if (username_.empty()) return true;
  if (!request.authorization.starts_with("Digest ")) {
    refusal = challenge(Stale::No);
    return false;
  }
  if (!responseFits(request)) {
    ++wrongLogins_;
    ++wrongInARow_;
    refusal = challenge(Stale::No);
    return false;
  }
  if (locked()) {
    refusal = statusReply(Status::Refused, "loginLocked");
    return false;
  }
  if (std::ranges::find(nonces_, field(request.authorization, "nonce")) == nonces_.end()) {
    refusal = challenge(Stale::Yes);
    return false;
  }
  wrongInARow_ = 0;
  ++logins_;
  return true;
}

bool DigestGuard::responseFits(const Request& request) const {
  const std::string& header = request.authorization;
  const std::string realm(kRealm);
  const std::string ha1 = md5Hex(username_ + ":" + realm + ":" + password_);
  const std::string ha2 = md5Hex(request.method + ":" + request.target);
  const std::string expected =
      md5Hex(ha1 + ":" + field(header, "nonce") + ":" + field(header, "nc") + ":" +
             field(header, "cnonce") + ":" + field(header, "qop") + ":" + ha2);
  return field(header, "username") == username_ && field(header, "uri") == request.target &&
         field(header, "qop") == "auth" && field(header, "response") == expected;
}

Reply DigestGuard::challenge(Stale stale) {
  ++challenges_;
  nonces_.push_back(newNonce());
  if (nonces_.size() > kNonces) nonces_.pop_front();
  Reply reply = statusReply(Status::Refused, "loginNeeded");
  reply.status = 401;
  reply.challenge = "Digest realm=\"" + std::string(kRealm) + "\", qop=\"auth\", nonce=\"" +
                    nonces_.back() + "\", algorithm=MD5" +
                    (stale == Stale::Yes ? ", stale=true" : "");
  return reply;
}

}  // namespace subdevice
