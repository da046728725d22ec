/* The calls of the Onload kernel-bypass network stack that a process can make to steer it.
 *
 * Link price_connector::onload, a library for "absent". Where Onload runs, it is preloaded into the process and its own
 * functions of these names are called instead. */
#ifndef ONLOAD_EXTENSIONS_H
#define ONLOAD_EXTENSIONS_H

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

/* What onload_thread_set_spin is about. */
enum {
  ONLOAD_SPIN_ALL = 0 /* every kind of blocking call */
};

/* Whose sockets onload_set_stackname is about. */
enum {
  ONLOAD_THIS_THREAD = 0 /* those that the calling thread creates from now on */
};

/* Who shares a stack of the same name. */
enum {
  ONLOAD_SCOPE_PROCESS = 2 /* the threads of this process */
};

/* 1 when the process runs under Onload, else 0. */
int onload_is_present(void);

/* Makes blocking calls of the calling thread busy-wait (spin 1) or sleep (spin 0). 0, or a negative error number:
 * -ENOSYS when Onload is absent. */
int onload_thread_set_spin(int type, int spin);

/* Puts sockets that are created from now on into the stack with that name; who and scope say which sockets and which
 * stack. The name is copied. 0, or a negative error number: -ENOSYS when Onload is absent. */
int onload_set_stackname(int who, int scope, const char* name);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif
