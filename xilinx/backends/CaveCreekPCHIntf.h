// JTAG through the GPIO block of an Intel Cave Creek PCH. Its registers sit
// in processor I/O space at a base that the PCH's LPC function publishes in
// PCI configuration register 0x48; the backend reads that base once from the
// function's sysfs config file. GPIOs 0..95 come in three banks of 32, each
// with a use-select, an I/O-select and a level register; every change is a
// read-modify-write of one bit.
#pragma once
#include "ham/Ham.h"
#include "xilinx/hal/VectorShift.h"
#include "xilinx/XilIntfFactory.h"

class CaveCreekPCHIntf : public XilIntf {
  public:
    // The PCI function is the LPC interface; the two identifiers are not used.
    // A config file that cannot be read ends the process with status 1.
    CaveCreekPCHIntf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device, U8 function,
                     const char* lockName);

    void tdiIs(bool value) override;
    void tmsIs(bool value) override;
    void tckIs(bool value) override;
    bool tdo() override;
    void select(const char* deviceName) override;  // before any pin operation
    void cleanup(const char* deviceName) override;
    void warningIs(bool) override {}  // no warning indication
    void shift(U32 nbits, const U8* tms, const U8* tdi, U8* tdoBits) override;
    void pinsIs(bool tck, bool tms, bool tdi) override;

    // The I/O port of the register of that kind that holds gpio's bit.
    U32 useSelectGpioReg(U8 gpio) const;
    U32 ioSelectGpioReg(U8 gpio) const;
    U32 readWriteGpioReg(U8 gpio) const;

  private:
    // Reads the register at port, sets or clears gpio's bit, writes it back.
    void bitIs(U32 port, U8 gpio, bool set);
    // Makes gpio a GPIO, driving (output) or not.
    void directionIs(U8 gpio, bool output);
    void levelIs(U8 gpio, bool level);
    // TDI and TMS: written only when the level differs from the last one.
    void changedLevelIs(U8 gpio, bool& last, bool level);
    // After a vector operation: the last TDI and TMS levels are the image's.
    void lastLevelsFromImage();

    Ptr<Ham> ham;
    Ptr<HamImpl> impl;  // taken by select
    U32 gpioBase = 0;
    U8 tckPin = 255;
    U8 tdiPin = 255;
    U8 tmsPin = 255;
    U8 auxPin = 255;
    U8 tdoPin = 255;
    U8 setupPins[3] = {255, 255, 255};
    bool setupLevels[3] = {};
    bool lastTdi = false;
    bool lastTms = false;
    bool auxLevel = false;
    Hal::VectorPins vec_;  // the level registers of TCK, TMS and TDI
};

class CaveCreekPCHFactory : public XilIntfFactory {
  public:
    bool manages(const char* deviceName) override;
    void servedNames(std::vector<XilServedName>* out) override;
    XilIntf* newXilIntf(U16 pciVendor, U16 pciDevice, U16 domain, U8 bus, U8 device, U8 function) override;
};
