// See reactors.h.
#include "gateway/net/reactors.h"

#include <pthread.h>

#include <algorithm>
#include <string>
#include <utility>

namespace qn {
namespace {
thread_local int currentReactor = Reactors::kNone;
}

Reactors::Reactors(std::size_t count, std::string name) : name_(std::move(name)) {
  for (std::size_t i = 0; i < std::max<std::size_t>(count, 1); ++i) {
    // The hint of one thread lets Asio skip its cross-thread wake-ups on the reactor's own posts.
    contexts_.push_back(std::make_unique<Context>(1));
  }
}

Reactors::~Reactors() {
  stop();
  // All handlers go before the first context does: one queued here may own a socket of another.
  for (auto& context : contexts_) context->shutdown();
}

void Reactors::start() {
  for (std::size_t i = 0; i < contexts_.size(); ++i) {
    guards_.emplace_back(contexts_[i]->get_executor());
    threads_.emplace_back([this, i] {
      currentReactor = static_cast<int>(i);
      pthread_setname_np(pthread_self(), (name_ + std::to_string(i)).c_str());
      contexts_[i]->run();
    });
  }
}

void Reactors::stop() {
  guards_.clear();
  for (auto& context : contexts_) context->stop();
  for (auto& thread : threads_) thread.join();
  threads_.clear();
}

int Reactors::current() { return currentReactor; }

}  // namespace qn
