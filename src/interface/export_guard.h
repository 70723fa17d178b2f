// What the fifteen exports share: their results, and that nothing is thrown at
// the host.
//
// Each export is one function-try-block, so that its messages bear its own name
// and nothing it calls can get past it:
//
//   int ExitIndexSystem(void) try {
//     if (!open) {
//       LOG_ERROR("...");
//       return kFailure;
//     }
//     return kSuccess;
//   } catch (...) {
//     return kFailure;
//   }
//
// The library itself throws nothing; what arrives here is a container that got
// no memory.
#pragma once

inline constexpr int kSuccess = 0;
inline constexpr int kFailure = 1;
