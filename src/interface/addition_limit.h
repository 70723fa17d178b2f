// The size from which on AddDocSignature() refuses, for those who tell how far an
// index is from it.
#pragma once

#include <cstdint>

inline constexpr char kLimitedTable[] = "sig_table.stbl";  // the file whose size is looked at

uint32_t maxStblSize();  // bytes; what setMaxStblSize() set last. Any thread
