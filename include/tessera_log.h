/* Log sinks, for programs that link Tessera's static library. The shared
 * libraries export nothing of this and stay silent; so does the static one
 * until a sink is installed. */
#ifndef TESSERA_LOG_H
#define TESSERA_LOG_H

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Receives one message. `format` and `arguments` are printf's; the first three
 * arguments are the source file, the line and the function. Must be safe to
 * call from several threads at once and must not throw. Its result becomes
 * that of the library's log call. No message holds signature bytes. */
typedef int (*tessera_log_sink)(const char* format, va_list arguments);

/* Installs `sink` for one level, or removes it with NULL. Level 3 bears nearly
 * every message, level 4 a few informational ones; the word "Error" or "Info"
 * inside the text is independent of it. While level 3 has a sink, texts are gone
 * through window by window, which takes about ten times as long. Returns 0; -1 for
 * a level outside 1 to 5. May be called at any time from any thread. */
int tessera_set_log_sink(int level, tessera_log_sink sink);

#ifdef __cplusplus
}
#endif

#endif /* TESSERA_LOG_H */
