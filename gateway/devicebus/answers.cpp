// See answers.h.
#include "gateway/devicebus/answers.h"

#include <boost/asio/post.hpp>
#include <memory>
#include <string>
#include <utility>

namespace qn::devicebus {

void Answers::giveReply(RequestPtr request, ReplyParser& reply) const {
  if (reply.status() >= 400 && reply.media() == MediaKind::kOther) {
    const std::string_view document = documents_.of(errorOfHttpStatus(reply.status()));
    request->recipient->take(document, Origin::kGateway);
    return;
  }
  if (reply.body().size() >= kLongReply && request->recipient->isTranslator()) {
    giveOnWorker(std::move(request), reply.takeBody());
    return;
  }
  request->recipient->take(reply.body(), Origin::kDevice);
}

void Answers::giveOnWorker(RequestPtr request, std::string body) const {
  // Jobs of the pool are copyable, so what they own is shared.
  struct Answer {
    RequestPtr request;
    std::string body;
  };
  auto answer = std::make_shared<Answer>(Answer{std::move(request), std::move(body)});
  const auto give = [answer] {
    answer->request->recipient->take(answer->body, Origin::kDevice);
    answer->request.reset();
  };
  if (!workers_.post(give)) give();
}

void Answers::giveError(boost::asio::io_context& reactor, RequestPtr request,
                        unsigned int code) const {
  boost::asio::post(reactor, [this, request = std::move(request), code] {
    request->recipient->take(documents_.of(code), Origin::kGateway);
  });
}

}  // namespace qn::devicebus
