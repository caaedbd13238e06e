// The address a server listens on, as its --listen option gives it.
#pragma once
#include <string>

namespace device {

// "ADDRESS:PORT" or ":PORT" (the loopback address); an IPv6 address in
// brackets. Sets *host and *port, or returns what is wrong, one line.
std::string parseListen(const std::string& text, std::string* host, std::string* port);

}  // namespace device
