// Manufacturers by their JEDEC JEP106 identity code, as a JTAG IDCODE
// carries it: bits 11..8 count the continuation codes (0x7f) before the
// maker's code, so the bank is that count plus one; bits 7..1 are the
// maker's code in its bank, without the parity bit the standard adds.
#pragma once
#include <cstdint>
#include <string>

namespace jtag {

// The edition of the JEP106 list the table was made from.
extern const char* const kJep106Edition;

// The manufacturer's name for bank 1.. and code 1..126; null when the list
// has none there (or the bank or code is out of range).
const char* jep106Name(unsigned bank, unsigned code);

// The bank and code of an IDCODE (bits 11..8 plus one, bits 7..1).
unsigned jep106Bank(uint32_t idcode);
unsigned jep106Code(uint32_t idcode);

// The manufacturer of an IDCODE as a line of text: its name, or
// "bank B code 0xCC" (code in two hex digits) when the list has none.
std::string manufacturerText(uint32_t idcode);

}  // namespace jtag
