#include "jtag/TextFile.h"

#include <cerrno>
#include <cstring>
#include <fstream>

namespace jtag {

bool readText(const std::string& path, size_t maxBytes, const char* what, std::string* text, std::string* why) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *why = std::string("cannot read: ") + std::strerror(errno);
        return false;
    }
    text->clear();
    char buf[65536];
    while (in.read(buf, sizeof buf) || in.gcount() > 0) {
        text->append(buf, static_cast<size_t>(in.gcount()));
        if (text->size() > maxBytes) {
            *why = "larger than " + std::to_string(maxBytes >> 20) + " MiB: not " + what;
            return false;
        }
    }
    if (in.bad()) {
        *why = std::string("cannot read: ") + std::strerror(errno);
        return false;
    }
    return true;
}

}  // namespace jtag
