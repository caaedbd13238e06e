#include "device/Listen.h"

#include <netdb.h>
#include <sys/socket.h>

namespace device {

std::string parseListen(const std::string& text, std::string* hostOut, std::string* portOut) {
    const std::string wants = "wants ADDRESS:PORT or :PORT, for example 127.0.0.1:3335";
    size_t colon = text.rfind(':');
    if (colon == std::string::npos) return wants;
    std::string host = text.substr(0, colon), port = text.substr(colon + 1);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    if (host.empty()) host = "127.0.0.1";
    if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos ||
        std::stoul(port) > 65535)
        return wants;
    addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0) return "not a numeric address: " + host;
    ::freeaddrinfo(found);
    *hostOut = host;
    *portOut = port;
    return "";
}

}  // namespace device
