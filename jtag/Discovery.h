// What bring-up learns of a chain: each device's IDCODE, instruction
// register length and where that length came from, its maker (JEP106) and,
// when a BSDL file describes it, its part. The BSDL files are found by
// IDCODE among the files and directories the user names.
#pragma once
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "jtag/Bsdl.h"
#include "jtag/Chain.h"
#include "jtag/Json.h"

namespace jtag {

// BSDL files by the IDCODEs they describe.
class BsdlCatalogue {
  public:
    // A file already read; one already here (by its real path) is not added again.
    void add(std::shared_ptr<const bsdl::Device> device);
    // A file to read now; false with *error when it cannot be.
    bool addFile(const std::string& path, bsdl::Error* error);
    // Every file named *.bsd or *.bsdl (any case) in a directory, not below
    // it; one that does not read as BSDL is passed over, with its error in
    // warnings(). A directory that does not exist is no error.
    void addDirectory(const std::string& dir);
    // Each directory of a search path "DIR:DIR...", in order; empty ones skipped.
    void addPath(const std::string& dirs);
    // The files whose IDCODE matches, in the order they were added.
    std::vector<std::shared_ptr<const bsdl::Device>> find(uint32_t idcode) const;
    const std::vector<std::string>& warnings() const { return warnings_; }

  private:
    std::vector<std::shared_ptr<const bsdl::Device>> devices_;
    std::set<std::string> paths_;
    std::vector<std::string> warnings_;
};

struct DeviceFacts {
    enum class IrFrom { bsdl, option, detected, guess };
    unsigned position = 0;
    std::optional<uint32_t> idcode;  // none: the device came up in BYPASS
    unsigned irLength = 0;
    IrFrom irFrom = IrFrom::detected;
    std::optional<std::string> manufacturer;  // the JEP106 name; none when the list has none
    std::shared_ptr<const bsdl::Device> bsdl;  // null: none found or chosen
    std::vector<std::string> otherBsdl;        // more files that match the IDCODE (unused)
};

const char* irFromName(DeviceFacts::IrFrom from);

constexpr unsigned kIdcodeVersionShift = 28;  // IDCODE bits 31..28: the version  // "bsdl", "option", "detected", "guess"

struct Discovery {
    ChainScan scan;  // fault != none: nothing else is filled
    std::vector<DeviceFacts> devices;
    unsigned irTotal = 0;
    // Set when no split of the IR capture fits the lengths known: what disagrees.
    std::string irProblem;
    // Set when a file chosen for a position describes another device than
    // the IDCODE read there: both named. Nothing else is filled then.
    std::string bsdlProblem;
};

struct DiscoveryOptions {
    unsigned maxDevices = 64;
    std::map<unsigned, unsigned> irLength;  // --irlen POS=N
    // --bsdl POS=FILE: the file for that position; its IDCODE (X bits
    // aside) must be the one read there, or the discovery names both in
    // bsdlProblem. A device without IDCODE takes only a file without one.
    std::map<unsigned, std::shared_ptr<const bsdl::Device>> bsdlAt;
};

// An IDCODE pattern of a BSDL file as hex, a digit with X bits as "x":
// "0x?123402f" reads "0xx123402f".
std::string idcodePattern(const bsdl::Device& d);

// Scans the chain and puts the facts together; leaves every device in
// Test-Logic-Reset.
Discovery discover(Tap& tap, const BsdlCatalogue& catalogue, const DiscoveryOptions& options);

// The facts as one JSON document (what kelvorn-chain --json prints):
// {"devices":[{"position":0,"idcode":"0x0a5c7035","ir_length":8,
// "ir_length_from":"detected","manufacturer":"...","part":null,"version":0,
// "bsdl":null,"jep106":{"bank":1,"code":26}},...],"ir_total":14}; idcode,
// manufacturer, part, version, bsdl and jep106 are null where unknown (a
// maker the JEP106 list does not name: manufacturer null, jep106 its bank
// and code).
std::string discoveryJson(const Discovery& d);
Json discoveryValue(const Discovery& d);
// s as a JSON string, quoted and escaped.
std::string jsonString(const std::string& s);

}  // namespace jtag
