// In-memory register windows for tests. A FakeHamImpl is a sparse,
// byte-addressed register file (little-endian for wider accesses) that logs
// every access in order. FakeHams installs itself as the window provider
// and hands out one fake per window file (or per name, for windows without
// a file), so a test can preload registers before the code under test
// opens its window and read the log afterwards.
#pragma once
#include <map>
#include <set>
#include <string>
#include <vector>

#include "ham/Ham.h"

class FakeHamImpl : public HamImpl {
  public:
    struct Access {
        char op;     // 'R' or 'W'
        int width;   // 8, 16 or 32
        U32 offset;
        U32 value;
        std::string str() const;  // "W8 0x1bd=0x40"
    };

    int read32(U32 offset, U32* out) override;
    int write32(U32 offset, U32 value) override;
    int read16(U32 offset, U16* out) override;
    int read8(U32 offset, U8* out) override;
    int write8(U32 offset, U8 value) override;

    // Register contents, without logging.
    void poke(U32 offset, U32 value, int width = 32);
    U32 peek(U32 offset, int width = 32) const;

    const std::vector<Access>& accesses() const { return accesses_; }
    std::vector<std::string> log() const;
    void clearLog() { accesses_.clear(); }

  private:
    U32 load(U32 offset, int width) const;
    void store(U32 offset, U32 value, int width);

    std::map<U32, U8> bytes_;
    std::vector<Access> accesses_;
};

class FakeHams {
  public:
    FakeHams();   // installs the provider
    ~FakeHams();  // removes it

    // The fake behind the window on this file (or, for a window without a
    // file, of this name); made on first mention, before or after the window.
    FakeHamImpl& operator[](const std::string& key);

    // From now on the provider declines windows on this file (or of this
    // name): they are not listed in opened() and do not call onOpen. For
    // code that maps such a window itself through the Os hooks (the SoC GPIO
    // window on /dev/mem); a Ham made on a declined file opens the real one.
    void decline(const std::string& key) { declined_.insert(key); }

    // Every window made while installed, in order.
    const std::vector<HamDesc>& opened() const { return opened_; }

    // Called as each window is made, before its fake is handed out.
    std::function<void(const HamDesc&)> onOpen;

  private:
    std::map<std::string, Ptr<FakeHamImpl>> fakes_;
    std::vector<HamDesc> opened_;
    std::set<std::string> declined_;
};
