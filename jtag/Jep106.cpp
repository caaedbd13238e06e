// Manufacturers by JEP106 identity code. The list itself, and where it
// comes from, is jtag/jep106.txt; the build makes the table from it.
#include "jtag/Jep106.h"

#include <cstdio>

#include "Jep106Table.inc"

namespace jtag {

const char* const kJep106Edition = KELVORN_JEP106_EDITION;

namespace {

constexpr unsigned kCodesPerBank = 126;  // codes 1..126: 0x7f is the continuation code, 0 none
constexpr unsigned kBanks = KELVORN_JEP106_BANKS;
constexpr unsigned kIdcodeBankShift = 8;   // IDCODE bits 11..8: continuation codes before the maker's
constexpr unsigned kIdcodeCodeShift = 1;   // IDCODE bits 7..1: the maker's code

// kNames[bank - 1][code - 1]; null past the end of the list.
const char* const kNames[kBanks][kCodesPerBank] = KELVORN_JEP106_NAMES;

}  // namespace

const char* jep106Name(unsigned bank, unsigned code) {
    if (bank < 1 || bank > kBanks || code < 1 || code > kCodesPerBank) return nullptr;
    return kNames[bank - 1][code - 1];
}

unsigned jep106Bank(uint32_t idcode) { return ((idcode >> kIdcodeBankShift) & 0xf) + 1; }
unsigned jep106Code(uint32_t idcode) { return (idcode >> kIdcodeCodeShift) & 0x7f; }

std::string manufacturerText(uint32_t idcode) {
    unsigned bank = jep106Bank(idcode), code = jep106Code(idcode);
    if (const char* name = jep106Name(bank, code)) return name;
    char text[32];
    std::snprintf(text, sizeof text, "bank %u code 0x%02x", bank, code);
    return text;
}

}  // namespace jtag
