// kelvorn-sim: the kelvorn tool, or an IDCODE scan, on a simulated board.
// The production code runs unchanged: the board stands behind every
// register window and OS call (sim/Board.h), so nothing here reaches this
// machine's hardware.
#include <CLI/CLI.hpp>
#include <cstdlib>
#include <string>
#include <vector>

#include "sim/Board.h"
#include "serve/KelvornServe.h"
#include "sim/Scan.h"
#include "tool/Kelvorn.h"

namespace {

bool parseNumber(const std::string& text, unsigned long max, unsigned long* out) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    unsigned long v = std::strtoul(text.c_str(), &end, 0);
    if (*end || errno || v > max || text[0] == '-') return false;
    *out = v;
    return true;
}

// "FAMILY:MODEL", each in C notation.
std::string parseCpu(const std::string& text, unsigned* family, unsigned* model) {
    size_t colon = text.find(':');
    unsigned long f, m;
    if (colon == std::string::npos || !parseNumber(text.substr(0, colon), 0xFF + 0xF, &f) ||
        !parseNumber(text.substr(colon + 1), 0xFF, &m))
        return "wants FAMILY:MODEL, for example 0x16:0x30";
    *family = static_cast<unsigned>(f);
    *model = static_cast<unsigned>(m);
    return "";
}

// "IDCODE:IRLEN[,IDCODE:IRLEN...]", the device nearest TDO first.
std::string parseChain(const std::string& text, std::vector<sim::DeviceDesc>* chain) {
    chain->clear();
    size_t start = 0;
    while (start <= text.size()) {
        size_t comma = text.find(',', start);
        std::string item = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        size_t colon = item.find(':');
        unsigned long id, len;
        if (colon == std::string::npos || !parseNumber(item.substr(0, colon), 0xffffffffUL, &id) ||
            !parseNumber(item.substr(colon + 1), 32, &len))
            return "wants IDCODE:IRLEN[,IDCODE:IRLEN...], for example 0x0a5c7035:8";
        if (!(id & 1) || id == 0xffffffffUL) return "an IDCODE has bit 0 set and is not all ones: " + item;
        if (len < 2) return "an instruction register has at least 2 bits: " + item;
        chain->push_back({static_cast<uint32_t>(id), static_cast<unsigned>(len)});
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return "";
}

std::string chainText(const std::vector<sim::DeviceDesc>& chain) {
    std::string s;
    char buf[32];
    for (const sim::DeviceDesc& d : chain) {
        std::snprintf(buf, sizeof buf, "%s0x%08x:%u", s.empty() ? "" : ",", d.idcode, d.irLength);
        s += buf;
    }
    return s;
}

}  // namespace

int main(int argc, char** argv) {
    sim::BoardConfig config;
    std::string cpu = "0x16:0x30";
    std::string chain = chainText(config.chain);
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
        "      prints the chain's IDCODEs, nearest TDO first; status 0, 1 when no device answers\n"
        "  kelvorn-sim [options] serve [serve options] <fpga> <pci address>\n"
        "      kelvorn-serve itself, on the simulated board (kelvorn-sim serve --help)\n",
        "kelvorn-sim"};
    app.add_option("--platform", config.platform,
                   "the board's platform: the kernel command line holds platform=NAME (default: no platform word)");
    app.add_option("--cpu", cpu, "the processor's CPUID family and model, in C notation")
        ->capture_default_str()
        ->check([&](const std::string& s) { return parseCpu(s, &config.family, &config.model); });
    app.add_option("--chain", chain,
                   "the devices on the chain, nearest TDO first (default: an 8-bit and a 6-bit instruction register)")
        ->capture_default_str()
        ->check([&](const std::string& s) { return parseChain(s, &config.chain); });
    app.add_option("--hold", config.holdSeconds, "seconds a set command holds its pin, instead of ten")
        ->capture_default_str();
    app.add_flag("--show-writes", config.showWrites,
                 "print every register write of the simulated chips on stderr, with what it did to the JTAG pins "
                 "(z: not driven) and the TAP state");
    app.add_option("kelvorn", kelvornArgs, "the arguments of kelvorn, after --");
    CLI::App* scan = app.add_subcommand("scan", "reset the chain and print the IDCODEs on it");
    scan->add_option("fpga", scanDevice, "the device name")->required();
    scan->add_option("address", scanAddress, "the PCI address, dddd:bb:dd.f")->required();
    scan->fallthrough();
    CLI::App* serveCommand = app.add_subcommand("serve", "run kelvorn-serve; its options and arguments follow");
    serveCommand->prefix_command()->set_help_flag();
    CLI11_PARSE(app, argc, argv);

    serve::Options serveOptions;
    if (serveCommand->parsed()) {
        std::vector<std::string> serveArgs = serveCommand->remaining();
        std::vector<char*> args{const_cast<char*>("kelvorn-serve")};
        for (std::string& a : serveArgs) args.push_back(&a[0]);
        int status;
        if (!serve::parseOptions(static_cast<int>(args.size()), args.data(), &serveOptions, &status)) return status;
    }
    config.device = scan->parsed()           ? scanDevice
                    : serveCommand->parsed() ? serveOptions.fpga
                    : kelvornArgs.empty()    ? ""
                                             : kelvornArgs.front();
    sim::Board board(config);
    board.install();
    if (scan->parsed()) return sim::scan(scanDevice.c_str(), scanAddress.c_str(), stdout);
    if (serveCommand->parsed()) return serve::run(serveOptions);

    std::vector<char*> args{const_cast<char*>("kelvorn")};
    for (std::string& a : kelvornArgs) args.push_back(&a[0]);
    args.push_back(nullptr);
    return kelvornMain(static_cast<int>(args.size() - 1), args.data());
}
