#include "serve/Protocol.h"

#include <cstdio>

namespace serve {

std::string quoted(const uint8_t* data, size_t n) {
    std::string s = "'";
    for (size_t i = 0; i < n; ++i) {
        if (data[i] >= 0x20 && data[i] < 0x7f && data[i] != '\\' && data[i] != '\'') {
            s += static_cast<char>(data[i]);
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", data[i]);
            s += hex;
        }
    }
    return s + "'";
}

}  // namespace serve
