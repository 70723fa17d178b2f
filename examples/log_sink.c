/* Shows why the library refused something: the messages of the library as JSON
 * lines on stderr, filtered by severity. Only the static library has log sinks,
 * and since it is C++ inside, the C++ compiler links:
 *
 *   cc -c log_sink.c $(pkg-config --cflags tessera)
 *   c++ log_sink.o $(pkg-config --libs-only-L tessera) -l:libtessera.a -pthread -o log_sink
 *
 * `log_sink` tells errors, `log_sink info` tells everything. Run in a directory
 * without an index it prints, on one line each,
 *
 *   {"severity":"error","module":"fpe_utility","file":"vn_config.cpp","line":223,
 *    "function":"IndexSysConfiguration::Load",
 *    "message":"open config file index_sys_config.txt fail"}
 *
 * and two more, of those that asked for the file.
 *
 * A sink of level 3 makes GenerateSignature4Text() about ten times as slow: install
 * it where you index and match, or when you look for a fault. */
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "tessera.h"
#include "tessera_log.h"

enum { LONGEST_MESSAGE = 1024 }; /* what is longer is cut */

static int tell_everything = 0; /* set before the sink is installed */

/* Writes `text` so that it can stand in a JSON string. Returns the byte behind it. */
static char* escape(char* out, const char* text, size_t length) {
  size_t i;
  for (i = 0; i < length; ++i) {
    const unsigned char c = (unsigned char)text[i];
    if (c == '"' || c == '\\') *out++ = '\\';
    if (c >= ' ' && c < 127) {
      *out++ = (char)c;
    } else {
      out += sprintf(out, "\\u%04x", c);
    }
  }
  *out = '\0';
  return out;
}

/* The sink. A message reads
 *
 *   Error [module] - (file:line):: #<function>#text
 *
 * and its first three arguments are file, line and function. The word in front is
 * the severity; the level is no measure of it. Called from any thread: it keeps
 * nothing, and hands each line to stderr in one call. */
static int to_stderr(const char* format, va_list arguments) {
  char message[LONGEST_MESSAGE];
  char quoted[6 * LONGEST_MESSAGE];
  const char *file, *function, *module, *text;
  int line, module_length;
  va_list copy;

  if (!tell_everything && strncmp(format, "Error", 5) != 0) return 0;
  va_copy(copy, arguments);
  file = va_arg(copy, const char*);
  line = va_arg(copy, int);
  function = va_arg(copy, const char*);
  va_end(copy);
  if (vsnprintf(message, sizeof message, format, arguments) < 0) return -1;

  module = strchr(message, '[');
  module = module != NULL ? module + 1 : message;
  module_length = (int)strcspn(module, "]");
  text = strstr(message, ">#");
  text = text != NULL ? text + strlen(">#") : message;
  escape(quoted, text, strlen(text));

  fprintf(stderr,
          "{\"severity\":\"%s\",\"module\":\"%.*s\",\"file\":\"%s\",\"line\":%d,"
          "\"function\":\"%s\",\"message\":\"%s\"}\n",
          strncmp(message, "Error", 5) == 0 ? "error" : "info", module_length, module, file, line,
          function, quoted);
  return 0;
}

int main(int argc, char** argv) {
  tell_everything = argc > 1 && strcmp(argv[1], "info") == 0;
  /* Level 3 bears errors and some information, level 4 information only. */
  if (tessera_set_log_sink(3, to_stderr) != 0) return 1;
  if (tell_everything && tessera_set_log_sink(4, to_stderr) != 0) return 1;

  if (InitMatchSystem() != 0) {
    printf("no index here\n");
    return 1;
  }
  printf("the index is loaded\n");
  return ExitMatchSystem() != 0;
}
