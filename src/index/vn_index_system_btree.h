// The index system: the life cycle of the one open index.
//
// Plain functions around a module-level FidSigIndexCollector. They turn the
// host's 64-bit file IDs into the collector's fid offsets, their distances from
// the index's base, which the first document ever added fixes and which
// "meta_data.bin" keeps. A file ID below the base wraps to an offset of 2^31 or
// more, which the trees order as the negative number it stands for.
//
// Any thread may call any of them. Two mutexes guard the state: the first the
// initialised flag and the whole of initialisation and destruction, the second
// the collector; who needs both takes them in this order. The base is read and
// written beside them, so that a long save does not hold up those who only ask:
// documents that race to be the first of a fresh index may each take it.
//
// Statuses are those of status.h.
// Tests: tests/unit/index/vn_index_system_btree_test.cpp.
#pragma once

#include <cstdint>

#include "signature.h"

namespace dlp_btree {

// Opens the index in `index_dir`, making it when there is none. The level goes
// into a new index; an existing one keeps its own. Without a configuration path
// "index_sys_config.txt" is read. Returns -1 when one is open already, -3
// without a directory, or the status of the configuration or the collector.
int vnInitIndexSystem(const char* index_dir, uint32_t sig_gen_level, const char* config_path);

// 0 when an index is open, else -1.
int vnStartDocIndex();

// Queues a document. Returns -1 when no index is open or the file ID is 2^31 or
// more from the base, else the collector's status: -12 when it is pending.
int vnAddDocSignature(int64_t fid, uint32_t source_id, uint32_t sig_num, const Signature* sigs);

// Removes `fid_num` documents, up to the first whose file ID is too far from
// the base, and commits. Returns -3 without a list; -1 when no index is open,
// the index has no base, or such a file ID was met; -4 without memory for the
// next one.
int vnDelDocSignature(uint32_t fid_num, const int64_t* fids);

// Saves the pending documents.
int vnStopDocIndex();

// Writes the search tables: empty ones when the index has no base.
int vnCreateSearchTable(const char* sch_table_dir);

// Closes the index; documents that are still pending are dropped. -1 when none
// is open.
int vnDestroyIndexSystem();

// Sets *fid_offset to the distance of `fid` from `base`, or returns -1 when it
// is 2^31 or more.
int process_fid(int64_t fid, int64_t base, uint32_t* fid_offset);

}  // namespace dlp_btree
