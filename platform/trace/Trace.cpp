#include "trace/Trace.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// "3", "0-3" or "*" into a mask; false when the text is none of these.
bool levelsToMask(const char* s, size_t n, U32* mask) {
    if (n == 1 && s[0] == '*') {
        *mask = 0xffffffffu;
        return true;
    }
    unsigned from = 0, to = 0;
    int used = 0;
    std::string item(s, n);
    if (std::sscanf(item.c_str(), "%u-%u%n", &from, &to, &used) == 2 && static_cast<size_t>(used) == n) {
    } else if (std::sscanf(item.c_str(), "%u%n", &from, &used) == 1 && static_cast<size_t>(used) == n) {
        to = from;
    } else {
        return false;
    }
    if (from > to || to > 31) return false;
    for (unsigned l = from; l <= to; ++l) *mask |= 1u << l;
    return true;
}

}  // namespace

// The value is a list of entries separated by spaces or semicolons. An
// entry is "<handle>/<levels>" or just "<levels>" for every handle; levels
// are a comma-separated list of numbers, ranges "a-b", or "*" for all.
U32 TraceHandle::maskFromSetting(const char* desc, const char* name) {
    U32 mask = 0;
    if (!desc) return 0;
    std::string all(desc);
    size_t pos = 0;
    while (pos < all.size()) {
        size_t end = all.find_first_of(" ;", pos);
        if (end == std::string::npos) end = all.size();
        std::string entry = all.substr(pos, end - pos);
        pos = end + 1;
        if (entry.empty()) continue;
        std::string levels = entry;
        size_t slash = entry.find('/');
        if (slash != std::string::npos) {
            std::string who = entry.substr(0, slash);
            if (who != name && who != "*") continue;
            levels = entry.substr(slash + 1);
        }
        size_t p = 0;
        while (p <= levels.size()) {
            size_t comma = levels.find(',', p);
            if (comma == std::string::npos) comma = levels.size();
            levelsToMask(levels.c_str() + p, comma - p, &mask);
            p = comma + 1;
        }
    }
    return mask;
}

TraceHandle::TraceHandle(const char* name, bool)
    : name_(name), mask_(maskFromSetting(std::getenv("KELVORN_TRACE"), name)) {}

void TraceStream::append(const char* s, size_t n) {
    size_t room = sizeof buf_ - 1 - len_;
    if (n > room) n = room;
    std::memcpy(buf_ + len_, s, n);
    len_ += n;
}

TraceStream& TraceStream::operator<<(const char* s) {
    if (!s) s = "(null)";
    append(s, std::strlen(s));
    return *this;
}

TraceStream& TraceStream::operator<<(int v) {
    char b[16];
    int n = hex_ ? std::snprintf(b, sizeof b, "%x", static_cast<unsigned>(v)) : std::snprintf(b, sizeof b, "%d", v);
    append(b, static_cast<size_t>(n));
    return *this;
}

TraceStream& TraceStream::operator<<(unsigned int v) {
    char b[16];
    int n = std::snprintf(b, sizeof b, hex_ ? "%x" : "%u", v);
    append(b, static_cast<size_t>(n));
    return *this;
}

TraceStream& TraceStream::operator<<(std::ios_base& (*manip)(std::ios_base&)) {
    if (manip == static_cast<std::ios_base& (*)(std::ios_base&)>(std::hex)) hex_ = true;
    if (manip == static_cast<std::ios_base& (*)(std::ios_base&)>(std::dec)) hex_ = false;
    return *this;
}

TraceHelper::TraceHelper(TraceHandle& handle, FacilityLevel level, const char* file, int line,
                         const char* function) {
    char head[160];
    int n = std::snprintf(head, sizeof head, "%s/%u %s:%d %s: ", handle.name(), level, file, line, function);
    stream_.append(head, static_cast<size_t>(n) < sizeof head ? static_cast<size_t>(n) : sizeof head - 1);
}

TraceHelper::~TraceHelper() {
    stream_.buf_[stream_.len_++] = '\n';  // append() always leaves room for it
    std::fflush(stdout);                   // keep the order of lines on a shared terminal
    ssize_t ignored = ::write(2, stream_.buf_, stream_.len_);
    (void)ignored;
}

String _fmt(const char* format, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    return String(buf);
}
