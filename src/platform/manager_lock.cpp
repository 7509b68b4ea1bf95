#include "platform/default_lock.h"

#include <memmanager/platform.h>

extern "C" {

// The tag names the caller for locks that keep account of their holders; this one does not.
[[gnu::weak]] void P(const char * /*tag*/) { memm::default_lock.enter(); }

[[gnu::weak]] void V(void) { memm::default_lock.leave(); }

// Second names of the two definitions above, to compare with what the names P and V lead to in this process.
[[gnu::alias("P"), gnu::visibility("hidden")]] void memm_default_P(const char *tag);
[[gnu::alias("V"), gnu::visibility("hidden")]] void memm_default_V(void);
}
