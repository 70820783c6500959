// The KAVRO manager bus: Digest login and the lock after repeated failures. Called by the request
// frame for every claimed request; the reference implementation is gateway/login.
#pragma once

#include <cstdint>

// Copy limits of the text fields, without the terminating NUL.
inline constexpr int DIGEST_CLIENT_IP_MAX = 17;
inline constexpr int DIGEST_AUTHORIZATION_MAX = 5121;
inline constexpr int DIGEST_WWW_AUTHENTICATE_MAX = 5120;
inline constexpr int DIGEST_DEV_INDEX_MAX = 63;

// What the client sent. Zero-filled by the caller first; texts are NUL-terminated.
struct tagDIGEST_REQUEST {
  uint16_t port;  // the Host header's port when it differs from the configured one, else 0
  char clientIp[DIGEST_CLIENT_IP_MAX + 1];
  char authorization[DIGEST_AUTHORIZATION_MAX + 1];  // raw header value, empty when absent
  int32_t reserved1;
  int32_t reserved2;
};

// What the check found. Zero-filled by the caller first.
struct tagDIGEST_RESULT {
  int32_t retryLoginTime;  // attempts left before the lock; 0: locked
  int32_t unlockTime;      // seconds until the lock ends
  char wwwAuthenticate[DIGEST_WWW_AUTHENTICATE_MAX + 1];  // challenge to send; may be empty
  char devIndex[DIGEST_DEV_INDEX_MAX + 1];                // the sub-device, on DIGEST_OK
};

enum DigestResult : int {
  DIGEST_OK = 0,              // authenticated; devIndex is set
  DIGEST_NO_CREDENTIALS = 1,  // none, malformed or stale: never counted. The challenge is set when
                              // it must say more than "here is a nonce" (stale, other algorithm)
  DIGEST_NOT_ALLOWED = 516,   // right credentials, but not for the device that the port names
  DIGEST_REFUSED = 1028,      // wrong credentials, or locked: counted. The challenge is always set
};

// How the sub-device is chosen.
enum DigestMode : int {
  DIGEST_MODE_OWN_DEVICE = 1,  // the user's own
  DIGEST_MODE_BY_PORT = 2,     // the one whose own KAVRO port is request.port; the user's own when
                               // no device has that port
};

// Checks the Authorization value for a request with this method name. Any thread; does not block.
// `request` is only read; `result` is filled whatever the outcome.
int QN_KAVROMgrBus_CheckDigest(tagDIGEST_RESULT& result, const char* method,
                               const tagDIGEST_REQUEST& request, int mode);

// Writes a fresh nonce that CheckDigest accepts, NUL-terminated, into buffer[size]; returns its
// length, or 0 with an empty text when size is too small (64 is enough). `randomBytes` of the nonce
// are random (8 to 16); the last argument is reserved and 0.
int CreateNonce(char* buffer, int size, int randomBytes, int reserved);
