// What a connection of kelvorn-serve asks of the protocol it speaks: the
// bytes each read returned go in, the answers come out, and the verdict
// says whether the connection goes on. A protocol object lives for the
// whole server (its buffers are sized once, at start) and begin() readies
// it for the next client. No socket appears here, so tests feed it bytes.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace serve {

enum class Verdict {
    more,       // waiting for the next bytes
    quit,       // the client ended the session
    malformed,  // error() says what was wrong; the connection ends
};

class Protocol {
  public:
    virtual ~Protocol() = default;

    // A new client: no command partly received, no cycles counted. The
    // device has just been selected.
    virtual void begin() = 0;
    // Consumes data (all of it, unless the verdict is quit or malformed)
    // and appends the answers to out.
    virtual Verdict feed(const uint8_t* data, size_t n, std::vector<uint8_t>* out) = 0;
    // The command partly received ("shift", "settck", ...), or null when
    // the input ends on a command boundary.
    virtual const char* partial() const = 0;

    // Why the last feed returned malformed: one phrase, no peer name.
    const std::string& error() const { return error_; }
    // TCK cycles (rising edges) since begin().
    uint64_t cycles() const { return cycles_; }

  protected:
    std::string error_;
    uint64_t cycles_ = 0;
};

// Bytes as they go into a message: in single quotes, printable ASCII as
// itself, anything else as \xNN.
std::string quoted(const uint8_t* data, size_t n);

}  // namespace serve
