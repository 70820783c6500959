#include "gateway/base/listening_sockets.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>

namespace qn {
namespace {

constexpr std::size_t kMaxSockets = 65536;

struct Question {
  nlmsghdr header;
  inet_diag_req_v2 body;
};

class Netlink {
 public:
  Netlink() : descriptor_(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {
    const timeval limit{1, 0};
    ::setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  }
  ~Netlink() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  Netlink(const Netlink&) = delete;
  Netlink& operator=(const Netlink&) = delete;

  bool askForListeners(unsigned char family) {
    Question question{};
    question.header.nlmsg_len = sizeof question;
    question.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    question.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    question.body.sdiag_family = family;
    question.body.sdiag_protocol = IPPROTO_TCP;
    question.body.idiag_states = 1U << TCP_LISTEN;
    return ::send(descriptor_, &question, sizeof question, 0) == ssize_t{sizeof question};
  }

  // One datagram of the answer; -1 when none comes.
  int receive(char* buffer, std::size_t size) {
    return static_cast<int>(::recv(descriptor_, buffer, size, 0));
  }

 private:
  const int descriptor_;
};

ListeningSocket socketOf(const inet_diag_msg& message) {
  ListeningSocket socket{{}, ntohs(message.id.idiag_sport), message.idiag_inode};
  if (message.idiag_family == AF_INET6) {
    std::memcpy(socket.address.data(), message.id.idiag_src, 16);
  } else {
    socket.address[10] = socket.address[11] = 0xFF;
    std::memcpy(socket.address.data() + 12, message.id.idiag_src, 4);
  }
  return socket;
}

enum class Progress { More, Done, Failed };

Progress readMessage(const nlmsghdr& header, std::vector<ListeningSocket>& sockets) {
  if (header.nlmsg_type == NLMSG_DONE) return Progress::Done;
  const bool fits = header.nlmsg_len >= NLMSG_LENGTH(sizeof(inet_diag_msg));
  if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY || !fits || sockets.size() == kMaxSockets) {
    return Progress::Failed;
  }
  inet_diag_msg message;
  std::memcpy(&message, reinterpret_cast<const char*>(&header) + NLMSG_HDRLEN, sizeof message);
  sockets.push_back(socketOf(message));
  return Progress::More;
}

bool readAnswer(Netlink& netlink, std::vector<ListeningSocket>& sockets) {
  alignas(nlmsghdr) char buffer[16 * 1024];
  for (;;) {
    int length = netlink.receive(buffer, sizeof buffer);
    if (length <= 0) return false;
    for (const auto* header = reinterpret_cast<const nlmsghdr*>(buffer); NLMSG_OK(header, length);
         header = NLMSG_NEXT(header, length)) {
      const Progress progress = readMessage(*header, sockets);
      if (progress != Progress::More) return progress == Progress::Done;
    }
  }
}

}  // namespace

bool askForListeningSockets(std::vector<ListeningSocket>& sockets) {
  Netlink netlink;
  for (const unsigned char family : {AF_INET, AF_INET6}) {
    if (!netlink.askForListeners(family) || !readAnswer(netlink, sockets)) return false;
  }
  return true;
}

}  // namespace qn
