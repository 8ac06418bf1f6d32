// SPDX-License-Identifier: Apache-2.0
// The trace: fixed progress texts on standard output, written while `debug` is non-zero. Programs
// read them, so they stay as they are, also where they name another method than the one that
// writes.
#ifndef QUARVEL_SRC_TRACE_H_
#define QUARVEL_SRC_TRACE_H_

#include <cstdio>

/// The trace switch of the whole library; the bridge defines it, only loadPKCS11Library sets it.
extern int debug;

/// printf of a text while tracing; the line stays open unless the text ends it. A macro, so that
/// the compiler checks every text against its arguments and evaluates them only while tracing.
#define TRACE(...)                                                               \
  (__builtin_expect(debug != 0, 0) ? static_cast<void>(std::printf(__VA_ARGS__)) \
                                   : static_cast<void>(0))

/// puts of a text while tracing: the text ends the line.
inline void traceLine(const char* text) {
  if (debug != 0) [[unlikely]] {
    std::puts(text);
  }
}

#endif  // QUARVEL_SRC_TRACE_H_
