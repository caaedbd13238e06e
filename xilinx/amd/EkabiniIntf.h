// JTAG through the GPIO pins of the AMD embedded SoC itself (the fusion
// controller hub's GPIO block, reached through /dev/mem). Each device name
// stands for the GPIOs of its JTAG port and up to four auxiliary pins (JTAG
// multiplexer selects, TAP reset or JTAG disable lines) held at a fixed
// level while the device is reached. The register window, the board's
// platform class and the SoC's pin operations are process-wide and shared
// by every interface of this kind.
#pragma once
#include "xilinx/XilIntfFactory.h"
#include "xilinx/hal/VectorShift.h"

class EkabiniIntf : public XilIntf {
  public:
    explicit EkabiniIntf(const char* lockName) : XilIntf(lockName) {}

    void tdiIs(bool value) override;
    void tmsIs(bool value) override;
    void tckIs(bool value) override;
    bool tdo() override;
    // Ends the process with "Unknown device: <name>" on stderr for a name
    // it does not know, before any pin is touched.
    void select(const char* deviceName) override;
    void cleanup(const char* deviceName) override;
    void warningIs(bool on) override;  // no warning indication here
    void shift(U32 nbits, const U8* tms, const U8* tdi, U8* tdoBits) override;
    void pinsIs(bool tck, bool tms, bool tdi) override;

    // GPIO numbers in the numbering of the board's SoC; 0xFF: no pin.
    struct AuxPin {
        U8 gpio;
        bool level;
    };
    struct Wiring {
        U8 tck, tdi, tms, tdo;
        AuxPin aux[4];
    };

  private:
    void eachDrivenPin(void (*operation)(U8 gpio)) const;

    // No pin until select: an early pin operation touches nothing.
    Wiring wiring_{0xFF, 0xFF, 0xFF, 0xFF, {{0xFF, false}, {0xFF, false}, {0xFF, false}, {0xFF, false}}};
    Hal::VectorPins vec_;  // the control registers of TCK, TMS and TDI
};

class EkabiniGpioFactory : public XilIntfFactory {
  public:
    bool manages(const char* deviceName) override;
    void servedNames(std::vector<XilServedName>* out) override;
    // Takes the lock, then validates a pin that the board's platform allows,
    // which detects the platform and the SoC and maps the register window
    // (or ends the process) before select needs them.
    XilIntf* newXilIntf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device, U8 function) override;
};
