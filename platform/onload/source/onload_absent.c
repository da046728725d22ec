#include <errno.h>

#include "onload/extensions.h"

int onload_is_present(void) { return 0; }

int onload_thread_set_spin(int type, int spin) {
  (void)type;
  (void)spin;
  return -ENOSYS;
}

int onload_set_stackname(int who, int scope, const char* name) {
  (void)who;
  (void)scope;
  (void)name;
  return -ENOSYS;
}
