/* A host in plain C: one whole cycle of generating, indexing, matching and
 * freeing in the current directory, which must be empty. Says what went wrong
 * and returns 1, or says nothing and returns 0. It is compiled as C99 with
 * warnings as errors, so it also shows that the header is plain C. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tessera.h"

#define CHECK(condition)                                               \
  do {                                                                 \
    if (!(condition)) {                                                \
      fprintf(stderr, "line %d: %s is false\n", __LINE__, #condition); \
      return 1;                                                        \
    }                                                                  \
  } while (0)

enum { kLength = 20000 };

/* A text that looks random, the same on every run. */
static void fill(char* text, unsigned seed) {
  int i;
  for (i = 0; i < kLength; ++i) {
    seed = seed * 1103515245u + 12345u;
    text[i] = (char)('a' + seed / 65536u % 26u);
  }
}

static int ascends(unsigned char (*signatures)[8], int count) {
  int i;
  for (i = 1; i < count; ++i) {
    if (memcmp(signatures[i - 1], signatures[i], 8) >= 0) return 0;
  }
  return 1;
}

int main(void) {
  static char first[kLength], second[kLength];
  unsigned char(*signatures)[8] = NULL;
  unsigned char image[1000] = {0};
  int count = 0;
  int64_t file_ids[2] = {2, 3};
  _DLPSigMatchRet unused;
  _DLPSigMatchRet* matches = &unused;

  fill(first, 1);
  fill(second, 2);

  CHECK(sizeof(_DLPSigMatchRet) == 16);
  CHECK(InitSignatureGenerator(TESSERA_CLIENT) == 0);
  CHECK(SetMaxContentSize(2000000) == 0);

  CHECK(InitIndexSystem() == 0);
  CHECK(GenerateSignature4Text(first, kLength, &signatures, &count) == 0);
  CHECK(count > 50 && ascends(signatures, count));
  CHECK(AddDocSignature(1, signatures, count) == 0);
  CHECK(AddDocSignature(1, signatures, count) == 2);
  CHECK(FreeSignature(signatures) == 0);
  CHECK(GenerateSignature4Text(second, kLength, &signatures, &count) == 0);
  CHECK(AddDocSignature(2, signatures, count) == 0);
  CHECK(FreeSignature(signatures) == 0);
  CHECK(GenerateSignature4Binary((char*)image, sizeof image, &signatures, &count) == 0);
  CHECK(count == 1 && memcmp(signatures[0],
                             "\0\0\0\0"
                             "03e8",
                             8) == 0);
  CHECK(AddDocSignature(3, signatures, count) == 0);
  CHECK(FreeSignature(signatures) == 0);
  CHECK(ExitIndexSystem() == 0);

  CHECK(InitIndexSystem() == 0);
  CHECK(setMaxStblSize(1u << 30) == 0);
  CHECK(DelDocSignature(file_ids, 2) == 0);
  CHECK(ExitIndexSystem() == 0);

  CHECK(InitMatchSystem() == 0);
  CHECK(GenerateSignature4Text(first + 5000, 8000, &signatures, &count) == 0);
  CHECK(MatchSignature(signatures, count, 8000, &matches, &count) == 0);
  CHECK(count == 1);
  CHECK(matches[0].fileID == 1);
  CHECK(matches[0].match_level == 2);
  CHECK(FreeSigMatchRet(matches) == 0);
  CHECK(FreeSignature(signatures) == 0);
  CHECK(GenerateSignature4Text(second, kLength, &signatures, &count) == 0);
  matches = &unused;
  CHECK(MatchSignature(signatures, count, kLength, &matches, &count) == 0);
  CHECK(count == 0);
  CHECK(FreeSigMatchRet(matches) == 0);
  CHECK(FreeSignature(signatures) == 0);
  CHECK(ExitMatchSystem() == 0);
  CHECK(ExitSignatureGenerator() == 0);
  return 0;
}
