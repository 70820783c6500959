// Fetches a picture from the URL that a gateway put into a face record, as a device does.
#pragma once

#include <boost/asio/io_context.hpp>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace subdevice {

constexpr std::size_t kPictureBytes = 10 * 1024 * 1024;

using PictureArrived = std::function<void(std::optional<std::string> picture)>;

// Calls `arrived` once, later, on the context's thread: with the body of a 200, or with nothing
// when the URL is not "http://" with a numeric address, or no picture has come within 10 s.
void fetchPicture(boost::asio::io_context& io, std::string_view url, PictureArrived arrived);

}  // namespace subdevice
