// The order and lifetime of the handlers in a chain, and the one instance of a singleton.
#include "module/handler_chain.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "alert/singleton.h"

namespace QNKAVROProtocol {
namespace {

std::string trace;

template <char Name, int Answer>
struct Traced {
  Traced() { (trace += '+') += Name; }
  ~Traced() { (trace += '-') += Name; }
  int answer() const { return Answer; }
};

template <typename... Handlers>
int ask() {
  trace.clear();
  return HandlerChain<Handlers...>::ask([](auto& handler) { return handler.answer(); });
}

TEST(HandlerChain, AsksInOrderOneAtATimeUntilOneAnswers) {
  EXPECT_EQ((ask<Traced<'a', -1>, Traced<'b', 0>, Traced<'c', 7>>()), 0);
  EXPECT_EQ(trace, "+a-a+b-b");
  EXPECT_EQ((ask<Traced<'a', -1>, Traced<'b', -1>>()), -1);
  EXPECT_EQ(trace, "+a-a+b-b");
}

TEST(HandlerChain, ExceptionDestroysTheHandlerAndEndsTheChain) {
  trace.clear();
  using Chain = HandlerChain<Traced<'a', 0>, Traced<'b', 0>>;
  EXPECT_THROW(Chain::ask([](auto& handler) -> int { throw handler.answer(); }), int);
  EXPECT_EQ(trace, "+a-a");
}

class Shared : public CSingleton<Shared> {
 public:
  Shared() {
    ++attempts;
    if (attempts == 1) throw std::runtime_error("the first attempt");
  }
  static int attempts;
};
int Shared::attempts = 0;

TEST(Singleton, IsCreatedOnceForAllThreadsAndAgainAfterAFailure) {
  EXPECT_THROW(Shared::Instance(), std::runtime_error);
  std::vector<Shared*> seen(8);
  std::vector<std::thread> threads;
  for (auto& each : seen) threads.emplace_back([&each] { each = Shared::Instance(); });
  for (auto& thread : threads) thread.join();
  for (const Shared* each : seen) EXPECT_EQ(each, Shared::Instance());
  EXPECT_EQ(Shared::attempts, 2);
}

}  // namespace
}  // namespace QNKAVROProtocol
