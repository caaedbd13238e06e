// Trace facility: named handles, each with a mask of enabled levels, and
// statements that are built only when their level is enabled. A statement
// is one line on stderr:
//
//   <handle>/<level> <file>:<line> <function>: <pieces...>
//
// The mask of every handle is read once, when the handle is made, from the
// environment variable KELVORN_TRACE (see the README), and can be changed
// at run time with levelMaskIs().
#pragma once
#include <cstddef>
#include <ios>

#include "Types.h"
#include "ham/String.h"

using FacilityLevel = unsigned;

class TraceHandle {
  public:
    // The second argument is kept for the callers' sake; it changes nothing.
    TraceHandle(const char* name, bool);

    bool enabled(FacilityLevel level) const { return (mask_ >> level) & 1u; }
    U32 levelMask() const { return mask_; }
    void levelMaskIs(U32 mask) { mask_ = mask; }
    const char* name() const { return name_; }

    // The mask that a KELVORN_TRACE value gives a handle of this name.
    static U32 maskFromSetting(const char* desc, const char* name);

  private:
    const char* name_;
    U32 mask_;
};

// Collects the pieces of one statement in a fixed buffer (no allocation);
// a statement longer than the buffer is cut.
class TraceStream {
  public:
    TraceStream& operator<<(const char* s);
    TraceStream& operator<<(char* s) { return *this << static_cast<const char*>(s); }
    TraceStream& operator<<(const String& s) { return *this << s.c_str(); }
    TraceStream& operator<<(bool b) { return *this << (b ? "true" : "false"); }
    TraceStream& operator<<(int v);
    TraceStream& operator<<(unsigned int v);
    TraceStream& operator<<(unsigned short v) { return *this << static_cast<unsigned int>(v); }
    // std::hex makes the integers that follow hexadecimal, std::dec decimal.
    TraceStream& operator<<(std::ios_base& (*manip)(std::ios_base&));

  private:
    friend class TraceHelper;
    void append(const char* s, size_t n);

    char buf_[512];
    size_t len_ = 0;
    bool hex_ = false;
};

class TraceHelper {
  public:
    TraceHelper(TraceHandle& handle, FacilityLevel level, const char* file, int line, const char* function);
    ~TraceHelper();  // writes the line
    TraceHelper(const TraceHelper&) = delete;
    TraceHelper& operator=(const TraceHelper&) = delete;

    TraceStream& stream() { return stream_; }

  private:
    TraceStream stream_;
};

// printf-style formatting into a String that a statement can take.
String _fmt(const char* format, ...) __attribute__((format(printf, 1, 2)));
