// Makes each call as an application does, and shows the results.
#include <cstdio>

#include "onload/extensions.h"

int main() {
  std::printf("present=%d\n", onload_is_present());
  std::printf("spin=%d\n", onload_thread_set_spin(ONLOAD_SPIN_ALL, 1));
  std::printf("stackname=%d\n", onload_set_stackname(ONLOAD_THIS_THREAD, ONLOAD_SCOPE_PROCESS, "lbm_pc_ctx"));
}
