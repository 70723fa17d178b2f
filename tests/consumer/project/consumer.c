/* Indexes a text and matches a part of it, in the current directory. Ends with 0 when
 * that gives the one document, at level 2; with the static library also when that tells
 * how many hits there were. */
#include <stdio.h>
#include <string.h>

#include "tessera.h"
#ifdef WITH_STATIC_LIBRARY
#include "tessera_search.h"
#endif

enum { kDocument = 4711, kLength = 20000 };

static char text[kLength];
static unsigned char (*signatures)[8];
static int count;

/* Letters that do not repeat. */
static void write_text(void) {
  unsigned int state = 1;
  int i;
  for (i = 0; i < kLength; ++i) {
    state = state * 1103515245u + 12345u;
    text[i] = (char)('a' + (state >> 16) % 26);
  }
}

static int index_it(void) {
  int failed;
  if (InitIndexSystem() != 0) return 1;
  if (GenerateSignature4Text(text, kLength, &signatures, &count) != 0) return 1;
  failed = AddDocSignature(kDocument, signatures, count);
  FreeSignature(signatures);
  return failed | ExitIndexSystem();
}

#ifdef WITH_STATIC_LIBRARY
static int found(int length) {
  tessera_hit* hits;
  int found_count;
  int right;
  if (tessera_search(signatures, count, length, &hits, &found_count) != 0) return 0;
  right = found_count == 1 && hits[0].file_id == kDocument && hits[0].level == 2 &&
          hits[0].hits == (unsigned int)count;
  tessera_free_hits(hits);
  return right;
}
#else
static int found(int length) {
  _DLPSigMatchRet none;
  _DLPSigMatchRet* matches = &none;
  int found_count;
  int right;
  if (MatchSignature(signatures, count, length, &matches, &found_count) != 0) return 0;
  right = found_count == 1 && matches[0].fileID == kDocument && matches[0].match_level == 2;
  FreeSigMatchRet(matches);
  return right;
}
#endif

int main(void) {
  const int half = kLength / 2;
  write_text();
  if (InitSignatureGenerator(TESSERA_CLIENT) != 0) return 1;
  if (index_it() != 0) return 2;
  if (InitMatchSystem() != 0) return 3;
  if (GenerateSignature4Text(text, half, &signatures, &count) != 0 || count == 0) return 4;
  if (!found(half)) return 5;
  FreeSignature(signatures);
  if (ExitMatchSystem() != 0 || ExitSignatureGenerator() != 0) return 6;
  printf("%d signatures found at level 2\n", count);
  return 0;
}
