// kelvorn-vectors: turns a binary image into the SVF and XSVF files that
// erase, program and verify it on the simulated programmable device
// (sim/Vectors.h), for the chain that kelvorn-sim is given.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "sim/Options.h"
#include "sim/Vectors.h"

namespace {

constexpr int kWritten = 0;
constexpr int kFailed = 1;  // the image cannot be read or does not fit, or a file cannot be written
constexpr int kUsage = 2;   // the command line is not understood

bool readFile(const std::string& path, std::vector<uint8_t>* out) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return false;
    uint8_t buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out->insert(out->end(), buf, buf + n);
    bool ok = !std::ferror(f);
    std::fclose(f);
    return ok;
}

bool writeFile(const std::string& path, const void* data, size_t size) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    bool ok = std::fwrite(data, 1, size, f) == size;
    return std::fclose(f) == 0 && ok;
}

int fail(const std::string& what, const std::string& path) {
    std::fprintf(stderr, "kelvorn-vectors: %s %s: %s\n", what.c_str(), path.c_str(), std::strerror(errno));
    return kFailed;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<sim::DeviceDesc> chain;
    std::string chainText, imagePath, svfPath, xsvfPath;
    long eraseCycles = -1, programCycles = -1;

    CLI::App app{
        "Writes the SVF and XSVF files that erase, program and verify IMAGE on the first programmable device\n"
        "of a chain given as to kelvorn-sim --chain. Row r of the device gets bits r*BITS to r*BITS+BITS-1 of\n"
        "the image (bit i is bit i%8 of byte i/8); the last row is padded with ones. The files first check\n"
        "every device's IDCODE (versions aside), so played on another chain they stop before the erase. The\n"
        "other devices stay in BYPASS. Exit status: 0 written; 1 the image cannot be read, is empty or does not fit the memory,\n"
        "or a file cannot be written; 2 usage.\n",
        "kelvorn-vectors"};
    app.set_version_flag("--version", "kelvorn-vectors " KELVORN_VERSION);
    app.add_option("--chain", chainText,
                   "the chain, nearest TDO first: IDCODE:IRLEN[:mem=ROWSxBITS[:erase=CYCLES][:program=CYCLES]][,...]")
        ->required()
        ->type_name("CHAIN")
        ->check([&](const std::string& s) {
            std::string error = sim::parseChain(s, &chain);
            return error.empty() ? sim::needMemory(chain) : error;
        });
    app.add_option("--erase-cycles", eraseCycles,
                   "TCK cycles in Run-Test/Idle after ERASE (default: the device's erase=)")
        ->check(CLI::Range(0L, 0xffffffffL));
    app.add_option("--program-cycles", programCycles,
                   "TCK cycles in Run-Test/Idle after each row (default: the device's program=)")
        ->check(CLI::Range(0L, 0xffffffffL));
    CLI::Option_group* outputs = app.add_option_group("outputs");
    outputs->add_option("--svf", svfPath, "the SVF file to write")->type_name("FILE");
    outputs->add_option("--xsvf", xsvfPath, "the XSVF file to write")->type_name("FILE");
    outputs->require_option(1, 0);
    app.add_option("image", imagePath, "the binary image")->required()->type_name("IMAGE");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? kWritten : kUsage;
    }

    size_t device = 0;
    while (!chain[device].memory.rows) ++device;
    const sim::MemoryDesc& memory = chain[device].memory;
    sim::VectorTarget target;
    for (const sim::DeviceDesc& d : chain) {
        target.irLengths.push_back(d.irLength);
        target.idcodes.push_back(d.idcode);  // kNoIdcode is 0: a BYPASS bit
    }
    target.device = device;
    target.rowBits = memory.rowBits;
    target.eraseCycles = static_cast<uint32_t>(eraseCycles < 0 ? memory.eraseCycles : eraseCycles);
    target.programCycles = static_cast<uint32_t>(programCycles < 0 ? memory.programCycles : programCycles);

    std::vector<uint8_t> bytes;
    if (!readFile(imagePath, &bytes)) return fail("cannot read", imagePath);
    jtag::BitVector image(bytes.size() * 8);
    if (!bytes.empty()) std::memcpy(image.data(), bytes.data(), bytes.size());
    std::vector<jtag::BitVector> rows = sim::imageRows(image, target.rowBits);
    if (rows.empty()) {
        std::fprintf(stderr, "kelvorn-vectors: %s is empty\n", imagePath.c_str());
        return kFailed;
    }
    if (rows.size() > memory.rows) {
        std::fprintf(stderr, "kelvorn-vectors: %s needs %zu rows of %u bits; the device has %u\n", imagePath.c_str(),
                     rows.size(), target.rowBits, memory.rows);
        return kFailed;
    }
    if (!svfPath.empty()) {
        std::string svf = sim::svfFor(target, rows);
        if (!writeFile(svfPath, svf.data(), svf.size())) return fail("cannot write", svfPath);
    }
    if (!xsvfPath.empty()) {
        std::vector<uint8_t> xsvf = sim::xsvfFor(target, rows);
        if (!writeFile(xsvfPath, xsvf.data(), xsvf.size())) return fail("cannot write", xsvfPath);
    }
    return kWritten;
}
