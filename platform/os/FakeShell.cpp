#include "os/FakeShell.h"

namespace Os {

namespace {

// The text of a command that is exactly head + text + tail.
bool between(const std::string& command, const std::string& head, const std::string& tail, std::string* text) {
    if (command.size() < head.size() + tail.size() || command.compare(0, head.size(), head) != 0 ||
        command.compare(command.size() - tail.size(), tail.size(), tail) != 0)
        return false;
    *text = command.substr(head.size(), command.size() - head.size() - tail.size());
    return true;
}

// The extended patterns in use are "prefix(alt|alt|...)": any alternative
// found after the prefix, as a substring, is a match. A pattern without a
// group is a plain substring.
bool egrepMatches(const std::string& pattern, const std::string& text) {
    size_t open = pattern.find('(');
    if (open == std::string::npos || pattern.back() != ')') return text.find(pattern) != std::string::npos;
    std::string prefix = pattern.substr(0, open);
    std::string alts = pattern.substr(open + 1, pattern.size() - open - 2);
    size_t pos = 0;
    while (pos <= alts.size()) {
        size_t bar = alts.find('|', pos);
        if (bar == std::string::npos) bar = alts.size();
        if (text.find(prefix + alts.substr(pos, bar - pos)) != std::string::npos) return true;
        pos = bar + 1;
    }
    return false;
}

}  // namespace

int fakeCmdlineShell(const std::string& command, const std::string& cmdline) {
    std::string text;
    if (between(command, "fgrep -q '", "' /proc/cmdline", &text)) return cmdline.find(text) != std::string::npos ? 0 : 1;
    if (between(command, "/bin/grep -qE \"", "\" /proc/cmdline", &text)) return egrepMatches(text, cmdline) ? 0 : 1;
    return 127;
}

}  // namespace Os
