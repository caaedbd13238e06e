// A backend and factory that only record what they are asked, for tests of
// the core, the registry and the tool.
#pragma once
#include <string>
#include <vector>

#include "xilinx/XilIntfFactory.h"

struct StubIntf : XilIntf {
    StubIntf(const char* lockName, std::vector<std::string>* calls) : XilIntf(lockName), calls_(calls) {}
    void tdiIs(bool v) override { calls_->push_back(std::string("tdiIs ") + (v ? "1" : "0")); }
    void tmsIs(bool v) override { calls_->push_back(std::string("tmsIs ") + (v ? "1" : "0")); }
    void tckIs(bool v) override { calls_->push_back(std::string("tckIs ") + (v ? "1" : "0")); }
    bool tdo() override {
        calls_->push_back("tdo");
        return tdoLevel;
    }
    void select(const char* n) override { calls_->push_back(std::string("select ") + n); }
    void cleanup(const char* n) override { calls_->push_back(std::string("cleanup ") + n); }
    void warningIs(bool on) override { calls_->push_back(std::string("warningIs ") + (on ? "1" : "0")); }
    bool tdoLevel = true;
    std::vector<std::string>* calls_;
};

struct StubFactory : XilIntfFactory {
    StubFactory(std::string name, std::vector<std::string>* calls) : name_(std::move(name)), calls_(calls) {}
    bool manages(const char* n) override {
        calls_->push_back("manages " + name_ + " " + n);
        return name_ == n;
    }
    XilIntf* newXilIntf(U16 v, U16 d, U16 domain, U8 bus, U8 device, U8 function) override {
        char lock[256];
        xilLockName(lock, domain, bus, device);
        calls_->push_back("new " + name_ + " " + std::to_string(v) + " " + std::to_string(d) + " " + lock +
                          " fn " + std::to_string(function));
        last = new StubIntf(lock, calls_);
        return last;
    }
    std::string name_;
    std::vector<std::string>* calls_;
    StubIntf* last = nullptr;
};

// Replaces the registry's factories for the life of a scope.
class RegistrySwap {
  public:
    explicit RegistrySwap(std::vector<XilIntfFactory*> factories) : saved_(XilIntfFactory::registry()) {
        XilIntfFactory::registry() = std::move(factories);
    }
    ~RegistrySwap() { XilIntfFactory::registry() = saved_; }

  private:
    std::vector<XilIntfFactory*> saved_;
};
