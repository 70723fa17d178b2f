// CRC-32C (Castagnoli), the check sum of everything the store writes.
//
// Reflected, polynomial 0x1EDC6F41, first and last complemented: the form that
// processors have an instruction for. Tests: tests/unit/store/crc32c_test.cpp.
#pragma once

#include <cstddef>
#include <cstdint>

// Bytes that come in several pieces: pass on what the piece before gave.
uint32_t crc32c(const void* data, size_t bytes, uint32_t before = 0);

// The two ways to the same number; crc32c() takes the instruction where the
// processor has it.
uint32_t crc32cByTables(const void* data, size_t bytes, uint32_t before);
bool hasCrc32cInstruction();
uint32_t crc32cByInstruction(const void* data, size_t bytes, uint32_t before);
