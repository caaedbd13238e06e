// kelvorn-sim: the kelvorn tool, or an IDCODE scan, on a simulated board.
// The production code runs unchanged: the board stands behind every
// register window and OS call (sim/Board.h), so nothing here reaches this
// machine's hardware.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "sim/Board.h"
#include "play/KelvornPlay.h"
#include "chain/KelvornChain.h"
#include "serve/KelvornServe.h"
#include "sim/BoardOptions.h"
#include "sim/Scan.h"
#include "tool/Kelvorn.h"

namespace {

// The simulator's own options are not understood (a board option, an
// unknown option), or a file one names cannot be written: one status for
// all of them, apart from the statuses of the tools it runs.
constexpr int kSimOptions = static_cast<int>(CLI::ExitCodes::ValidationError);

}  // namespace

int main(int argc, char** argv) {
    sim::BoardOptions board;
    sim::BoardConfig& config = board.config;
    std::vector<std::string> kelvornArgs;
    std::string scanDevice, scanAddress;

    CLI::App app{
        "Runs the kelvorn tool, or an IDCODE scan, on a simulated board: the production code drives\n"
        "register-level models of the GPIO chips, and a JTAG chain hangs on the pins that the named\n"
        "device is wired to. Every chip kind exists at every PCI address; nothing touches this\n"
        "machine's hardware.\n\n"
        "  kelvorn-sim [options] -- <fpga> <pci address> { tck | tms | tdi | tdo } [ 0 | 1 ]\n"
        "      the kelvorn tool itself: same output and exit statuses\n"
        "  kelvorn-sim [options] scan <fpga> <pci address>\n"
        "      prints the chain's IDCODEs, nearest TDO first; status 0; 4 when no device answers\n"
        "  kelvorn-sim [options] serve [serve options] <fpga> <pci address>\n"
        "      kelvorn-serve itself, on the simulated board (kelvorn-sim serve --help)\n"
        "  kelvorn-sim [options] play [play options] <fpga> <pci address> <file>\n"
        "      kelvorn-play itself, on the simulated board (kelvorn-sim play --help)\n"
        "  kelvorn-sim [options] chain [chain options] <fpga> <pci address> [command]\n"
        "      kelvorn-chain itself, on the simulated board (kelvorn-sim chain --help)\n",
        "kelvorn-sim"};
    app.set_version_flag("--version", "kelvorn-sim " KELVORN_VERSION);
    sim::addBoardOptions(app, &board);
    app.add_option("kelvorn", kelvornArgs, "the arguments of kelvorn, after --");
    CLI::App* scan = app.add_subcommand("scan", "reset the chain and print the IDCODEs on it");
    scan->add_option("fpga", scanDevice, "the device name")->required();
    scan->add_option("address", scanAddress, "the PCI address, dddd:bb:dd.f")->required();
    scan->fallthrough();
    CLI::App* serveCommand = app.add_subcommand("serve", "run kelvorn-serve; its options and arguments follow");
    serveCommand->prefix_command()->set_help_flag();
    CLI::App* playCommand = app.add_subcommand("play", "run kelvorn-play; its options and arguments follow");
    playCommand->prefix_command()->set_help_flag();
    CLI::App* chainCommand = app.add_subcommand("chain", "run kelvorn-chain; its options and arguments follow");
    chainCommand->prefix_command()->set_help_flag();
    try {
        app.parse(argc, argv);
        sim::finishBoardOptions(&board);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : kSimOptions;
    }

    serve::Options serveOptions;
    if (serveCommand->parsed()) {
        std::vector<std::string> serveArgs = serveCommand->remaining();
        std::vector<char*> args{const_cast<char*>("kelvorn-serve")};
        for (std::string& a : serveArgs) args.push_back(&a[0]);
        int status;
        if (!serve::parseOptions(static_cast<int>(args.size()), args.data(), &serveOptions, &status)) return status;
    }
    // kelvorn-play's arguments: its options, then <fpga> <pci address> <file>. The
    // device is the first argument that is neither an option nor the value of
    // one (--format, --frequency).
    std::vector<std::string> playArgs{"kelvorn-play"};
    std::string playDevice;
    if (playCommand->parsed()) {
        for (const std::string& a : playCommand->remaining()) playArgs.push_back(a);
        for (size_t i = 1; i < playArgs.size() && playDevice.empty(); ++i) {
            if (playArgs[i] == "--format" || playArgs[i] == "--frequency")
                ++i;
            else if (playArgs[i][0] != '-')
                playDevice = playArgs[i];
        }
    }
    std::vector<std::string> chainArgs{"kelvorn-chain"};
    if (chainCommand->parsed())
        for (const std::string& a : chainCommand->remaining()) chainArgs.push_back(a);
    config.device = scan->parsed()           ? scanDevice
                    : serveCommand->parsed() ? serveOptions.fpga
                    : playCommand->parsed()  ? playDevice
                    : chainCommand->parsed() ? kelvornChainDevice({chainArgs.begin() + 1, chainArgs.end()})
                    : kelvornArgs.empty()    ? ""
                                             : kelvornArgs.front();
    sim::Board simulated(config);
    simulated.install();
    int status = [&] {
        if (scan->parsed()) return sim::scan(scanDevice.c_str(), scanAddress.c_str(), stdout);
        if (serveCommand->parsed()) return serve::run(serveOptions);
        if (chainCommand->parsed()) {
            std::vector<char*> args;
            for (std::string& a : chainArgs) args.push_back(&a[0]);
            args.push_back(nullptr);
            return kelvornChainMain(static_cast<int>(args.size() - 1), args.data());
        }
        if (playCommand->parsed()) {
            std::vector<char*> args;
            for (std::string& a : playArgs) args.push_back(&a[0]);
            args.push_back(nullptr);
            return kelvornPlayMain(static_cast<int>(args.size() - 1), args.data());
        }
        std::vector<char*> args{const_cast<char*>("kelvorn")};
        for (std::string& a : kelvornArgs) args.push_back(&a[0]);
        args.push_back(nullptr);
        return kelvornMain(static_cast<int>(args.size() - 1), args.data());
    }();
    // The records the options asked for (--vcd, --dump-memory, --dump-pins):
    // one that cannot be written (a full disk fails only when the file is
    // closed) fails a run that would have succeeded, with the status of a
    // file an option cannot write; a run that failed keeps its own status.
    if (!simulated.finish() && status == 0) status = kSimOptions;
    return status;
}
