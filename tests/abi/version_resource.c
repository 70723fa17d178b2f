/* The library tells its version as Windows programs are told versions:
 * version_resource DLL VERSION asks the system for both forms of it, the numbers
 * that installers compare and the text that people see. */
#include <stdio.h>
#include <string.h>

#include <windows.h>

static int fail(const char* what) {
  fprintf(stderr, "version_resource: %s\n", what);
  return 1;
}

int main(int argc, char** argv) {
  static char resource[4096];
  static const char* const texts[] = {"FileVersion", "ProductVersion"};
  char numbers[64];
  char query[64];
  VS_FIXEDFILEINFO* fixed;
  char* text;
  UINT length;
  int i;

  if (argc != 3) return fail("usage: version_resource DLL VERSION");
  if (!GetFileVersionInfoA(argv[1], 0, sizeof resource, resource)) return fail("no resource");
  if (!VerQueryValueA(resource, "\\", (void**)&fixed, &length)) return fail("no numbers");
  snprintf(numbers, sizeof numbers, "%u.%u.%u", HIWORD(fixed->dwFileVersionMS),
           LOWORD(fixed->dwFileVersionMS), HIWORD(fixed->dwFileVersionLS));
  if (strcmp(numbers, argv[2]) != 0) return fail(numbers);
  if (fixed->dwProductVersionMS != fixed->dwFileVersionMS ||
      fixed->dwProductVersionLS != fixed->dwFileVersionLS) {
    return fail("the product's numbers are others than the file's");
  }
  for (i = 0; i < 2; ++i) {
    snprintf(query, sizeof query, "\\StringFileInfo\\040904b0\\%s", texts[i]);
    if (!VerQueryValueA(resource, query, (void**)&text, &length)) return fail("no text");
    if (strcmp(text, argv[2]) != 0) return fail(text);
  }
  return 0;
}
