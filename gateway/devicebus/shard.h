// The bus on one reactor: the lanes of the devices that have been asked there, and the timer that
// ends what lasts too long. Made by DeviceBus.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "gateway/config/configuration.h"
#include "gateway/devicebus/lane.h"

namespace qn::devicebus {

// On the reactor's thread only, but for the constructor and the destructor.
class Shard {
 public:
  // How late a time-out may be.
  static constexpr std::chrono::milliseconds kSweepPeriod{100};
  // The same while only resting connections are left: they are closed this late.
  static constexpr std::chrono::milliseconds kIdleSweepPeriod{1000};

  // `shards`: how many share what a device may have.
  Shard(boost::asio::io_context& reactor, const Answers& answers, DeviceDirectory& directory,
        std::size_t shards);

  boost::asio::io_context& reactor() { return reactor_; }
  // Null when the configuration has no such device.
  std::shared_ptr<Device> device(std::string_view index);
  // Takes a request to its device.
  void accept(RequestPtr request);
  // The same for a handler of its own: nothing is thrown.
  void acceptPosted(RequestPtr request) noexcept;
  // Ends every request with the document of a stopping gateway; later ones too.
  void shutDown();

 private:
  Lane* lane(std::string_view index);
  void followConfiguration();
  void watch(std::chrono::milliseconds period);
  void sweep() noexcept;
  void sweepLanes();

  boost::asio::io_context& reactor_;
  const Answers& answers_;
  DeviceDirectory& directory_;
  const std::size_t shards_;
  std::shared_ptr<const Configuration> configuration_;  // that the lanes follow
  Lane::Limits limits_;
  std::map<std::string, std::unique_ptr<Lane>, std::less<>> lanes_;
  std::vector<std::unique_ptr<Lane>> retired_;  // until their last request has ended
  boost::asio::steady_timer timer_;
  std::chrono::milliseconds period_{0};  // of the timer; 0: it is not running
  // Counts the timer's starts and the end. A handler that was on its way when the shard went looks
  // here, not into the shard.
  const std::shared_ptr<uint64_t> timerStarts_ = std::make_shared<uint64_t>(0);
  bool stopped_ = false;
};

}  // namespace qn::devicebus
