// Stands for the real library: says that it is present and shows how it is called.
#include <stdio.h>

#include "onload/extensions.h"

int onload_is_present(void) { return 1; }

int onload_thread_set_spin(int type, int spin) {
  printf("spin type=%d spin=%d\n", type, spin);
  return 0;
}

int onload_set_stackname(int who, int scope, const char* name) {
  printf("stackname who=%d scope=%d name=%s\n", who, scope, name);
  return 0;
}
