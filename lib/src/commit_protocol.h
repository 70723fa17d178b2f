// The single steps that crash atomicity rests on, by name.
//
// The library takes every one of them. The crash tests build the store a second
// time with TESSERA_CRASH_TEST and leave out one step at a time, to see that
// they would notice.
#pragma once

enum class ProtocolStep {
  kNone,
  kJournalSync,           // before a file is changed in place
  kJournalDirectorySync,  // the new journal's name is on disk by then, too
  kDataSync,              // the files are on disk before the commit point
  kFilesDirectorySync,    // and so are the names of new ones
  kCommitPointSync,
  kHeadersLast,       // headers are written after what they describe is safe
  kNonce,             // a record of an earlier batch is told from one of this
  kRecoveryTruncate,  // files that grew are cut again
  kRecoverySync,      // what was restored is on disk before the journal is emptied
};

#ifdef TESSERA_CRASH_TEST
inline ProtocolStep left_out_step = ProtocolStep::kNone;
inline bool takes(ProtocolStep step) { return step != left_out_step; }
#else
constexpr bool takes(ProtocolStep) { return true; }
#endif
