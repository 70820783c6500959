// The compiled halves of Asio and Beast, for every target that links qn_net.
#include <boost/asio/impl/src.hpp>
#include <boost/beast/src.hpp>
