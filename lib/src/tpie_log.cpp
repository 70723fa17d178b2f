#include "tpie_log.h"

#include <new>

namespace {

bool enabled = false;

// Trees may be closed by other files' static objects, before or after this one
// goes: what they report after it is not written any more.
struct CloseAtUnload {
  ~CloseAtUnload() {
    setTpieLogEnabled(false);
    tpieLog().close();
  }
} close_at_unload;

}  // namespace

bool tpieLogEnabled() { return enabled; }

void setTpieLogEnabled(bool enable) { enabled = enable; }

logstream& tpieLog() {
  alignas(logstream) static unsigned char storage[sizeof(logstream)];
  static logstream& log = *new (storage) logstream;
  return log;
}
