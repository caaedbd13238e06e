// The file kelvorn-play reads twice: once whole, to check it before any pin
// moves, and again to play it. A regular file is read in place. Input that
// cannot be read twice (standard input as "-", a pipe, a FIFO, a character
// device, a socket) is copied once, as it comes, into a nameless temporary
// file in $TMPDIR (else /tmp), and both reads take that copy.
//
// The copy is bounded: it stops, and the input is refused, when it would
// hold more than kMaxCopyBytes, or leave less free on its file system than
// the reserve (a sixteenth of the file system, at most kMaxReserveBytes).
// Its free space is asked again before each block, as other writers use it too.
//
// Whatever the input, file() reads it through a stream that takes it in
// blocks of kBlockBytes and keeps a keyed hash of each block the first time
// it is read (the check). Every later read of a block from the file (the
// play) is compared with that hash before any byte of the block is handed
// on, and so is the length, block by block (the block still in hand is
// handed on again as it is, the very bytes that were hashed): a file that was cut short, grew, or holds
// other bytes where it was checked fails the read at the first block that
// differs (FormatError, unreadable, its reason "changed since it was
// checked ..."), and nothing of that block, or after it, reaches a reader.
// What was played before it was what had been checked. The bytes are
// read with pread from the descriptor opened at the start, never by name
// again, and never mapped (a file cut short under a mapping faults).
//
// A regular file whose size or modification time differs from when it was
// opened is reported by unchanged(), for a refusal before anything is played.
#pragma once
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "jtag/Action.h"

class PlayInput {
  public:
    // The block the stream hashes and hands on as a whole.
    static constexpr size_t kBlockBytes = 1 << 16;
    // The most a copy of input that cannot be read twice may hold.
    static constexpr uint64_t kMaxCopyBytes = uint64_t{4} << 30;
    // The most the copy leaves free on its file system, beyond its last block.
    static constexpr uint64_t kMaxReserveBytes = uint64_t{256} << 20;

    PlayInput();
    ~PlayInput();
    PlayInput(const PlayInput&) = delete;
    PlayInput& operator=(const PlayInput&) = delete;

    // The most a copy may hold, for this input (tests); before open().
    void copyLimitIs(uint64_t bytes) { copyLimit_ = bytes; }

    // Opens path ("-": standard input) and, where it cannot be read twice,
    // copies it whole. False with the reason (strerror text, or what failed
    // and why) in *why.
    bool open(const std::string& path, std::string* why);
    // The stream both reads take: each block checked as above.
    FILE* file() const { return file_; }
    // The bytes there are to read (the copy's, for a copied input).
    uint64_t size() const { return size_; }
    bool copied() const { return copied_; }
    // Back to the first byte for the second read.
    void rewind();
    // False when a regular file's size or modification time is no longer
    // what it was when it was opened.
    bool unchanged() const;
    // True once a read found a block other than the one first read there.
    bool changed() const;

  private:
    struct Blocks;
    bool copy(FILE* from, std::string* why);
    bool stream(int fd, std::string* why);

    FILE* file_ = nullptr;
    std::unique_ptr<Blocks> blocks_;
    bool copied_ = false;
    uint64_t size_ = 0;
    uint64_t copyLimit_ = kMaxCopyBytes;
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
