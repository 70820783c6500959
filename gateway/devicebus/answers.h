// Hands answers to those who asked: on the reactor, or on a worker when translating takes long.
// Used by the lanes.
#pragma once

#include <boost/asio/io_context.hpp>
#include <cstddef>

#include "gateway/devicebus/bus_request.h"
#include "gateway/devicebus/reply_parser.h"
#include "gateway/devicebus/status_documents.h"
#include "gateway/net/worker_pool.h"

namespace qn::devicebus {

class Answers {
 public:
  explicit Answers(WorkerPool& workers) : workers_(workers) {}

  // The device's reply, or a document in place of one that clients cannot read.
  void giveReply(RequestPtr request, ReplyParser& reply) const;
  // The bus's own document. Later, on the reactor: the caller may be in the middle of something,
  // and a recipient may send its next request at once.
  void giveError(boost::asio::io_context& reactor, RequestPtr request, unsigned int code) const;

 private:
  void giveOnWorker(RequestPtr request, std::string body) const;

  static constexpr std::size_t kLongReply = 64 * 1024;  // from here on translating takes long

  WorkerPool& workers_;
  const StatusDocuments documents_;
};

}  // namespace qn::devicebus
