// The file kelvorn-play reads twice: once whole, to check it before any pin
// moves, and again to play it. A regular file is read in place. Input that
// cannot be read twice (standard input as "-", a pipe, a FIFO, a character
// device, a socket) is copied once, as it comes, into a nameless temporary
// file in $TMPDIR (else /tmp), and both reads take that copy: the play is
// then of the very bytes that were checked, in memory of one block.
//
// A regular file that changes between the two reads (its size or its
// modification time) is refused rather than half played: unchanged() tells.
#pragma once
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "jtag/Action.h"

class PlayInput {
  public:
    PlayInput() = default;
    ~PlayInput();
    PlayInput(const PlayInput&) = delete;
    PlayInput& operator=(const PlayInput&) = delete;

    // Opens path ("-": standard input) and, where it cannot be read twice,
    // copies it whole. False with the reason (strerror text, or what failed
    // and why) in *why.
    bool open(const std::string& path, std::string* why);
    FILE* file() const { return file_; }
    // The bytes there are to read (the copy's, for a copied input).
    uint64_t size() const { return size_; }
    bool copied() const { return copied_; }
    // Back to the first byte for the second read.
    void rewind();
    // False when a regular file's size or modification time is no longer
    // what it was when it was opened.
    bool unchanged() const;

  private:
    bool copy(FILE* from, std::string* why);

    FILE* file_ = nullptr;
    bool ownsFile_ = false;
    bool copied_ = false;
    uint64_t size_ = 0;
    struct stat opened_ = {};
};

namespace jtag {

enum class VectorFormat { svf, xsvf };
// XSVF is binary, SVF text: a control byte other than white space in the
// first kSniffBytes makes a file XSVF (every XSVF command code is one).
// The file is rewound.
constexpr size_t kSniffBytes = 4096;
VectorFormat sniffFormat(FILE* f);
// The reader of that format over f.
std::unique_ptr<Reader> readerFor(VectorFormat format, FILE* f);

}  // namespace jtag
