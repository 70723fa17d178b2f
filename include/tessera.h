/* Tessera: document fingerprints for data-loss prevention.
 *
 * Three families of functions. Generation turns a document into a short list
 * of 8-byte signatures; the index keeps the signatures of confidential
 * documents in the directory "sig_index_DB" below the current directory;
 * matching tells which of those documents share passages with a query.
 * Settings are read from "index_sys_config.txt" in the current directory:
 * InitSignatureGenerator() creates it when it is missing, the other two
 * families need it.
 *
 * Unless said otherwise a function returns 0 for success and 1 for failure,
 * and no exception leaves it. A signature is 8 bytes, ordered by memcmp. */
#ifndef TESSERA_H
#define TESSERA_H

#include <stdint.h>

#if defined(_WIN32)
#define TESSERA_API
#else
#define TESSERA_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Platforms of InitSignatureGenerator(): how many signatures a text gets. */
enum {
  TESSERA_SERVER = 1, /* a few evenly spread signatures per 1024 bytes: a small index */
  TESSERA_CLIENT = 2  /* every selected passage, at most 10000: finds single paragraphs */
};

/* ---- Generation ------------------------------------------------------- */

/* Prepares the generator and takes the maximum content size from the
 * configuration line "max_content_size" (6 MiB when there is no usable one);
 * the value in force is written back, so the file normally exists afterwards.
 *
 *   platform    TESSERA_SERVER or TESSERA_CLIENT
 *
 * Returns 1 when the generator is already initialised, the platform is
 * unknown or memory runs out. Not to be called beside any other function of
 * this family. */
TESSERA_API int InitSignatureGenerator(int platform);

/* Turns a text into its list of signatures. Only ASCII letters, ASCII digits
 * and bytes from 128 up count; a text needs at least 61 of them.
 *
 *   content     `length` bytes, UTF-8 or any single-byte encoding; only read
 *   length      bytes; 0 or less means "no document", which is a success
 *   signatures  out: one malloc block of *count signatures of 8 bytes each,
 *               ascending by memcmp, no two equal; NULL when *count is 0.
 *               Owned by the caller; give it back with FreeSignature()
 *   count       out: signatures in the block, not bytes
 *
 * Both out-pointers must be valid. They are cleared first, so a failed call
 * leaves NULL and 0 behind. Returns 0; 1 before InitSignatureGenerator() or
 * when memory runs out. Calls may run side by side, but not beside an
 * Init, Set or Exit of the generator. */
TESSERA_API int GenerateSignature4Text(char* content, int length, unsigned char (**signatures)[8],
                                       int* count);

/* The one signature of a content that is not text: four sampled byte sums and
 * the length modulo 65536. Arguments, ownership, errors and threads are those
 * of GenerateSignature4Text(). */
TESSERA_API int GenerateSignature4Binary(char* content, int length,
                                         unsigned char (**signatures)[8], int* count);

/* Bounds the normalised text that GenerateSignature4Text() looks at.
 *
 *   bytes       1048576 (1 MiB) to 78643200 (75 MiB), both included
 *
 * Returns 1 out of these bounds and changes nothing. Otherwise returns 0 and
 * writes the value into the configuration file. Not to be called beside any
 * other function of this family. */
TESSERA_API int SetMaxContentSize(int bytes);

/* Frees a list of GenerateSignature4Text() or GenerateSignature4Binary(); NULL
 * is allowed. Always 0. The same routine as FreeSigMatchRet(). */
TESSERA_API int FreeSignature(unsigned char (*signatures)[8]);

/* Releases the generator. Returns 1 when it is not initialised. Not to be
 * called beside any other function of this family. */
TESSERA_API int ExitSignatureGenerator(void);

/* ---- Index ------------------------------------------------------------ */

/* Opens the index in "sig_index_DB", creating it when there is none, and adds
 * the index's root document (file ID -1).
 *
 * What a crash left half done is undone first. Returns 1 when an index is open
 * already, the configuration file is missing or malformed, or the index cannot
 * be opened (another process has it open, a file is damaged, the directory
 * cannot be made). May be called from any thread, like every function of this
 * family. */
TESSERA_API int InitIndexSystem(void);

/* Adds a document. It is kept in memory until the pending documents are
 * written together: when four times the configured "max_fid_num" are pending,
 * or at ExitIndexSystem(). A crash before that loses it.
 *
 *   file_id     any number but -1, less than 2^31 away from the index's base
 *               (-1 for an index made by InitIndexSystem())
 *   signatures  `count` signatures; only read
 *   count       signatures, at least 1
 *
 * Returns 0; 2 when this file ID is pending already (its first addition
 * stands); 1 for any other failure, also when "sig_index_DB/sig_table.stbl"
 * has reached the size set by setMaxStblSize(). */
TESSERA_API int AddDocSignature(int64_t file_id, unsigned char (*signatures)[8], int count);

/* Removes documents from the index. Documents that are still pending are not
 * looked at; file IDs that the index does not hold are no failure.
 *
 *   file_ids    `count` file IDs; only read
 *   count       file IDs, 0 or more
 *
 * The file IDs of one call are removed together: after a crash all of them are
 * there, or none. They are removed for good when the call returns; a disk that
 * fails undoes them, which is not told here but by the next save: the addition
 * that finds the index full, or ExitIndexSystem().
 *
 * Returns 1 when no index is open, the index has no base yet, an argument is
 * missing or negative, memory runs out (nothing is removed then), or a file ID
 * is too far from the base: the file IDs before that one are removed all the
 * same. */
TESSERA_API int DelDocSignature(int64_t* file_ids, int count);

/* Writes the pending documents, all of them or none, and the search tables, and
 * closes the index.
 *
 * Returns 1 when no index is open, the pending documents could not be written,
 * or deletions before could not; the index is closed all the same and what was
 * pending is lost. A failure to write the tables alone is not told here:
 * InitMatchSystem() refuses torn tables, but old ones that were not touched load. */
TESSERA_API int ExitIndexSystem(void);

/* Sets the size in bytes of "sig_index_DB/sig_table.stbl" from which on
 * AddDocSignature() refuses (2 GiB at load). Always 0. Not to be called beside
 * AddDocSignature(). */
TESSERA_API int setMaxStblSize(unsigned int bytes);

/* ---- Matching --------------------------------------------------------- */

/* One document that shares passages with the query. */
typedef struct _DLPSigMatchRet {
  int64_t fileID;      /* as given to AddDocSignature() */
  int32_t match_level; /* 2 strong, 1 weak, 0 a trace */
} _DLPSigMatchRet;

/* Loads the search tables that ExitIndexSystem() wrote. The configuration file
 * is read by the first call of the process only.
 *
 * Returns 1 when the match system is initialised already, the configuration
 * file cannot be read, or the tables are missing, empty or inconsistent. Not
 * to be called beside ExitMatchSystem(). */
TESSERA_API int InitMatchSystem(void);

/* Finds the documents that share signatures with a query.
 *
 *   signatures  `count` signatures in ascending order, as the Generate
 *               functions give them; only read
 *   count       signatures, 0 or more
 *   fsz         the size of the query document: 0 grades every match 2;
 *               otherwise a match is graded 2 when it holds a tenth of the
 *               query's signatures or 9 of them, 1 from a twentieth or 3 on
 *   result      in: must point to a variable that holds any non-null pointer;
 *               out: one malloc block of *result_count records, by source,
 *               then falling number of shared signatures, then file ID; at
 *               most five for one source (the low 32 bits of the file ID).
 *               Owned by the caller; give it back with FreeSigMatchRet()
 *   result_count  out: records in the block; 0 is a success
 *
 * Returns 1 when *result is null on entry (nothing is touched), `signatures` is
 * missing or `count` negative, no tables are loaded, the strong table cannot be
 * read or has been rewritten since it was loaded, or memory runs out. Calls may
 * run side by side, and beside InitMatchSystem() and ExitMatchSystem(): a search
 * ends with the tables that it began with. */
TESSERA_API int MatchSignature(unsigned char (*signatures)[8], int count, int fsz,
                               _DLPSigMatchRet** result, int* result_count);

/* Frees a result of MatchSignature(); NULL is allowed. Always 0. The same
 * routine as FreeSignature(). */
TESSERA_API int FreeSigMatchRet(_DLPSigMatchRet* result);

/* Releases the tables. Returns 1 when the match system is not initialised, or
 * the internal negative status of a failed stop. */
TESSERA_API int ExitMatchSystem(void);

#ifdef __cplusplus
}
#endif

#endif /* TESSERA_H */
