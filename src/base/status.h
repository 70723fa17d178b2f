// The status values of the library's internal functions. Zero is success; the
// exports fold everything else into 1 (or 2).
#pragma once

enum Status : int {
  kOk = 0,
  kErrState = -1,              // wrong state, lock failure, nothing to work on
  kErrParam = -3,              // bad argument or path
  kErrMem = -4,                // out of memory
  kErrFile = -5,               // a file cannot be opened, read, written, sought or measured
  kErrFormat = -8,             // malformed configuration
  kErrTableName = -9,          // bad search table name
  kErrSignature = -11,         // a signature the table writer refuses
  kErrPending = -12,           // the file ID is pending already
  VN_NO_INDEX_DATA_ERR = -16,  // the index holds no signature
  kErrWeakTable = -112,        // a table is empty, or the weak one disagrees with its directory
  kErrStrongTable = -113,      // the strong table disagrees with its directory
};
