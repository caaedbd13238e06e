// What the fuzz targets share. Each target file defines
// LLVMFuzzerTestOneInput for one parser of input that comes from outside
// (a vector file, a network client). Built with libFuzzer (KELVORN_FUZZ) it
// is a coverage-guided fuzzer; built without, replay_main.cpp runs it over
// the files it is given: its starting corpus and the inputs of crashes found
// before, in every build and under the sanitizers.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

// The longest scan a reader takes here: a damaged length costs little memory.
constexpr size_t kMaxBits = 1 << 16;

// The bytes as a read-only FILE, for the readers; null for no bytes.
class MemoryFile {
  public:
    MemoryFile(const uint8_t* data, size_t size)
        : file_(size ? fmemopen(const_cast<uint8_t*>(data), size, "rb") : nullptr) {}
    ~MemoryFile() {
        if (file_) std::fclose(file_);
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    FILE* get() const { return file_; }

  private:
    FILE* file_;
};

}  // namespace fuzz
