// Names for files that nobody else uses. Somebody may take a name before the
// file is made: that is what OpenMode::kNew is for.
// Tests: tests/unit/store/tpie_tempnam_test.cpp.
#pragma once

#include <cstdint>
#include <string>

// The directory, a separator, the base, "_" and six letters or digits such that
// no file has the name yet. `directory` null is that of AMI_SINGLE_DEVICE, else
// of TMPDIR, else the current one. Empty when the name would not fit into 511
// characters or none is left to be found.
std::string tpie_tempnam(const char* base, const char* directory = nullptr);

// Starts the generator of the six characters anew.
void seedTemporaryNames(uint64_t seed);
