/* Holds the index of the current directory open, as another program would,
 * until its input ends. For index_test.py. */
#include <stdio.h>

#include "tessera.h"

int main(void) {
  if (InitSignatureGenerator(TESSERA_CLIENT) != 0 || InitIndexSystem() != 0) return 1;
  puts("open");
  fflush(stdout);
  while (getchar() != EOF) {
  }
  return ExitIndexSystem();
}
