// What kelvorn-chain and libkelvorn do with a discovered chain, written
// once: name a device (by position or by its BSDL file's entity), sample
// its pins, read its USERCODE, drive its pins under EXTEST, test a net
// between two devices. Each command gives a result with a status in
// kelvorn-chain's numbering and, on failure, the one line the tool prints;
// each result has its JSON document (kelvorn-chain --json's, key for key).
//
// Drive and connect put a device's outputs under the boundary register: on
// a live board two drivers may then fight, so they are allowed only on a
// device whose BSDL file was given by the user (not found in a directory),
// or when the caller says it knows the board.
#pragma once
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "jtag/BitVector.h"
#include "jtag/Boundary.h"
#include "jtag/ChainAccess.h"
#include "jtag/Discovery.h"
#include "jtag/Json.h"
#include "jtag/Interconnect.h"
#include "jtag/Tap.h"

namespace jtag {

// Statuses of the chain commands: kelvorn-chain's exit statuses.
constexpr int kChainOk = 0;
constexpr int kChainUsage = 2;         // a command, a device or a port not understood
constexpr int kChainNoBackend = 3;     // no backend serves the name on this board
constexpr int kChainDead = 4;          // a dead or inconsistent chain
constexpr int kChainBadBsdl = 5;       // a BSDL file cannot be read, or none describes what a command needs
constexpr int kChainDriveRefused = 6;  // a drive refused (no output cell, or not allowed)
constexpr int kChainNotConnected = 7;  // connect: the net is not connected
constexpr int kChainFaultFound = 8;    // test: a net failed
constexpr int kChainBadNetlist = 9;    // test: the netlist cannot be read or does not fit the chain
constexpr int kChainCannotListen = 10; // view: the address cannot be listened on

// The directories searched for BSDL files by IDCODE when none are named:
// the share directory beside the program (<exe>/../share/kelvorn/bsdl),
// then the user's ($XDG_DATA_HOME/kelvorn/bsdl, or
// ~/.local/share/kelvorn/bsdl), joined with ':'.
std::string defaultBsdlPath();

// Why a discovery cannot be used (a dead or inconsistent chain, an IR
// capture no split fits: kChainDead; a file given for a position that
// describes another device: kChainBadBsdl), and its status; kChainOk and
// "" when it can.
std::pair<int, std::string> discoveryProblem(const Discovery& d, unsigned maxDevices);

// How a caller tells the user to give BSDL files, in the messages.
struct CommandHints {
    std::string bsdl = "--bsdl, --bsdl-path";                           // "device 0 has no BSDL file (...)"
    std::string give = "--bsdl POS=FILE, or --i-know-the-board";        // "give it with ...": POS the position
};

struct CommandResult {
    int status = kChainOk;
    std::string error;  // what failed, one line; "" when status is kChainOk
    bool ok() const { return status == kChainOk; }
};

struct SampleResult : CommandResult {
    unsigned position = 0;
    const bsdl::Device* bsdl = nullptr;
    std::vector<std::pair<std::string, bool>> levels;  // each port with an input cell, in cell order
};

struct UsercodeResult : CommandResult {
    unsigned position = 0;
    uint32_t usercode = 0;
};

// A drive planned: nothing has moved yet.
struct DrivePlan : CommandResult {
    unsigned position = 0;
    const bsdl::Device* bsdl = nullptr;
    std::vector<boundary::Request> requests;
    BitVector vector;  // the boundary register that drives them
};

// What a drive drives, read back from the register shifted.
struct DriveResult : CommandResult {
    unsigned position = 0;
    std::vector<boundary::PortDrive> driving;  // the ports driven (never 'z'), in cell order
    std::vector<std::string> unnamed;          // those of them not asked for: two-state, at the safe level
};

struct ConnectResult : CommandResult {
    std::string from, to;  // "POS.PORT"
    std::string result;    // "connected", "stuck-0", "stuck-1", "inverted"; "" when it did not run
};

// What a board test is asked: the netlist file, which chain device each
// part is ("REF=DEV"), packages other than the files' defaults
// ("POS=NAME"), pulls ("NET=up|down") and power nets besides the netlist's.
struct TestRequest {
    std::string netlist;
    std::vector<std::string> parts, packages, pulls, power;
};

struct TestResult : CommandResult {
    interconnect::Report report;  // status kChainOk: every tested net passed; kChainFaultFound: not
};

class ChainCommands {
  public:
    // given: the BSDL files the user gave (not found by IDCODE);
    // iKnowTheBoard: drive and connect on any device.
    ChainCommands(Tap& tap, const Discovery& d, std::set<const void*> given, bool iKnowTheBoard,
                  CommandHints hints = {});

    // DEV: a position, or the entity name of one device's BSDL file.
    CommandResult resolve(const std::string& text, unsigned* position) const;
    // The device's BSDL file, with a boundary register (and SAMPLE) when asked.
    const bsdl::Device* bsdl(unsigned position, bool boundary, CommandResult* r) const;

    // SAMPLE/PRELOAD on the device, every other in BYPASS. release: the
    // chain back in Test-Logic-Reset after it (a watch samples again first).
    SampleResult sample(unsigned position, bool release = true);
    UsercodeResult usercode(unsigned position);

    // words: "PORT=0", "PORT=1", "PORT=z" (any case). Checks everything,
    // moves nothing.
    DrivePlan planDrive(unsigned position, const std::vector<std::string>& words) const;
    // The plan in force: PRELOAD, then EXTEST, the register shifted under
    // each. The caller holds off what could end the process before
    // release() (a signal), as the pins are driven until then.
    DriveResult applyDrive(const DrivePlan& plan);
    // Every device back at its function: Test-Logic-Reset.
    void release() { tap_.reset(); }

    // "DEV.PORT" to "DEV.PORT": the first drives its port low, then high,
    // and the second's input cell captures each level. The chain is left
    // in Test-Logic-Reset. Status kChainNotConnected unless "connected".
    ConnectResult connect(const std::string& from, const std::string& to);

    // The whole board's interconnect test (jtag/Interconnect.h): every part in
    // EXTEST at once, the other devices in BYPASS; the chain is left in
    // Test-Logic-Reset. stop(), asked between scans, ends it early (the
    // report then says stopped).
    TestResult test(const TestRequest& q, const std::function<bool()>& stop = {});

    ChainAccess& access() { return access_; }

  private:
    CommandResult mayDrive(unsigned position, const char* what) const;
    CommandResult devicePort(const std::string& text, unsigned* position, std::string* port) const;

    Tap& tap_;
    const Discovery& d_;
    ChainAccess access_;
    std::set<const void*> given_;
    bool iKnowTheBoard_;
    CommandHints hints_;
};

// The results as kelvorn-chain --json prints them, one line each.
std::string sampleJson(const SampleResult& r);
std::string usercodeJson(const UsercodeResult& r);
// hold_s: the seconds the drive holds; < 0: until a signal (null).
std::string driveJson(const DriveResult& r, double holdSeconds);
std::string connectJson(const ConnectResult& r);
std::string testJson(const TestResult& r);
// {"status":N,"error":"..."}: a failure.
std::string failureJson(const CommandResult& r);

// "0x0000abcd".
std::string hex32(uint32_t v);

}  // namespace jtag
