// One request on its way through the bus, its place among the others, and how its answer is handed
// over. Whoever holds the unique_ptr answers it: a lane's queue, a connection, or the job that
// hands the answer over. So it is answered exactly once.
#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "gateway/devicebus/reply_budget.h"
#include "gateway/devices/device.h"
#include "gateway/devices/message.h"
#include "gateway/devices/status_documents.h"
#include "gateway/net/asker.h"
#include "gateway/net/reply_in_hand.h"
#include "gateway/net/worker_pool.h"
#include "platform/device_cfg_bus.h"

namespace qn::devicebus {

enum class Origin { Device, Gateway };  // who wrote the answer

// Takes the answer of one request.
class Recipient {
 public:
  virtual ~Recipient() = default;
  // Not null, valid during the call. Any thread; must not block.
  virtual void take(std::string_view answer, Origin origin) noexcept = 0;
  // Whether taking a long answer takes long.
  virtual bool isTranslator() const = 0;
};

// Requests in the bus, counted until their callbacks have returned.
class Tally {
 public:
  // False once closed: the request is not counted.
  bool enter();
  void leave() { --count_; }
  void close() { closed_ = true; }
  bool empty() const { return count_ == 0; }

  std::atomic<std::size_t> bytes{0};  // that they hold

 private:
  std::atomic<std::size_t> count_{0};
  std::atomic<bool> closed_{false};
};

// A request's place among those of its device and of the bus, in number and in bytes; given back
// when destroyed.
class Place {
 public:
  enum class Refusal { None, Stopping, Full };

  Place() = default;
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;
  ~Place();

  // `bytes`: what the request holds until it is answered. At most one call.
  Refusal enter(Tally& tally, std::shared_ptr<Device> device, const BusOptions& options,
                std::size_t bytes);

 private:
  Tally* tally_ = nullptr;
  std::shared_ptr<Device> device_;
  std::size_t bytes_ = 0;
};

inline constexpr std::string_view kRequestIdField = "X-Request-Id: ";

struct BusRequest {
  explicit BusRequest(ReplyBudget& replies) : reply(replies) {}

  Place place;  // first member, last to go
  ReplyBudget::Share reply;
  std::string_view method;
  std::string idLine;  // the header line with the client's request's id, or none
  std::string url;     // path and query
  std::string body;
  std::unique_ptr<Recipient> recipient;
  std::chrono::steady_clock::time_point accepted;  // by the bus
  std::chrono::steady_clock::time_point deadline;
  std::shared_ptr<Device> device;
  std::optional<DeviceLogin::Ticket> login{std::in_place};  // at `device`
  std::optional<std::weak_ptr<const Asker>> asker = AskerScope::current();
  bool needsFreshConnection = false;  // a reused one broke; not tried again after this

  std::string_view id() const;
  // Hands the answer over.
  void give(std::string_view answer, Origin origin);
  // The device's, which may be kept longer than the call.
  void give(const SharedBytes& text);
  // Nobody takes the answer any more.
  bool isForgotten() const;
  // Whether sending it twice does the same as sending it once.
  bool isIdempotent() const { return method != "POST" && method != "PATCH"; }
};

using RequestPtr = std::unique_ptr<BusRequest>;

// Hands answers to those who asked: on the reactor, or on a worker when translating takes long.
class Answers {
 public:
  Answers(WorkerPool& workers, Sharded<BusCounts>& counts) : workers_(workers), counts_(counts) {}

  // The device's reply, or a document in place of one that clients cannot read.
  void giveReply(RequestPtr request, ReplyParser& reply) const;
  // The bus's own document. Later, on the reactor: the caller may be in the middle of something,
  // and a recipient may send its next request at once.
  void giveError(boost::asio::io_context& reactor, RequestPtr request, unsigned int code) const;

 private:
  void count(const BusRequest& request, DeviceFailure failure) const;
  void giveOnWorker(RequestPtr request, SharedBytes body) const;

  WorkerPool& workers_;
  Sharded<BusCounts>& counts_;
  const StatusDocuments documents_;
};

}  // namespace qn::devicebus
