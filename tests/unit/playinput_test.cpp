// What the players read: PlayInput's stream over a file that changes
// between its check and its play (each block compared before any byte of it
// reaches the reader), its bounded copy of input that cannot be read twice,
// and the SVF reader's bound on a statement that never ends. Files with
// nothing to play: vectors_test and playinput_test.sh.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "jtag/PlayInput.h"
#include "jtag/Svf.h"

namespace {

// A file of this process's own under /tmp, removed with its object.
struct TempFile {
    explicit TempFile(const std::string& contents) { std::ofstream(path, std::ios::binary) << contents; }
    ~TempFile() { ::unlink(path.c_str()); }
    const std::string path = "/tmp/kelvorn-playinput-test-" + std::to_string(::getpid()) + ".svf";
};

// Lines of 16 bytes, one SIR each: 4096 statements to a block.
std::string sirLines(size_t bytes) {
    std::string s;
    while (s.size() < bytes) s += "SIR 8 TDI(ab); \n";
    return s.substr(0, bytes);
}

struct Pass {
    size_t actions = 0;
    std::string error;  // "byte N: what", or "" at the end of the file
};

Pass readAll(FILE* f) {
    Pass p;
    std::unique_ptr<jtag::Reader> reader = jtag::readerFor(jtag::VectorFormat::svf, f);
    jtag::Action a;
    try {
        while (reader->next(&a)) ++p.actions;
    } catch (const jtag::FormatError& e) {
        p.error = e.place.in("f") + ": " + e.what();
    }
    return p;
}

}  // namespace

// A file checked whole, then changed, then read again: the second read
// hands on every statement of the blocks that are as they were, and stops
// at the first block that differs, whatever the change: cut inside a block
// or at a block's edge, grown from a block's middle or its edge, or other
// bytes of the same length.
TEST(PlayInputStream, AChangedFileStopsAtTheFirstBlockThatDiffers) {
    const uint64_t kBlock = PlayInput::kBlockBytes;
    struct Case {
        const char* what;
        uint64_t size;
        std::function<void(const std::string&)> change;
        size_t actions;
        std::string error;
    };
    auto cut = [](uint64_t to) { return [to](const std::string& p) { ASSERT_EQ(::truncate(p.c_str(), to), 0); }; };
    auto grow = [](const std::string& p) { std::ofstream(p, std::ios::app) << "SIR 8 TDI(00); \n"; };
    auto rewrite = [](uint64_t at) {
        return [at](const std::string& p) { std::fstream(p, std::ios::in | std::ios::out).seekp(at) << "c"; };
    };
    const std::string since = "changed since it was checked (";
    const std::string played = "); nothing from here on was played";
    const uint64_t size = 2 * kBlock + 992;  // 8254 statements
    const Case cases[] = {
        {"unchanged", size, [](const std::string&) {}, 8254, ""},
        {"cut in block 1", size, cut(kBlock + 8), 4096,
         "f: byte 65536: " + since + "it ends at byte 65544 now, not at byte 132064" + played},
        {"cut at block 2's edge", size, cut(2 * kBlock), 8192,
         "f: byte 131072: " + since + "it ends at byte 131072 now, not at byte 132064" + played},
        {"cut to nothing", size, cut(0), 0,
         "f: byte 0: " + since + "it ends at byte 0 now, not at byte 132064" + played},
        {"grown from the last block's middle", size, grow, 8192,
         "f: byte 131072: " + since + "it goes on past byte 132064 now, where it ended" + played},
        {"grown from a block's edge", 2 * kBlock, grow, 8192,
         "f: byte 131072: " + since + "it goes on past byte 131072 now, where it ended" + played},
        {"one byte other in block 1", size, rewrite(kBlock + 11), 4096,
         "f: byte 65536: " + since + "its bytes 65536 to 131071 differ" + played},
        {"one byte other in the last block", size, rewrite(size - 5), 8192,
         "f: byte 131072: " + since + "its bytes 131072 to 132063 differ" + played},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TempFile file(sirLines(c.size));
        const std::string& path = file.path;
        PlayInput input;
        std::string why;
        ASSERT_TRUE(input.open(path, &why)) << why;
        EXPECT_EQ(jtag::sniffFormat(input.file()), jtag::VectorFormat::svf);
        Pass check = readAll(input.file());
        EXPECT_EQ(check.error, "");
        EXPECT_EQ(check.actions, c.size / 16);
        c.change(path);
        input.rewind();
        Pass play = readAll(input.file());
        EXPECT_EQ(play.actions, c.actions);
        EXPECT_EQ(play.error, c.error);
        EXPECT_EQ(input.changed(), !c.error.empty());
    }
}

// A change between the first look at the file (the format's sniff, which
// reads the first block) and the check: the check reads the first block as
// the sniff did, the bytes its hash was made of, and the play finds the change.
TEST(PlayInputStream, AChangeBeforeTheCheckIsFoundByThePlay) {
    TempFile file(sirLines(3 * PlayInput::kBlockBytes));
    const std::string& path = file.path;
    PlayInput input;
    std::string why;
    ASSERT_TRUE(input.open(path, &why)) << why;
    jtag::sniffFormat(input.file());
    std::fstream(path, std::ios::in | std::ios::out).seekp(100) << "c";
    Pass check = readAll(input.file());
    EXPECT_EQ(check.actions, 3 * 4096u);
    EXPECT_EQ(check.error, "");
    input.rewind();
    Pass play = readAll(input.file());
    EXPECT_EQ(play.actions, 0u);
    EXPECT_EQ(play.error,
              "f: byte 0: changed since it was checked (its bytes 0 to 65535 differ); nothing from here on was played");
}

// A read that fails is no change: it keeps its own reason ("cannot read"
// in kelvorn-play).
TEST(PlayInputStream, ADirectoryFailsWithItsOwnReason) {
    PlayInput input;
    std::string why;
    ASSERT_TRUE(input.open("/", &why)) << why;
    EXPECT_EQ(readAll(input.file()).error, "f: byte 0: Is a directory");
    EXPECT_FALSE(input.changed());
}

// Input that cannot be read twice (here a pipe, by its /proc name) is
// copied up to the copy's limit, and refused beyond it, with the limit
// named; within it, both reads give the very bytes that came.
TEST(PlayInputCopy, ThePipeIsCopiedUpToItsLimit) {
    for (size_t bytes : {size_t{90000}, size_t{100000}, size_t{100001}, size_t{200000}}) {
        SCOPED_TRACE(bytes);
        int fds[2];
        ASSERT_EQ(::pipe(fds), 0);
        std::string text = sirLines(bytes);
        std::thread writer([&] {
            ASSERT_EQ(::write(fds[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
            ::close(fds[1]);
        });
        ::setenv("TMPDIR", "/tmp", 1);
        PlayInput input;
        input.copyLimitIs(100000);
        std::string why;
        bool opened = input.open("/proc/self/fd/" + std::to_string(fds[0]), &why);
        // The copy stops reading when it refuses: the writer's last bytes are drained here.
        std::thread drain([&] {
            char sink[4096];
            while (::read(fds[0], sink, sizeof sink) > 0) {
            }
        });
        writer.join();
        ::close(fds[0]);
        drain.join();
        if (bytes > 100000) {
            EXPECT_FALSE(opened);
            EXPECT_EQ(why, "cannot keep a copy of it in /tmp: it is longer than the 100000 bytes a copy may hold; "
                           "give a regular file instead");
            continue;
        }
        ASSERT_TRUE(opened) << why;
        EXPECT_TRUE(input.copied());
        EXPECT_EQ(input.size(), bytes);
        for (int pass = 0; pass < 2; ++pass) {
            std::string back(bytes + 1, '\0');
            EXPECT_EQ(std::fread(&back[0], 1, back.size(), input.file()), bytes);
            EXPECT_EQ(back.substr(0, bytes), text);
            input.rewind();
        }
    }
}

// A statement may take maxStatementBytes from the first byte of its
// keyword to its ';', comments and line breaks included, and not a byte
// more; the error names the line it started on. White space and comments
// between statements do not count.
TEST(SvfBound, AStatementWithoutItsEndIsASyntaxErrorAtItsLine) {
    const size_t kBits = 64;
    const uint64_t bound = jtag::maxStatementBytes(kBits);
    ASSERT_EQ(bound, 65664u);
    auto statementOf = [](uint64_t bytes) {
        std::string s = "SDR 8 TDI(";
        s += std::string(bytes - s.size() - 4, ' ');
        return s + "00);";
    };
    auto read = [&](const std::string& text) {
        FILE* f = ::fmemopen(const_cast<char*>(text.data()), text.size(), "r");
        jtag::SvfReader reader(f, kBits);
        jtag::Action a;
        std::string result;
        try {
            while (reader.next(&a)) result += std::to_string(a.place.at) + " ";
        } catch (const jtag::FormatError& e) {
            result += e.place.in("f") + ": " + e.what();
        }
        std::fclose(f);
        return result;
    };
    std::string tooLong = "no ';' within the 65664 bytes a statement may take from its start";
    std::string between = std::string(100000, ' ') + "\n! " + std::string(100000, 'c') + "\n";
    EXPECT_EQ(read(between + statementOf(bound) + "\n"), "3 ");
    EXPECT_EQ(read(between + statementOf(bound + 1) + "\n"), "f:3: SDR: " + tooLong);
    EXPECT_EQ(read("SIR 8 TDI(0);\n\nSDR 8 TDI(00) ! " + std::string(bound, 'c') + "\n;"), "1 f:3: SDR: " + tooLong);
    EXPECT_EQ(read("SIR 8 TDI(0);\nSDR 8 TDI(00)" + std::string(bound, '\n') + ";"), "1 f:2: SDR: " + tooLong);
    EXPECT_EQ(read("\n" + std::string(bound + 1, 'A')), "f:2: " + tooLong);
}
