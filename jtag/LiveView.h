// A live view of a chain's pins: every device whose BSDL file has a
// boundary register sampled at once (one IR scan puts them all in SAMPLE,
// then one DR scan per sample captures every pin), and pins driven on
// request under EXTEST, a device at a time or several, each driving only
// the ports asked for and every other output at its safe level, as a
// drive does.
//
// A device being driven stays in EXTEST, and its capture still reads its
// pins: the view stays live while it drives. The register it shifts is the
// one that drives what was asked, every sample, so a sample never moves a
// pin. release() is Test-Logic-Reset: every device back at its function.
//
// One object is shared by the threads of a server: every call takes its
// lock, so scans never interleave.
#pragma once
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "jtag/Commands.h"

namespace jtag {

class LiveView {
  public:
    // chain: the commands of the discovered chain d (its drive checks:
    // BSDL given, or the board known); drive: whether drive() may drive.
    LiveView(ChainCommands& chain, const Discovery& d, bool drive);

    struct Change {
        unsigned position;
        std::string port;
        bool level;
    };
    // One sample of every device with a boundary register; what changed
    // since the last (the first sample reports nothing: it is the start).
    std::vector<Change> sample();

    // One port of the device at position to '0' or '1', or back to its safe
    // level ('z'). Fails as drive does (no output cell, a shared control
    // cell, a file found not given), or kChainDriveRefused when the view
    // does not drive; nothing moves on a failure.
    CommandResult drive(unsigned position, const std::string& port, char level);
    // Every device to Test-Logic-Reset and every drive forgotten; the next
    // sample puts them in SAMPLE again.
    void release();

    // The chain as discovery reports it, each device with "boundary" (it is
    // drawn), and "drive".
    Json chainValue() const;
    // {"PORT":0|1,...} for each device (by position, as a string), the ports
    // with an input cell.
    Json levelsValue() const;
    // {"POS":{"PORT":"0"|"1",...}}: what the boundary registers drive now,
    // read back from the registers (two-state outputs at their safe level
    // included).
    Json drivingValue() const;
    // A device's package as drawn: its pins in order, each with its port,
    // input cell, function, level and drive; the shape ("quad", "grid",
    // "list"), and for a grid its rows and columns. False when the device
    // has no boundary register.
    bool pinsValue(unsigned position, Json* out) const;
    // The pins of the failing nets of a board test's JSON report
    // (kelvorn-chain test --json), each REF mapped to a device by parts
    // ("REF=DEV"): {"marks":{"POS":["PIN",...]},"faults":[...]}.
    CommandResult marks(const Json& report, const std::vector<std::string>& parts);
    Json marksValue() const;

  private:
    struct Device {
        unsigned position;
        const bsdl::Device* bsdl;
        BitVector sampleOp, preloadOp, extestOp;
        std::vector<boundary::Request> requests;  // the ports asked for, in the order asked
        BitVector vector;                         // what is shifted in: the drive's register under EXTEST
        bool extest = false;
        std::vector<std::pair<std::string, bool>> levels;  // ports with an input cell, cell order
    };
    std::map<unsigned, BitVector> registers() const;
    std::map<unsigned, BitVector> instructions() const;
    void take(const std::map<unsigned, BitVector>& captured, std::vector<Change>* changes);
    Device* find(unsigned position);

    mutable std::mutex lock_;
    ChainCommands& chain_;
    const Discovery& d_;
    bool drive_;
    std::vector<Device> devices_;
    bool irLoaded_ = false;  // false: the next sample loads the instructions first
    Json marks_ = Json::object(), faults_ = Json::array();
};

}  // namespace jtag
