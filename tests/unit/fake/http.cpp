// platform/http_service.h.
#include <strings.h>

#include <algorithm>
#include <atomic>
#include <mutex>

#include "tests/unit/fake/fake_platform.h"

namespace QNHttpService {

class ExchangeState {
 public:
  int handle = -1;
  fake::Request request;

  std::mutex mutex;
  fake::Answer answer;
  bool broken = false;
  bool full = false;
};

}  // namespace QNHttpService

namespace fake {
namespace {

using QNHttpService::ExchangeState;

std::mutex tableMutex;
std::map<int, std::shared_ptr<ExchangeState>> exchanges;  // guarded by tableMutex
std::atomic<int> lastHandle = 0;                          // handles are never reused

std::shared_ptr<ExchangeState> find(int handle) {
  const std::lock_guard lock(tableMutex);
  const auto found = exchanges.find(handle);
  return found == exchanges.end() ? nullptr : found->second;
}

bool isUnsafe(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

}  // namespace

Http& http() {
  static Http service;
  return service;
}

QNHttpService::stHttpRes Http::open(Request request) {
  auto state = std::make_shared<ExchangeState>();
  state->handle = ++lastHandle;
  state->request = std::move(request);
  QNHttpService::stHttpRes record;
  record.exchange = std::make_shared<QNHttpService::CHttpExchange>(state);
  if (!state->request.body.empty()) {
    record.body = state->request.body.data();
    record.bodyLength = static_cast<int>(state->request.body.size());
  }
  const std::lock_guard lock(tableMutex);
  exchanges[state->handle] = std::move(state);
  return record;
}

Answer Http::answer(int handle) const {
  const auto state = find(handle);
  if (!state) return {};
  const std::lock_guard lock(state->mutex);
  return state->answer;
}

void Http::breakLink(int handle) {
  const auto state = find(handle);
  const std::lock_guard lock(state->mutex);
  state->broken = true;
}

void Http::forget(int handle) {
  const std::lock_guard lock(tableMutex);
  exchanges.erase(handle);
}

void Http::setFull(int handle, bool full) {
  const auto state = find(handle);
  const std::lock_guard lock(state->mutex);
  state->full = full;
}

void resetHttp() {
  const std::lock_guard lock(tableMutex);
  exchanges.clear();
}

}  // namespace fake

namespace QNHttpService {

CHttpExchange::CHttpExchange(int handle) : state_(fake::find(handle)) {}
CHttpExchange::CHttpExchange(std::shared_ptr<ExchangeState> state) : state_(std::move(state)) {}

unsigned int CHttpExchange::getMethod() const {
  return state_ ? state_->request.method : static_cast<unsigned int>(HTTP_GET);
}

const std::string& CHttpExchange::getUrl() const {
  static const std::string none;
  return state_ ? state_->request.url : none;
}

std::string CHttpExchange::getHead(const char* name) const {
  if (!state_ || (state_->answer.stream && state_->answer.count > 0)) return {};
  for (const auto& [key, value] : state_->request.headers) {
    if (strcasecmp(key.c_str(), name) == 0) return value;
  }
  return {};
}

void CHttpExchange::setHead(const char* name, const char* value) {
  if (fake::isQuiet() || !state_ || fake::isUnsafe(name) || fake::isUnsafe(value)) return;
  const std::lock_guard lock(state_->mutex);
  state_->answer.headers[name] = value;
}

void CHttpExchange::setMIME() {
  if (!state_) return;
  const std::lock_guard lock(state_->mutex);
  state_->answer.stream = true;
}

void CHttpExchange::setStatus(int status) {
  if (!state_) return;
  const std::lock_guard lock(state_->mutex);
  if (state_->answer.count == 0) state_->answer.status = status;
}

int CHttpExchange::response(const void* data, int length) {
  if (!state_) return HTTP_LINK_BROKEN;
  const std::lock_guard lock(state_->mutex);
  fake::Answer& answer = state_->answer;
  if (fake::isQuiet()) answer.count = 0;  // one exchange is answered over and over
  if (state_->broken || (answer.count > 0 && !answer.stream)) return HTTP_LINK_BROKEN;
  const std::string text(static_cast<const char*>(data), static_cast<std::size_t>(length));
  if (answer.stream && answer.count > 0) {
    if (state_->full) return 0;
    answer.parts.push_back(text);
  } else {
    answer.body = text;
  }
  ++answer.count;
  return length;
}

int CHttpExchange::getHttpHandle() const { return state_ ? state_->handle : -1; }

}  // namespace QNHttpService
