// The orders that a running simulator takes, in one table: as the JSON members of the control
// resource, as the words of a command ("qn-subdevice fault hang --count 3") and as those of a line
// of a scripted day.
#pragma once

#include <json/json.h>

#include <CLI/App.hpp>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace subdevice {

// What is wrong with the orders, in words; empty: nothing. Members and kinds that do not exist are
// wrong, and so are values out of range.
std::string wrongWithOrders(const Json::Value& orders);

// Adds a command for each order; `given` gets the order as the control resource takes it. Each
// command is shown to `declared`, for options of the caller's own.
void declareOrders(CLI::App& app, const std::function<void(const Json::Value& orders)>& given,
                   const std::function<void(CLI::App& command)>& declared = {});

// The orders that the words say. Throws std::runtime_error that says what is wrong with them.
Json::Value ordersOf(std::string_view words);

}  // namespace subdevice
