// The scanner of tessera_scan.h.
// Tests: tests/unit/interface/scan_test.cpp.
#include "tessera_scan.h"

#include <algorithm>

#include "window_scan.h"

namespace {

struct Receiver {
  tessera_window_sink sink;
  void* context;
};

int handOn(const FoundWindow& found, void* context) {
  tessera_window window = {found.begin, found.end, {}};
  std::copy_n(found.signature.bytes, sizeof window.signature, window.signature);
  const auto* const receiver = static_cast<const Receiver*>(context);
  return receiver->sink(&window, receiver->context);
}

}  // namespace

extern "C" int tessera_scan_text(const char* text, size_t length, tessera_window_sink sink,
                                 void* context) {
  if (sink == nullptr || (text == nullptr && length > 0)) return TESSERA_SCAN_FAILED;
  Receiver receiver = {sink, context};
  switch (scanWindows(*supportedKernels().front(), reinterpret_cast<const unsigned char*>(text),
                      length, handOn, &receiver)) {
    case ScanResult::kDone:
      return TESSERA_SCAN_DONE;
    case ScanResult::kStopped:
      return TESSERA_SCAN_STOPPED;
    case ScanResult::kNoMemory:
      break;
  }
  return TESSERA_SCAN_FAILED;
}
