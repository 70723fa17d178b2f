/* Verifying and rebuilding an index, for programs that link Tessera's static
 * library. The shared libraries export nothing of this.
 *
 * Like the index family, both work on the directory "sig_index_DB" below the
 * current directory and need "index_sys_config.txt" in it. What went wrong inside
 * is told to the log sinks (tessera_log.h). */
#ifndef TESSERA_STORE_H
#define TESSERA_STORE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Results of the functions below. */
enum {
  TESSERA_STORE_OK = 0,     /* done; of a verification: nothing is damaged */
  TESSERA_STORE_FAILED = 1, /* the configuration file cannot be read, memory ran out, or a
                               file cannot be written, read or had: a rebuild beside a
                               verification, too */
  TESSERA_STORE_IN_USE = 2, /* a session, here or in another process, has the index open for
                               writing; nothing was looked at or changed */
  TESSERA_STORE_DAMAGED = 3 /* a verification found an error; a rebuild has no whole source */
};

/* Severity of a finding. */
enum {
  TESSERA_FINDING_NOTE = 0,    /* nothing is wrong */
  TESSERA_FINDING_WARNING = 1, /* nothing is wrong yet */
  TESSERA_FINDING_ERROR = 2    /* the index does not hold, or does not find, what it should */
};

/* What mends a finding. */
enum {
  TESSERA_REMEDY_NONE = 0,
  TESSERA_REMEDY_OPEN = 1,           /* the next InitIndexSystem(), or its first save */
  TESSERA_REMEDY_REBUILD_TABLES = 2, /* tessera_rebuild_tables() */
  TESSERA_REMEDY_REBUILD_TREES = 3   /* tessera_rebuild_trees(), then tessera_rebuild_tables() */
};

/* One finding; the strings are valid during the call of the sink. Neither holds
 * bytes of a signature. */
typedef struct tessera_finding {
  int severity;        /* TESSERA_FINDING_... */
  int remedy;          /* TESSERA_REMEDY_... */
  const char* subject; /* the file or tree, without its directory */
  const char* text;    /* reads on from the subject: "has a damaged header" */
} tessera_finding;

/* Receives one finding and what tessera_verify_index() was given as `context`.
 * Must not throw. */
typedef void (*tessera_finding_sink)(const tessera_finding* finding, void* context);

/* What an index consists of. What could not be read counts as 0. */
typedef struct tessera_index_figures {
  uint64_t documents;          /* the root document of InitIndexSystem() is one of them */
  uint64_t postings;           /* pairs of a document and one of its signatures */
  uint64_t signatures;         /* distinct ones */
  uint64_t used_blocks;        /* of the three trees */
  uint64_t free_blocks;        /* in their files, to be used again */
  uint64_t commits;            /* number of the last one */
  uint64_t tree_bytes;         /* of the twelve files of the trees */
  uint64_t table_bytes;        /* of the four files of the search tables */
  uint64_t strong_table_bytes; /* of the one that may not outgrow the next two */
  uint64_t match_limit;        /* bytes of it that can be matched: 2 GiB */
  uint64_t addition_limit;     /* bytes from which on AddDocSignature() refuses, see
                                  setMaxStblSize(); 0 when the table has another name than
                                  the one that is looked at, so that nothing is refused */
} tessera_index_figures;

/* Checks the whole index: every block of the three trees, the trees against each
 * other, the four search tables against themselves and, element by element, the
 * signature tree, the meta data records, and how far the strong table is from its
 * limits (a warning from three quarters on).
 *
 *   sink     called for each finding, by this thread, before the call returns; may
 *            be NULL
 *   context  handed on to `sink` as it is; may be NULL
 *   figures  out, may be NULL: cleared first
 *
 * Everything is opened for reading only and nothing is changed. A batch that a
 * crash broke off is an error that says so, with TESSERA_REMEDY_OPEN; the trees
 * are not looked at then. While it runs, the index cannot be opened for writing.
 * Memory does not grow with the index. Returns TESSERA_STORE_OK, also with notes
 * and warnings; DAMAGED with at least one error; IN_USE or FAILED, without a
 * finding. May be called from any thread. */
int tessera_verify_index(tessera_finding_sink sink, void* context, tessera_index_figures* figures);

/* Writes the four search tables anew from the trees, as ExitIndexSystem() would,
 * and "meta_data.bin" if it was lost or damaged and the old tables still have it.
 * The trees are checked first; what a crash left half done in them is undone.
 * Nothing is added to the index.
 *
 * Not to be called beside InitIndexSystem() in the same process. A kill leaves
 * tables that are refused or stale: call it again. Returns TESSERA_STORE_OK;
 * DAMAGED when the trees are missing or not whole, or the meta data is nowhere;
 * IN_USE or FAILED. */
int tessera_rebuild_tables(void);

/* Where tessera_rebuild_trees() takes the postings from. */
enum {
  TESSERA_FROM_TREE = 0, /* the tree by document or the one by signature: the whole one, of
                            two the newer */
  TESSERA_FROM_TABLE = 1 /* the strong table: the index as it was last closed */
};

/* Writes the three trees anew from a source that is still whole. The old files
 * stay until the new ones are complete, and are replaced in one step, which a
 * crash undoes or finishes. Needs up to three times their size on the disk. The
 * tables are left alone: rebuild them afterwards.
 *
 * Returns TESSERA_STORE_OK; DAMAGED when the source is missing or not whole; IN_USE
 * or FAILED, also for another `source`. */
int tessera_rebuild_trees(int source);

#ifdef __cplusplus
}
#endif

#endif /* TESSERA_STORE_H */
