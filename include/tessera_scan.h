/* Where the windows of a text stand, for programs that link Tessera's static
 * library. The shared libraries export nothing of this.
 *
 * GenerateSignature4Text() tells which signatures a text has; this tells where
 * they come from, so that a program can show the passages behind a match. */
#ifndef TESSERA_SCAN_H
#define TESSERA_SCAN_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One selected window: 61 bytes that count, with whatever lies between them. */
typedef struct tessera_window {
  uint64_t begin;             /* offset in the text, in bytes, of its first byte */
  uint64_t end;               /* offset of the byte behind its last one */
  unsigned char signature[8]; /* as in the list of GenerateSignature4Text() */
} tessera_window;

/* Receives one window, valid during the call, and what tessera_scan_text() was
 * given as `context`. A result other than 0 ends the scan. Must not throw. */
typedef int (*tessera_window_sink)(const tessera_window* window, void* context);

/* Results of tessera_scan_text(). */
enum {
  TESSERA_SCAN_DONE = 0,   /* the whole text was gone through */
  TESSERA_SCAN_FAILED = 1, /* an argument is missing, or memory ran out */
  TESSERA_SCAN_STOPPED = 2 /* the sink ended it */
};

/* Hands every selected window of a text to `sink`, in the order in which they
 * stand. Windows may overlap, and may bear equal signatures.
 *
 *   text     `length` bytes, as for GenerateSignature4Text(); only read
 *   length   bytes; fewer than 61 give no window, which is a success
 *   sink     called for each window, by this thread, before the call returns
 *   context  handed on to `sink` as it is; may be NULL
 *
 * The signatures are those that TESSERA_CLIENT gives, without its limits: there
 * is no largest number of windows and no maximum content size. The memory needed
 * is about 100 KiB, however long the text is. The generator need not be
 * initialised, and is left alone. Any number of calls may run side by side, and
 * beside any other function of the library. */
int tessera_scan_text(const char* text, size_t length, tessera_window_sink sink, void* context);

#ifdef __cplusplus
}
#endif

#endif /* TESSERA_SCAN_H */
