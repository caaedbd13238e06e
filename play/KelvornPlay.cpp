#include "play/KelvornPlay.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "jtag/CheckedPlay.h"
#include "jtag/PlayInput.h"
#include "device/PciAddress.h"
#include "device/Session.h"
#include "xilinx/XilIntfC.h"

namespace {

// The progress line is redrawn at most this often, and is this wide.
constexpr uint64_t kRefreshNs = 100000000;
constexpr int kBarWidth = 24;
// Mismatch lines (with --ignore-tdo) and overrun warnings shown at most; the summary counts the rest.
constexpr uint64_t kMaxLines = 10;

// The progress line on a terminal: the share of the file read, the bits
// shifted, and the time left at the pace so far.
class Progress {
  public:
    Progress(bool on, uint64_t fileSize) : on_(on), size_(fileSize), start_(jtag::systemClock().now()) {}
    ~Progress() { clear(); }

    void update(const jtag::Reader& reader, const jtag::PlayStats& stats) {
        if (!on_) return;
        uint64_t now = jtag::systemClock().now();
        if (now - last_ < kRefreshNs) return;
        last_ = now;
        double share = size_ ? static_cast<double>(reader.bytesRead()) / size_ : 1;
        if (share > 1) share = 1;
        int filled = static_cast<int>(share * kBarWidth);
        char left[32] = "--:--";
        if (share >= 0.01) {
            double s = (now - start_) * 1e-9 * (1 - share) / share;
            std::snprintf(left, sizeof left, "%d:%02d", static_cast<int>(s / 60), static_cast<int>(s) % 60);
        }
        std::fprintf(stderr, "\r[%.*s%*s] %3d%%  %llu bits  %s left\033[K", filled, "########################",
                     kBarWidth - filled, "", static_cast<int>(share * 100),
                     static_cast<unsigned long long>(stats.bits), left);
        std::fflush(stderr);
        drawn_ = true;
    }
    void clear() {
        if (!drawn_) return;
        std::fprintf(stderr, "\r\033[K");
        std::fflush(stderr);
        drawn_ = false;
    }

  private:
    bool on_;
    uint64_t size_, start_, last_ = 0;
    bool drawn_ = false;
};

struct Options {
    std::string path;
    bool ignoreTdo = false;
    bool quiet = false;
};

// The hooks of a checked play: the progress line, overrun warnings and
// mismatch lines (at most kMaxLines of each) on stderr.
void showOn(jtag::CheckedPlay& play, const Options& o, Progress& progress, uint64_t& overruns) {
    play.onProgress = [&] { progress.update(play.reader(), play.stats()); };
    play.onOverrun = [&](const jtag::Action& x) {
        if (o.quiet || ++overruns > kMaxLines) return;
        progress.clear();
        std::fprintf(stderr, "kelvorn-play: %s: warning: %s %s\n", x.place.in(o.path).c_str(), x.statement,
                     play.player().warning().c_str());
    };
    play.onMismatch = [&](const jtag::Action&, const std::string& message) {
        if (play.stats().mismatches <= kMaxLines) {
            progress.clear();
            std::fprintf(stderr, "kelvorn-play: %s\n", message.c_str());
        }
        return o.ignoreTdo;
    };
}

// The outcome as the exit status; one line on stderr for a failure other
// than a mismatch (each of those has had its line).
int statusOf(const jtag::PlayOutcome& outcome, Progress& progress) {
    if (outcome.end != jtag::PlayOutcome::played && outcome.end != jtag::PlayOutcome::mismatch) {
        progress.clear();
        std::fprintf(stderr, "kelvorn-play: %s\n", outcome.message.c_str());
    }
    switch (outcome.end) {
        case jtag::PlayOutcome::played: return kPlayed;
        case jtag::PlayOutcome::mismatch: return kMismatch;
        case jtag::PlayOutcome::unreadable:
        case jtag::PlayOutcome::changed: return kUnreadable;
        case jtag::PlayOutcome::syntax: return kSyntax;
        case jtag::PlayOutcome::unsupported:
        case jtag::PlayOutcome::memory: return kUnsupported;
    }
    return kUnsupported;
}

std::string counts(const jtag::Reader& reader, const jtag::PlayStats& s) {
    char line[256];
    std::snprintf(line, sizeof line, "%llu statements, %llu scans, %llu bits",
                  static_cast<unsigned long long>(reader.statements()), static_cast<unsigned long long>(s.scans),
                  static_cast<unsigned long long>(s.bits));
    return line;
}

// "0.011 s", "4.2 s".
std::string seconds(double s) {
    char t[32];
    std::snprintf(t, sizeof t, s < 1 ? "%.3f s" : "%.1f s", s);
    return t;
}

// " at 97.6 kHz": the mean TCK rate of the play.
std::string rate(uint64_t cycles, double seconds) {
    if (cycles == 0 || seconds <= 0) return "";
    double hz = cycles / seconds;
    char r[32];
    if (hz >= 1e6)
        std::snprintf(r, sizeof r, " at %.3g MHz", hz * 1e-6);
    else if (hz >= 1e3)
        std::snprintf(r, sizeof r, " at %.3g kHz", hz * 1e-3);
    else
        std::snprintf(r, sizeof r, " at %.3g Hz", hz);
    return r;
}

std::string extras(const jtag::PlayStats& s) {
    std::string e;
    if (s.retries) e += ", " + std::to_string(s.retries) + " retries";
    if (s.mismatches) e += ", " + std::to_string(s.mismatches) + " TDO mismatches";
    if (s.overruns) e += ", " + std::to_string(s.overruns) + " RUNTEST over MAXIMUM";
    return e;
}

}  // namespace

int kelvornPlayMain(int argc, char** argv) {
    std::string fpga, address, format = "auto";
    bool testMode = false, dryRun = false;
    Options o;
    CLI::App app{
        "Plays an SVF or XSVF file on the JTAG chain of a logic device, through the GPIO pins that\n"
        "the named device is wired to. Statuses: 0 played, every TDO as expected; 1 the interface\n"
        "refused (lock held, unknown device); 2 usage; 3 no backend serves the name on this board;\n"
        "4 syntax error; 5 unsupported statement; 6 TDO mismatch; 7 the file cannot be read.",
        "kelvorn-play"};
    app.set_version_flag("--version", "kelvorn-play " KELVORN_VERSION);
    app.add_option("fpga", fpga, "the device name")->required();
    app.add_option("address", address, "the PCI address, dddd:bb:dd.f")->required();
    app.add_option("file", o.path, "the SVF or XSVF file; - for standard input")->required();
    app.add_option("--format", format, "svf or xsvf (default: XSVF when the file is binary, else SVF)")
        ->check(CLI::IsMember({"auto", "svf", "xsvf"}))
        ->capture_default_str();
    app.add_flag("--test-mode", testMode, "the lock file (and register files) of test mode, under /tmp");
    app.add_flag("--dry-run", dryRun, "read and check the whole file, print what it would do; touch no device");
    app.add_flag("--ignore-tdo", o.ignoreTdo,
                 "report TDO mismatches and go on to the end (the status still says 6)");
    app.add_flag("--quiet", o.quiet, "no summary, no progress, no warnings");
    double frequency = 0;
    app.add_option("--frequency", frequency,
                   "a ceiling on TCK in Hz, on every edge: for any file, and over the SVF's own FREQUENCY")
        ->type_name("HZ")
        ->check(CLI::Range(jtag::Player::kMinHz, 1e12));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? kPlayed : kUsage;
    }

    device::PciAddress at;
    if (!device::parsePciAddress(address.c_str(), &at)) {
        std::fprintf(stderr, "kelvorn-play: %s\n", device::notAPciAddress(address.c_str()).c_str());
        return kUsage;
    }
    PlayInput input;
    std::string why;
    if (!input.open(o.path, &why)) {
        std::fprintf(stderr, "kelvorn-play: %s: %s\n", o.path.c_str(), why.c_str());
        return kUnreadable;
    }
    jtag::VectorFormat fmt = format == "svf"    ? jtag::VectorFormat::svf
                             : format == "xsvf" ? jtag::VectorFormat::xsvf
                                                : jtag::sniffFormat(input.file());
    uint64_t size = input.size();
    bool terminal = !o.quiet && ::isatty(2);

    // The whole file is read once before any pin moves, so that a file that
    // breaks off or holds a statement this player refuses does not leave a
    // device half programmed.
    jtag::CheckedPlay play(input.file(), fmt, o.path, &input, frequency);
    uint64_t overruns = 0;
    int status;
    {
        Progress progress(terminal, size);
        showOn(play, o, progress, overruns);
        status = statusOf(play.check(), progress);
    }
    if (status != kPlayed || dryRun) {
        if (status == kPlayed && !o.quiet)
            std::printf("kelvorn-play: %s: %s, at least %s of waits; nothing played (dry run)\n", o.path.c_str(),
                        counts(play.reader(), play.stats()).c_str(), seconds(play.stats().minRunNs * 1e-9).c_str());
        return status;
    }

    // The play must be of the bytes that were checked: a file that changed
    // is refused before the device is reached, and again just before the
    // play (CheckedPlay::play).
    jtag::PlayOutcome changed;
    if (!play.unchanged(&changed)) {
        std::fprintf(stderr, "kelvorn-play: %s\n", changed.message.c_str());
        return kUnreadable;
    }
    XilIntf* intf = device::openDevice("kelvorn-play", fpga, at, testMode);
    if (!intf) return kNoBackend;
    device::SelectedDevice guard(intf, fpga);
    jtag::Tap tap(intf);
    uint64_t start = jtag::systemClock().now();
    jtag::PlayOutcome outcome;
    {
        Progress progress(terminal, size);
        overruns = 0;
        showOn(play, o, progress, overruns);
        outcome = play.play(tap);
        status = statusOf(outcome, progress);
    }
    guard.cleanup();
    double took = (jtag::systemClock().now() - start) * 1e-9;
    if (!o.quiet && outcome.end != jtag::PlayOutcome::changed)  // nothing played
        std::printf("kelvorn-play: %s: %s, %llu TCK cycles%s, %s%s\n", o.path.c_str(),
                    counts(play.reader(), play.stats()).c_str(), static_cast<unsigned long long>(play.stats().cycles),
                    rate(play.stats().cycles, took).c_str(), seconds(took).c_str(), extras(play.stats()).c_str());
    std::fflush(stdout);
    return status;
}
