// What gateway/tls promises of a stream, both sides of it on one thread.
#include "gateway/tls/tls_stream.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>
#include <functional>

#include "gateway/tls/ticket_keys.h"
#include "tests/contract/certificates.h"

namespace qn {
namespace {

namespace asio = boost::asio;
using boost::system::error_code;
using Tcp = asio::ip::tcp;
using Stream = TlsStream<Tcp::socket>;

const PemPair& certificate() {
  static Authority authority;
  static const PemPair pair = authority.issue("server", "DNS:server.test");
  return pair;
}

class TlsStreamTest : public testing::Test {
 protected:
  TlsStreamTest() {
    Tcp::acceptor acceptor(context_, {asio::ip::address_v4::loopback(), 0});
    Tcp::socket near(context_);
    near.connect(acceptor.local_endpoint());
    client_.emplace(std::move(near), TlsRole::Client);
    server_.emplace(acceptor.accept(), TlsRole::Server);
    for (Stream* each : {&*client_, &*server_}) {
      each->lowest_layer().non_blocking(true);
      each->lowest_layer().set_option(Tcp::no_delay(true));
    }
    const std::string chain = certificate().certificate.string();
    SSL_CTX_use_certificate_chain_file(serverContext_.get(), chain.c_str());
    SSL_CTX_use_PrivateKey_file(serverContext_.get(), certificate().key.c_str(), SSL_FILETYPE_PEM);
  }

  // Runs what is there to do until it holds; false when 20 s are over.
  bool runUntil(const std::function<bool()>& holds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!holds() && std::chrono::steady_clock::now() < end) {
      context_.restart();
      context_.run_one_for(std::chrono::milliseconds(100));
    }
    return holds();
  }
  void beginAccepting(std::optional<error_code>& result) {
    server_->async_await_handshake([&](error_code ec) {
      if (ec) {
        result = ec;
      } else {
        server_->makeSession(*serverContext_);
        server_->async_handshake([&](error_code error) { result = error; });
      }
    });
  }
  error_code accept() {
    std::optional<error_code> result;
    beginAccepting(result);
    EXPECT_TRUE(runUntil([&] { return result.has_value(); }));
    return result.value_or(error_code());
  }
  void shakeHands() {
    bool shaken = false;
    client_->makeSession(*clientContext_);
    client_->async_handshake([&](error_code ec) { shaken = !ec; });
    ASSERT_FALSE(accept());
    ASSERT_TRUE(runUntil([&] { return shaken; }));
  }
  // Sends both buffers, as often as it takes.
  void send(Stream& from, std::string_view head, std::string_view body, bool& done) {
    const std::array<asio::const_buffer, 2> rest{asio::buffer(head.data(), head.size()),
                                                 asio::buffer(body.data(), body.size())};
    from.async_write_some(rest, [&, head, body](error_code ec, std::size_t count) {
      EXPECT_FALSE(ec) << ec.message();
      const std::size_t ofHead = std::min(count, head.size());
      const auto left = head.size() + body.size() - count;
      if (ec || left == 0) {
        done = true;
      } else {
        send(from, head.substr(ofHead), body.substr(count - ofHead), done);
      }
    });
  }
  void receive(Stream& at, std::string& all, error_code& end) {
    at.async_read_some(asio::buffer(room_), [&](error_code ec, std::size_t count) {
      all.append(room_.data(), count);
      if (ec) {
        end = ec;
      } else {
        receive(at, all, end);
      }
    });
  }

  asio::io_context context_;
  SslContextPtr serverContext_ = newTlsContext(TlsRole::Server);
  SslContextPtr clientContext_ = newTlsContext(TlsRole::Client);
  std::optional<Stream> client_;
  std::optional<Stream> server_;
  std::array<char, 40000> room_;
};

class TlsConversation : public TlsStreamTest, public testing::WithParamInterface<int> {};

TEST_P(TlsConversation, CarriesMoreThanTheSocketTakesAndEndsCleanly) {
  SSL_CTX_set_max_proto_version(clientContext_.get(), GetParam());
  shakeHands();
  EXPECT_EQ(SSL_version(server_->ssl()), GetParam());
  std::string body(3'000'000, 'x');
  for (std::size_t i = 0; i < body.size(); i += 97) body[i] = char('a' + i % 26);
  for (auto [from, to] : {std::pair(&*client_, &*server_), std::pair(&*server_, &*client_)}) {
    from->lowest_layer().set_option(asio::socket_base::send_buffer_size(8192));
    std::string received;
    error_code end;
    bool sent = false;
    send(*from, "head", body, sent);
    receive(*to, received, end);
    ASSERT_TRUE(runUntil([&] { return sent && received.size() >= body.size() + 4; }));
    EXPECT_TRUE(received == "head" + body);
    error_code ignored;
    from->endSending(ignored);
    ASSERT_TRUE(runUntil([&] { return bool(end); }));
    EXPECT_EQ(end, asio::error::eof);
  }
}

INSTANTIATE_TEST_SUITE_P(Versions, TlsConversation,
                         testing::Values(TLS1_2_VERSION, TLS1_3_VERSION));

TEST_F(TlsStreamTest, SmallBuffersAreOneRecordAndWhatIsLeftOfItNeedsNoSocket) {
  shakeHands();
  const std::array<asio::const_buffer, 2> parts{asio::buffer("head", 4), asio::buffer("body", 4)};
  error_code ec;
  EXPECT_EQ(server_->write_some(parts, ec), 8u);
  bool there = false;
  const auto wait = [&] {
    there = false;
    client_->async_wait_unread([&](error_code error) { there = !error; });
    EXPECT_TRUE(runUntil([&] { return there; }));
  };
  const auto read = [&](std::size_t most) {
    char bytes[8];
    return std::string(bytes, client_->read_some(asio::buffer(bytes, most), ec));
  };
  wait();
  std::string first = read(3);
  while (ec == asio::error::would_block) {  // the session tickets come before
    wait();
    first = read(3);
  }
  EXPECT_EQ(first, "hea");
  EXPECT_TRUE(client_->lowest_layer().available() == 0);
  wait();
  EXPECT_EQ(read(8), "dbody");
  EXPECT_EQ(read(8), "");
  EXPECT_EQ(ec, asio::error::would_block);
}

TEST_F(TlsStreamTest, APeerThatJustGoesHasNotEnded) {
  shakeHands();
  std::string received;
  error_code end;
  receive(*server_, received, end);
  client_->lowest_layer().shutdown(Tcp::socket::shutdown_send);
  ASSERT_TRUE(runUntil([&] { return bool(end); }));
  EXPECT_EQ(end, TlsFault::Truncated);
  server_->close();
  server_->close();
}

TEST_F(TlsStreamTest, WhatComesWithTheEndOfTheHandshakeIsSeen) {
  client_->makeSession(*clientContext_);
  error_code ec;
  client_->async_handshake([&](error_code) { client_->write_some(asio::buffer("now", 3), ec); });
  ASSERT_FALSE(accept());
  std::string received;
  receive(*server_, received, ec);
  EXPECT_TRUE(runUntil([&] { return received == "now"; }));
}

TEST_F(TlsStreamTest, RecordsThatHoldNothingKeepNobodyElseWaiting) {
  shakeHands();
  constexpr int kUpdates = 4000;  // in more than 100 KiB, of which one read takes 16
  client_->lowest_layer().set_option(asio::socket_base::send_buffer_size(200'000));
  for (int i = 0; i < kUpdates; ++i) {
    ASSERT_EQ(SSL_key_update(client_->ssl(), SSL_KEY_UPDATE_NOT_REQUESTED), 1);
    ASSERT_EQ(SSL_do_handshake(client_->ssl()), 1);
  }
  error_code ec;
  client_->write_some(asio::buffer("end", 3), ec);
  std::string received;
  receive(*server_, received, ec);
  int others = 0;
  std::function<void()> other = [&] {
    if (!received.empty()) return;
    ++others;
    asio::post(context_, other);
  };
  other();
  EXPECT_TRUE(runUntil([&] { return received == "end"; }));
  EXPECT_GE(others, 6);
}

TEST_F(TlsStreamTest, NoHandshakeBeginsBeforeItsFirstMessageHasArrived) {
  // A client's first message, caught on its way.
  SslPtr ssl(SSL_new(clientContext_.get()));
  BIO* const caught = BIO_new(BIO_s_mem());
  SSL_set_bio(ssl.get(), BIO_new(BIO_s_mem()), caught);
  SSL_connect(ssl.get());
  std::string hello(10'000, '\0');
  hello.resize(std::size_t(std::max(BIO_read(caught, hello.data(), int(hello.size())), 0)));
  ASSERT_GT(hello.size(), 100u);
  Tcp::socket& raw = client_->lowest_layer();
  std::optional<error_code> result;
  beginAccepting(result);
  std::size_t turns = 0;
  for (const std::size_t part :
       {std::size_t{1}, std::size_t{3}, std::size_t{2}, hello.size() - 7}) {
    asio::write(raw, asio::buffer(hello.substr(0, part)));
    hello.erase(0, part);
    for (int i = 0; i < 20; ++i) {
      context_.restart();
      turns += context_.run_one_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(server_->ssl(), nullptr);
  }
  EXPECT_LE(turns, 8u);  // it does not spin on what is there already
  asio::write(raw, asio::buffer(hello));
  EXPECT_TRUE(runUntil([&] { return server_->ssl() != nullptr; }));
  raw.close();
  ASSERT_TRUE(runUntil([&] { return result.has_value(); }));
  EXPECT_EQ(*result, TlsFault::Truncated);
}

TEST_F(TlsStreamTest, WhatIsNoTlsOrEndsEarlyIsRefusedWithoutMemory) {
  const struct {
    std::string sent;
    TlsFault fault;
  } cases[] = {{"", TlsFault::Truncated},
               {"GET / HTTP/1.1\r\n\r\n", TlsFault::NotTls},
               {"G", TlsFault::NotTls},
               {std::string("\x16\x03\x01\x02", 4), TlsFault::Truncated},
               {std::string("\x16\x03\x01\x02\x00pieces", 11), TlsFault::Truncated},
               {std::string("\x16\x03\x01\xff\xff", 5), TlsFault::NotTls},
               {std::string("\x16\x03\x01\x00\x00", 5), TlsFault::NotTls}};
  Tcp::acceptor acceptor(context_, {asio::ip::address_v4::loopback(), 0});
  for (const auto& [sent, fault] : cases) {
    Tcp::socket raw(context_);
    raw.connect(acceptor.local_endpoint());
    server_.emplace(acceptor.accept(), TlsRole::Server);
    server_->lowest_layer().non_blocking(true);
    asio::write(raw, asio::buffer(sent));
    raw.shutdown(Tcp::socket::shutdown_send);
    EXPECT_EQ(accept(), fault) << sent;
    EXPECT_EQ(server_->ssl(), nullptr);
  }
}

TEST(TicketKeys, OneMakesTicketsForAnIntervalAndOpensThemForOneMore) {
  using Clock = TicketKeys::Clock;
  const Clock::time_point start = Clock::now();
  TicketKeys keys;
  const auto name = keys.current(start).name;
  const auto known = [&](double intervals) -> std::string {
    const auto after = std::chrono::duration<double>(TicketKeys::kInterval) * intervals;
    const auto found = keys.find(name, start + std::chrono::duration_cast<Clock::duration>(after));
    return !found ? "no" : found->isCurrent ? "current" : "former";
  };
  EXPECT_EQ(known(0.99), "current");
  EXPECT_EQ(known(1.01), "former");
  EXPECT_EQ(known(1.99), "former");
  EXPECT_EQ(known(2.02), "no");
  const auto later = keys.current(start + 10 * TicketKeys::kInterval).name;
  EXPECT_FALSE(keys.find(later, start + 13 * TicketKeys::kInterval)) << "nobody came for long";
}

}  // namespace
}  // namespace qn
