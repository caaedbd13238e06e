// JTAG through the GPIO block of an AMD SB820 southbridge, reached through
// the sysfs resource5 file of its PCI function. Every GPIO has one control
// byte at 0x100 + its number. The backend keeps a copy of each output pin's
// control byte for both levels, so a pin change is one byte write and a
// call that repeats the level makes no register access at all.
#pragma once
#include "ham/Ham.h"
#include "xilinx/hal/VectorShift.h"
#include "xilinx/XilIntfFactory.h"

class Sb820Intf : public XilIntf {
  public:
    // The two identifiers are not used.
    Sb820Intf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device, U8 function, const char* lockName);

    void tdiIs(bool value) override;
    void tmsIs(bool value) override;
    void tckIs(bool value) override;
    bool tdo() override;
    void select(const char* deviceName) override;  // before any pin operation
    void cleanup(const char* deviceName) override;
    void warningIs(bool) override {}  // no warning indication
    void shift(U32 nbits, const U8* tms, const U8* tdi, U8* tdoBits) override;
    void pinsIs(bool tck, bool tms, bool tdi) override;

    // Turn a GPIO's output driver on or off (traced at level 1).
    void setOutput(U8 gpio);
    void setInput(U8 gpio);

    // The control byte of one output pin, read once on first use.
    struct PinCache {
        U32 offset;      // of the control byte; 0 until the pin is first used
        U8 highByte;     // the byte with the output level bit set
        U8 lowByte;      // and cleared
        bool lastLevel;  // level last written
    };

  private:
    // Reads gpio's control byte and writes it back with the bits of clear
    // cleared and those of set set.
    void controlIs(U8 gpio, U8 clear, U8 set);
    // Drives an output pin from its cache: one write when the level changes.
    void levelIs(PinCache& cache, U8 gpio, bool level, U32& count);
    // After a vector operation: the pin caches take the image's bytes and levels.
    void cachesFromImage();

    Ptr<Ham> ham;
    Ptr<HamImpl> impl;  // taken by select
    U8 tckPin = 255;
    U8 tdiPin = 255;
    U8 tmsPin = 255;
    U8 tdoPin = 255;
    U8 setupPins[3] = {255, 255, 255};
    bool setupLevels[3] = {};
    PinCache tdiCache = {};
    PinCache tmsCache = {};
    PinCache tckCache = {};
    U32 tdoCount = 0;
    U32 tdiCount = 0;
    U32 tmsCount = 0;
    U32 tckCount = 0;
    Hal::VectorPins vec_;  // TCK, TMS and TDI control bytes for the vector path
};

// Serves "fodak" and "komefi", except on the platforms gozip and bupul,
// whose boards reach those devices through the SoC's own GPIO block.
class Sb820Factory : public XilIntfFactory {
  public:
    bool manages(const char* deviceName) override;
    void servedNames(std::vector<XilServedName>* out) override;
    XilIntf* newXilIntf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device, U8 function) override;
};
