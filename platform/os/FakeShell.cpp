#include "os/FakeShell.h"

#include <regex>

namespace Os {

int fakeCmdlineShell(const std::string& command, const std::string& cmdline) {
    static const std::regex fgrep(R"(fgrep -q '([^']*)' /proc/cmdline)");
    static const std::regex egrep(R"re(/bin/grep -qE "([^"]*)" /proc/cmdline)re");
    std::smatch m;
    if (std::regex_match(command, m, fgrep)) return cmdline.find(m[1].str()) != std::string::npos ? 0 : 1;
    if (std::regex_match(command, m, egrep)) return std::regex_search(cmdline, std::regex(m[1].str(), std::regex::extended)) ? 0 : 1;
    return 127;
}

}  // namespace Os
