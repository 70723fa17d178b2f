/* Matching that also counts, for programs that link Tessera's static library.
 * The shared libraries export nothing of this. */
#ifndef TESSERA_SEARCH_H
#define TESSERA_SEARCH_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One document that shares passages with the query. */
typedef struct tessera_hit {
  int64_t file_id; /* as given to AddDocSignature() */
  int32_t level;   /* 2 strong, 1 weak, 0 a trace */
  uint32_t hits;   /* signatures of the query that the document holds; one that
                      stands twice in the query counts twice */
} tessera_hit;

/* MatchSignature() with the number of hits behind each level: the same documents
 * in the same order, graded alike, from the tables that InitMatchSystem() loaded.
 *
 *   signatures, count, fsz   as for MatchSignature()
 *   result        out: one malloc block of *result_count records; NULL when there
 *                 is none. Owned by the caller; give it back with
 *                 tessera_free_hits(). What it holds on entry does not matter
 *   result_count  out: records in the block; 0 is a success
 *
 * Both out-pointers are cleared first, so a failed call leaves NULL and 0 behind.
 * Returns 0; 1 when an argument is missing or `count` negative, no tables are
 * loaded, the strong table cannot be read or has been rewritten since it was
 * loaded, or memory runs out. Threads as for MatchSignature(). */
int tessera_search(unsigned char (*signatures)[8], int count, int fsz, tessera_hit** result,
                   int* result_count);

/* Frees a result of tessera_search(); NULL is allowed. */
void tessera_free_hits(tessera_hit* result);

#ifdef __cplusplus
}
#endif

#endif /* TESSERA_SEARCH_H */
