// Tracing for the module: every statement goes through the one handle
// "Xilinx" and names the module's source file, the line and the function.
// A statement whose level is off costs one bit test; its pieces are not
// evaluated.
//
//   XTRACE(1, "lockfile is " << path);
//
// Levels: 0 TDO results; 1 construction, pin set-up and TDI; 2 TMS and
// register traffic; 3 TCK; 5 operation totals.
#pragma once
#include "trace/Trace.h"

inline TraceHandle& _defaultTraceHandle() {
    static TraceHandle handle("Xilinx", false);
    return handle;
}

#define XILINX_TRACE_FILE "xilinx/XilIntf.cpp"

#define XTRACE(level, ...)                                                                   \
    do {                                                                                     \
        TraceHandle& xilTraceHandle_ = _defaultTraceHandle();                                \
        if (__builtin_expect(xilTraceHandle_.enabled(level), 0)) {                           \
            TraceHelper xilTrace_(xilTraceHandle_, level, XILINX_TRACE_FILE, __LINE__, __func__); \
            xilTrace_.stream() << __VA_ARGS__;                                               \
        }                                                                                    \
    } while (0)
