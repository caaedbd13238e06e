#include "jtag/PlayInput.h"

#include "jtag/Svf.h"
#include "jtag/Xsvf.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

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

bool writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = ENOSPC;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// SipHash-2-4 (Aumasson and Bernstein): a 64-bit tag of data under a
// 128-bit key. The key is random for each input, so that no content can be
// made to give the tag of another.
uint64_t rotl(uint64_t x, int b) { return (x << b) | (x >> (64 - b)); }

void sipRound(uint64_t v[4]) {
    v[0] += v[1], v[1] = rotl(v[1], 13), v[1] ^= v[0], v[0] = rotl(v[0], 32);
    v[2] += v[3], v[3] = rotl(v[3], 16), v[3] ^= v[2];
    v[0] += v[3], v[3] = rotl(v[3], 21), v[3] ^= v[0];
    v[2] += v[1], v[1] = rotl(v[1], 17), v[1] ^= v[2], v[2] = rotl(v[2], 32);
}

uint64_t sipHash(const uint64_t key[2], const uint8_t* data, size_t size) {
    uint64_t v[4] = {key[0] ^ 0x736f6d6570736575ull, key[1] ^ 0x646f72616e646f6dull, key[0] ^ 0x6c7967656e657261ull,
                     key[1] ^ 0x7465646279746573ull};
    auto word = [&](uint64_t m) {
        v[3] ^= m;
        sipRound(v);
        sipRound(v);
        v[0] ^= m;
    };
    size_t whole = size & ~size_t{7};
    for (size_t i = 0; i < whole; i += 8) {
        uint64_t m = 0;
        for (int b = 7; b >= 0; --b) m = m << 8 | data[i + b];  // little-endian
        word(m);
    }
    uint64_t last = static_cast<uint64_t>(size & 0xff) << 56;
    for (size_t b = 0; whole + b < size; ++b) last |= static_cast<uint64_t>(data[whole + b]) << (8 * b);
    word(last);
    v[2] ^= 0xff;
    for (int r = 0; r < 4; ++r) sipRound(v);
    return v[0] ^ v[1] ^ v[2] ^ v[3];
}

}  // namespace

// The stream's state: the descriptor, the block in hand, and the length and
// hash of every block as it was first read.
struct PlayInput::Blocks {
    struct Record {
        uint64_t hash;
        uint32_t length;
    };
    static constexpr uint64_t kNone = ~uint64_t{0};

    explicit Blocks(int fd) : fd(fd), block(kBlockBytes) {
        if (::getrandom(key, sizeof key, 0) != static_cast<ssize_t>(sizeof key)) {
            struct timespec t = {};
            ::clock_gettime(CLOCK_MONOTONIC, &t);
            key[0] = static_cast<uint64_t>(t.tv_nsec) * 0x9e3779b97f4a7c15ull ^ static_cast<uint64_t>(::getpid());
            key[1] = static_cast<uint64_t>(t.tv_sec) ^ reinterpret_cast<uintptr_t>(this);
        }
    }
    ~Blocks() { ::close(fd); }

    // Where the end was when it was first reached.
    uint64_t checkedSize() const { return (records.size() - 1) * kBlockBytes + records.back().length; }

    // Block i into `block`; false, with the reason left for the Input
    // (readFailureIs) or in errno, when it cannot be read or is not the
    // block first read there.
    bool load(uint64_t i) {
        if (loaded == i) return true;
        // The record is of the file in order: blocks skipped over are read first.
        while (records.size() < i && !endKnown)
            if (!load(records.size())) return false;
        loaded = kNone;
        size_t n = 0;
        uint64_t at = i * kBlockBytes;
        while (n < kBlockBytes) {
            ssize_t r = ::pread(fd, block.data() + n, kBlockBytes - n, static_cast<off_t>(at + n));
            if (r < 0 && errno == EINTR) continue;
            if (r < 0) return false;
            if (r == 0) break;
            n += static_cast<size_t>(r);
        }
        uint64_t hash = sipHash(key, block.data(), n);
        if (i < records.size()) {
            const Record& was = records[i];
            if (n != was.length || hash != was.hash) return differs(at, n, was.length);
        } else if (endKnown) {
            if (n > 0) return differs(at, n, 0);
        } else {
            records.push_back({hash, static_cast<uint32_t>(n)});
            endKnown = n < kBlockBytes;
        }
        loaded = i;
        length = n;
        return true;
    }

    // The reason for a block at `at` of n bytes where `was` were, or the
    // same number of other bytes.
    bool differs(uint64_t at, size_t n, size_t was) {
        changed = true;
        std::string what;
        if (n < was) {
            what = "it ends at byte " + std::to_string(at + n) + " now";
            if (endKnown) what += ", not at byte " + std::to_string(checkedSize());
        } else if (n > was) {
            what = "it goes on past byte " + std::to_string(at + was) + " now, where it ended";
        } else {
            what = "its bytes " + std::to_string(at) + " to " + std::to_string(at + n - 1) + " differ";
        }
        jtag::readFailureIs(endKnown ? "changed since it was checked (" + what + "); nothing from here on was played"
                                     : "changed while it was being checked (" + what + ")");
        errno = EIO;
        return false;
    }

    ssize_t read(char* out, size_t size) {
        size_t done = 0;
        while (done < size) {
            if (!load(position / kBlockBytes)) return done ? static_cast<ssize_t>(done) : -1;
            size_t offset = static_cast<size_t>(position % kBlockBytes);
            if (offset >= length) break;
            size_t n = std::min(size - done, length - offset);
            std::memcpy(out + done, block.data() + offset, n);
            position += n;
            done += n;
        }
        return static_cast<ssize_t>(done);
    }

    int seek(off64_t* offset, int whence) {
        off64_t to = whence == SEEK_SET ? *offset : whence == SEEK_CUR ? static_cast<off64_t>(position) + *offset : -1;
        if (to < 0) {
            errno = EINVAL;
            return -1;
        }
        position = static_cast<uint64_t>(to);
        *offset = to;
        return 0;
    }

    int fd;
    uint64_t key[2] = {};
    std::vector<Record> records;
    bool endKnown = false;  // the end was reached: records cover the whole file
    bool changed = false;
    uint64_t position = 0;
    std::vector<uint8_t> block;
    uint64_t loaded = kNone;  // which block `block` holds
    size_t length = 0;        // and how many bytes of it
};

PlayInput::PlayInput() = default;

PlayInput::~PlayInput() {
    if (file_) std::fclose(file_);
}

bool PlayInput::open(const std::string& path, std::string* why) {
    if (path == "-") {
        // Standard input is taken from where it stands, and always copied:
        // what comes before that place is not this run's to read.
        return copy(stdin, why);
    }
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        *why = std::string("cannot read: ") + std::strerror(errno);
        return false;
    }
    struct stat st = {};
    if (::fstat(fd, &st) == 0 && readTwiceFails(st)) {
        FILE* from = ::fdopen(fd, "rb");
        if (!from) {
            *why = std::string("cannot read: ") + std::strerror(errno);
            ::close(fd);
            return false;
        }
        bool ok = copy(from, why);
        std::fclose(from);
        return ok;
    }
    opened_ = st;
    size_ = S_ISREG(st.st_mode) ? static_cast<uint64_t>(st.st_size) : 0;
    return stream(fd, why);
}

bool PlayInput::stream(int fd, std::string* why) {
    blocks_ = std::make_unique<Blocks>(fd);
    cookie_io_functions_t io = {};
    io.read = [](void* c, char* out, size_t size) { return static_cast<Blocks*>(c)->read(out, size); };
    io.seek = [](void* c, off64_t* offset, int whence) { return static_cast<Blocks*>(c)->seek(offset, whence); };
    io.close = [](void*) { return 0; };
    file_ = ::fopencookie(blocks_.get(), "rb", io);
    if (!file_) {
        *why = std::string("cannot read: ") + std::strerror(errno);
        return false;
    }
    // Unbuffered: each read goes to the blocks, which hold the bytes already.
    std::setvbuf(file_, nullptr, _IONBF, 0);
    return true;
}

bool PlayInput::copy(FILE* from, std::string* why) {
    std::string dir = tempDirectory();
    int fd = namelessFile(dir);
    auto cannot = [&](const std::string& what) {
        *why = "cannot keep a copy of it in " + dir + ": " + what;
        return false;
    };
    if (fd < 0) return cannot(std::strerror(errno));
    copied_ = true;
    if (!stream(fd, why)) return false;
    std::vector<char> block(kBlockBytes);
    for (;;) {
        size_t n = std::fread(block.data(), 1, block.size(), from);
        if (n > 0) {
            if (size_ + n > copyLimit_)
                return cannot("it is longer than the " + std::to_string(copyLimit_) +
                              " bytes a copy may hold; give a regular file instead");
            // The file system's room, asked again each time: others write there too.
            struct statvfs fs = {};
            if (::fstatvfs(fd, &fs) == 0) {
                uint64_t unit = fs.f_frsize ? fs.f_frsize : fs.f_bsize;
                uint64_t reserve = std::min<uint64_t>(fs.f_blocks * unit / 16, kMaxReserveBytes);
                if (fs.f_bavail * unit < n + reserve)
                    return cannot("after " + std::to_string(size_) + " bytes, more would leave less than " +
                                  std::to_string(reserve) +
                                  " bytes free there; set TMPDIR to a file system with more room, or give a regular "
                                  "file instead");
            }
            if (!writeAll(fd, block.data(), n)) return cannot(std::strerror(errno));
        }
        size_ += n;
        if (n < block.size()) break;
    }
    if (std::ferror(from)) {
        *why = std::string("cannot read: ") + std::strerror(errno ? errno : EIO);
        return false;
    }
    return true;
}

void PlayInput::rewind() { std::rewind(file_); }

bool PlayInput::unchanged() const {
    if (copied_) return true;
    struct stat now = {};
    if (::fstat(blocks_->fd, &now) != 0) return false;
    return now.st_size == opened_.st_size && now.st_mtim.tv_sec == opened_.st_mtim.tv_sec &&
           now.st_mtim.tv_nsec == opened_.st_mtim.tv_nsec;
}

bool PlayInput::changed() const { return blocks_ && blocks_->changed; }

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
