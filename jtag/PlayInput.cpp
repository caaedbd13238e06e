#include "jtag/PlayInput.h"

#include "jtag/Svf.h"
#include "jtag/Xsvf.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

// The copy is made through a buffer of this many bytes.
constexpr size_t kCopyBlock = 1 << 16;

// The directory for the copy: $TMPDIR when it is set, else /tmp.
std::string tempDirectory() {
    const char* dir = std::getenv("TMPDIR");
    return dir && *dir ? dir : "/tmp";
}

// A nameless file in dir, open for reading and writing; -1 and errno when
// none can be made. O_TMPFILE makes it without a name at all; where the
// file system cannot, a named one is unlinked at once.
int namelessFile(const std::string& dir) {
    int fd = ::open(dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)) return fd;
    std::string name = dir + "/kelvorn-play-XXXXXX";
    fd = ::mkostemp(&name[0], O_CLOEXEC);
    if (fd >= 0) ::unlink(name.c_str());
    return fd;
}

bool readTwiceFails(const struct stat& st) { return S_ISFIFO(st.st_mode) || S_ISCHR(st.st_mode) || S_ISSOCK(st.st_mode); }

}  // namespace

PlayInput::~PlayInput() {
    if (file_ && ownsFile_) std::fclose(file_);
}

bool PlayInput::open(const std::string& path, std::string* why) {
    if (path == "-") {
        // Standard input is taken from where it stands, and always copied:
        // what comes before that place is not this run's to read.
        return copy(stdin, why);
    }
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) {
        *why = std::string("cannot read: ") + std::strerror(errno);
        return false;
    }
    struct stat st = {};
    if (::fstat(fileno(f), &st) == 0 && readTwiceFails(st)) {
        bool ok = copy(f, why);
        std::fclose(f);
        return ok;
    }
    file_ = f;
    ownsFile_ = true;
    opened_ = st;
    size_ = S_ISREG(st.st_mode) ? static_cast<uint64_t>(st.st_size) : 0;
    return true;
}

bool PlayInput::copy(FILE* from, std::string* why) {
    std::string dir = tempDirectory();
    int fd = namelessFile(dir);
    FILE* to = fd >= 0 ? ::fdopen(fd, "w+b") : nullptr;
    if (!to) {
        *why = "cannot keep a copy of it in " + dir + ": " + std::strerror(errno);
        if (fd >= 0) ::close(fd);
        return false;
    }
    file_ = to;
    ownsFile_ = true;
    copied_ = true;
    std::vector<char> block(kCopyBlock);
    for (;;) {
        size_t n = std::fread(block.data(), 1, block.size(), from);
        if (n > 0 && std::fwrite(block.data(), 1, n, to) != n) {
            *why = "cannot keep a copy of it in " + dir + ": " + std::strerror(errno);
            return false;
        }
        size_ += n;
        if (n < block.size()) break;
    }
    if (std::ferror(from)) {
        *why = std::string("cannot read: ") + std::strerror(errno ? errno : EIO);
        return false;
    }
    if (std::fflush(to) != 0) {
        *why = "cannot keep a copy of it in " + dir + ": " + std::strerror(errno);
        return false;
    }
    rewind();
    return true;
}

void PlayInput::rewind() { std::rewind(file_); }

bool PlayInput::unchanged() const {
    if (copied_) return true;
    struct stat now = {};
    if (::fstat(fileno(file_), &now) != 0) return false;
    return now.st_size == opened_.st_size && now.st_mtim.tv_sec == opened_.st_mtim.tv_sec &&
           now.st_mtim.tv_nsec == opened_.st_mtim.tv_nsec;
}

namespace jtag {

VectorFormat sniffFormat(FILE* f) {
    unsigned char head[kSniffBytes];
    size_t n = std::fread(head, 1, sizeof head, f);
    std::rewind(f);
    for (size_t i = 0; i < n; ++i) {
        unsigned c = head[i];
        bool space = c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
        if ((c < 0x20 && !space) || c == 0x7f) return VectorFormat::xsvf;
    }
    return VectorFormat::svf;
}

std::unique_ptr<Reader> readerFor(VectorFormat format, FILE* f) {
    if (format == VectorFormat::xsvf) return std::make_unique<XsvfReader>(f);
    return std::make_unique<SvfReader>(f);
}

}  // namespace jtag
