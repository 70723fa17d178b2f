/* As much of a program for MSVC as can be made without MSVC: no C runtime, only
 * tessera.lib. Ends with 0 when 100 bytes get the signature that ends in their number. */
#include "tessera.h"

static char content[100];

int start(void) {
  unsigned char(*signatures)[8];
  int count;
  if (InitSignatureGenerator(TESSERA_CLIENT) != 0) return 1;
  if (GenerateSignature4Binary(content, sizeof content, &signatures, &count) != 0) return 2;
  if (count != 1) return 3;
  if (signatures[0][4] != '0' || signatures[0][5] != '0') return 4;
  if (signatures[0][6] != '6' || signatures[0][7] != '4') return 5;
  FreeSignature(signatures);
  return ExitSignatureGenerator();
}
