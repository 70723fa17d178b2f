// Where the selected windows of a text stand: those that getSignatureClient() makes
// its list of, but all of them, in their order, and with their places.
//
// The text is normalised and scanned piece by piece, as in text_signatures.h, and
// beside each byte that stays lies the place that it had. Nothing that
// initTextSignaturer() prepares is used.
// Tests: tests/unit/generation/window_scan_test.cpp.
#pragma once

#include <cstddef>
#include <cstdint>

#include "signature.h"
#include "text_kernel.h"

struct FoundWindow {
  uint64_t begin;  // offsets in the text as it was given: the first byte
  uint64_t end;    // and the byte behind the last one
  Signature signature;
};

// Receives a window and the context; a result other than 0 ends the scan.
using WindowSink = int (*)(const FoundWindow& window, void* context);

enum class ScanResult { kDone, kStopped, kNoMemory };

ScanResult scanWindows(const TextKernel& kernel, const unsigned char* text, size_t length,
                       WindowSink sink, void* context);
