/*
 * The messaging C interface, version 6.13.1.
 *
 * Conventions
 *   Results:  functions return 0 (or a count) for success and -1 for failure. After a failure lbm_errnum() and
 *             lbm_errmsg() describe it; both are kept per thread and stay until the thread's next failure.
 *   Handles:  opaque and owned by the caller, who gives each back with the matching delete call. The exceptions are
 *             said where they occur: topics belong to their context, responses to their message.
 *   Lifetime: objects may be deleted in any order. A source or receiver that outlives its context is inert, and its
 *             delete call still has to be made.
 *   Threads:  every call may be made from any thread, callbacks included, unless its comment says otherwise. Attribute
 *             objects are for one thread at a time.
 *   Deletion: after lbm_rcv_delete, lbm_src_delete, lbm_cancel_fd and lbm_context_delete return, no callback of that
 *             object, nor of a context's children, runs or will run, event queues included. Called from inside the
 *             object's own callback they return at once and take effect when that callback returns. A context that is
 *             deleted so is gone once the lbm_context_process_events that made the callback has returned; if the
 *             library runs its thread, nothing tells when that has ended. Who has to know deletes it on another thread,
 *             or in a callback of an event queue: then it is gone when lbm_context_delete returns. Two callbacks on two
 *             threads must not delete each other's objects: each would wait for the other's end.
 *   Waiting:  a send without room waits for it, unless flags has LBM_SRC_NONBLOCK or the caller is the thread that
 *             processes the context's events, or those of a context that receives from the source. In a callback of
 *             another thread the wait ends once somebody deletes what the callback belongs to, or its context. A send
 *             that does not wait fails with LBM_EWOULDBLOCK.
 *   Fork:     a child process cannot use or delete its parent's objects but attributes: the calls fail with LBM_EOP. It
 *             may make its own (on a network only if its parent had none there). Its parent's messages it may read.
 *   Signals:  threads of the library block all signals but those of their own faults (SIGSEGV and the like), also in
 *             callbacks. Programs that are started from there begin so; posix_spawnattr_setsigmask corrects that.
 *   Strings:  arguments are copied. Strings handed to a callback live as long as the call, those of a message as long
 *             as the message.
 */
#ifndef LBM_LBM_H
#define LBM_LBM_H

#include <sched.h> /* struct timespec, which strict C99 does not find in time.h */
#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>

#ifdef __cplusplus
extern "C" {
#endif

#define LBM_VERS_MAJOR 6
#define LBM_VERS_MINOR 13
#define LBM_VERS_SP 1

#if defined(__GNUC__)
#define LBM_API __attribute__((visibility("default")))
#else
#define LBM_API
#endif

/* ---- Errors ----------------------------------------------------------------------------------------------------- */

#define LBM_EINVAL 1      /* an argument or option value is not acceptable */
#define LBM_EWOULDBLOCK 2 /* a send found no room and does not wait; try again later */
#define LBM_ENOMEM 3      /* memory or another resource of the system ran out */
#define LBM_EOP 4         /* the operation is not possible in the object's present state */
#define LBM_EOS 5         /* the operating system refused; the text names the call and its reason */

/* Number and text of the calling thread's last failure: 0 and "" when there was none. The text stays valid until the
 * thread's next failure. */
LBM_API int lbm_errnum(void);
LBM_API const char* lbm_errmsg(void);

/* Name and version of the library that answers the calls, for logs. */
LBM_API const char* lbm_version(void);

/* ---- Handles ---------------------------------------------------------------------------------------------------- */

typedef struct lbm_context_t_stct lbm_context_t;
typedef struct lbm_topic_t_stct lbm_topic_t;
typedef struct lbm_src_t_stct lbm_src_t;
typedef struct lbm_rcv_t_stct lbm_rcv_t;
typedef struct lbm_event_queue_t_stct lbm_event_queue_t;
typedef struct lbm_request_t_stct lbm_request_t;
typedef struct lbm_response_t_stct lbm_response_t;
typedef struct lbm_context_attr_t_stct lbm_context_attr_t;
typedef struct lbm_src_topic_attr_t_stct lbm_src_topic_attr_t;
typedef struct lbm_rcv_topic_attr_t_stct lbm_rcv_topic_attr_t;
typedef struct lbm_event_queue_attr_t_stct lbm_event_queue_attr_t;

typedef struct lbm_msg_t_stct lbm_msg_t;

typedef unsigned long lbm_ulong_t;

/* ---- Configuration ---------------------------------------------------------------------------------------------- */

/* Reads defaults for every object created afterwards from a text file: one "scope option value" a line, where scope is
 * context, source, receiver or event_queue; '#' starts a comment. Nothing is changed when a line is wrong: the error
 * text names file and line. */
LBM_API int lbm_config(const char* file_name);

/* Receives the library's own notices, one line without an end of line. May be called on any thread that is inside the
 * library; must not call it back. */
#define LBM_LOG_INFO 1
#define LBM_LOG_WARNING 2
#define LBM_LOG_ERROR 3
typedef int (*lbm_log_cb_proc)(int level, const char* message, void* clientd);

/* Sets the process-wide receiver of notices; null restores the default, which writes warnings and errors to standard
 * error. */
LBM_API int lbm_log(lbm_log_cb_proc proc, void* clientd);

/* Attribute objects carry creation options. Options are set and read as text (str_setopt, str_getopt) or in binary form
 * (setopt, getopt) with the exact size of the option's type. An unknown option or a bad value fails and changes
 * nothing. For the getopt family *optlen is the room in the buffer on entry and the used length on return. A text is
 * followed by a zero, which the length does not count, unless it fills the buffer: whoever offers one byte less than
 * a zero-filled buffer has always gets a terminated text. */
LBM_API int lbm_context_attr_create(lbm_context_attr_t** attr);
LBM_API int lbm_context_attr_dup(lbm_context_attr_t** attr, const lbm_context_attr_t* original);
LBM_API int lbm_context_attr_delete(lbm_context_attr_t* attr);
LBM_API int lbm_context_attr_setopt(lbm_context_attr_t* attr, const char* optname, const void* optval, size_t optlen);
LBM_API int lbm_context_attr_getopt(const lbm_context_attr_t* attr, const char* optname, void* optval, size_t* optlen);
LBM_API int lbm_context_attr_str_setopt(lbm_context_attr_t* attr, const char* optname, const char* optval);
LBM_API int lbm_context_attr_str_getopt(const lbm_context_attr_t* attr, const char* optname, char* optval,
                                        size_t* optlen);

LBM_API int lbm_src_topic_attr_create(lbm_src_topic_attr_t** attr);
LBM_API int lbm_src_topic_attr_dup(lbm_src_topic_attr_t** attr, const lbm_src_topic_attr_t* original);
LBM_API int lbm_src_topic_attr_delete(lbm_src_topic_attr_t* attr);
LBM_API int lbm_src_topic_attr_setopt(lbm_src_topic_attr_t* attr, const char* optname, const void* optval,
                                      size_t optlen);
LBM_API int lbm_src_topic_attr_getopt(const lbm_src_topic_attr_t* attr, const char* optname, void* optval,
                                      size_t* optlen);
LBM_API int lbm_src_topic_attr_str_setopt(lbm_src_topic_attr_t* attr, const char* optname, const char* optval);
LBM_API int lbm_src_topic_attr_str_getopt(const lbm_src_topic_attr_t* attr, const char* optname, char* optval,
                                          size_t* optlen);

LBM_API int lbm_rcv_topic_attr_create(lbm_rcv_topic_attr_t** attr);
LBM_API int lbm_rcv_topic_attr_dup(lbm_rcv_topic_attr_t** attr, const lbm_rcv_topic_attr_t* original);
LBM_API int lbm_rcv_topic_attr_delete(lbm_rcv_topic_attr_t* attr);
LBM_API int lbm_rcv_topic_attr_setopt(lbm_rcv_topic_attr_t* attr, const char* optname, const void* optval,
                                      size_t optlen);
LBM_API int lbm_rcv_topic_attr_getopt(const lbm_rcv_topic_attr_t* attr, const char* optname, void* optval,
                                      size_t* optlen);
LBM_API int lbm_rcv_topic_attr_str_setopt(lbm_rcv_topic_attr_t* attr, const char* optname, const char* optval);
LBM_API int lbm_rcv_topic_attr_str_getopt(const lbm_rcv_topic_attr_t* attr, const char* optname, char* optval,
                                          size_t* optlen);

LBM_API int lbm_event_queue_attr_create(lbm_event_queue_attr_t** attr);
LBM_API int lbm_event_queue_attr_dup(lbm_event_queue_attr_t** attr, const lbm_event_queue_attr_t* original);
LBM_API int lbm_event_queue_attr_delete(lbm_event_queue_attr_t* attr);
LBM_API int lbm_event_queue_attr_setopt(lbm_event_queue_attr_t* attr, const char* optname, const void* optval,
                                        size_t optlen);
LBM_API int lbm_event_queue_attr_getopt(const lbm_event_queue_attr_t* attr, const char* optname, void* optval,
                                        size_t* optlen);
LBM_API int lbm_event_queue_attr_str_setopt(lbm_event_queue_attr_t* attr, const char* optname, const char* optval);
LBM_API int lbm_event_queue_attr_str_getopt(const lbm_event_queue_attr_t* attr, const char* optname, char* optval,
                                            size_t* optlen);

/* Value of the context option "resolver_source_notification_function": called for every source that the context finds,
 * once for each appearance, on the thread that processes the context's events. */
typedef int (*lbm_src_notify_function_cb)(const char* topic_name, const char* source_name, void* clientd);
typedef struct lbm_src_notify_func_t_stct {
  lbm_src_notify_function_cb notifyfunc;
  void* clientd;
} lbm_src_notify_func_t;

/* Value of the receiver option "source_notification_function": the create function is called when a source of the topic
 * appears and returns the client data for that source, which its messages carry (source_clientd); the delete function
 * is called with it when the source goes. They are called on the thread that processes the context's events, from the
 * topic's first receiver on and for as long as the context lives; deleting the context calls the delete function for
 * the sources that are left. delete_func may be null. */
typedef void* (*lbm_rcv_src_notification_create_function_cb)(const char* source_name, void* clientd);
typedef int (*lbm_rcv_src_notification_delete_function_cb)(const char* source_name, void* clientd,
                                                           void* source_clientd);
typedef struct lbm_rcv_src_notification_func_t_stct {
  lbm_rcv_src_notification_create_function_cb create_func;
  lbm_rcv_src_notification_delete_function_cb delete_func;
  void* clientd;
} lbm_rcv_src_notification_func_t;

/* ---- Contexts --------------------------------------------------------------------------------------------------- */

/* Daemon-event callback of a context; reserved, never called by an engine without a daemon. */
typedef int (*lbm_daemon_event_cb_proc)(lbm_context_t* ctx, int event, const char* info, void* clientd);

/* Creates a context and joins it to its domain. attr may be null for defaults. With the option "operational_mode" set
 * to "sequential" nothing happens on the context unless lbm_context_process_events is called; with "embedded" (the
 * default) the library runs a thread that does it. */
LBM_API int lbm_context_create(lbm_context_t** ctx, const lbm_context_attr_t* attr, lbm_daemon_event_cb_proc proc,
                               void* clientd);
LBM_API int lbm_context_delete(lbm_context_t* ctx);

/* Options of a live context. Setting fails for options that can only be set at creation. */
LBM_API int lbm_context_setopt(lbm_context_t* ctx, const char* optname, const void* optval, size_t optlen);
LBM_API int lbm_context_getopt(lbm_context_t* ctx, const char* optname, void* optval, size_t* optlen);
LBM_API int lbm_context_str_setopt(lbm_context_t* ctx, const char* optname, const char* optval);
LBM_API int lbm_context_str_getopt(lbm_context_t* ctx, const char* optname, char* optval, size_t* optlen);

/* One option of a live object as text. */
#define LBM_OPTION_NAME_MAX 64
#define LBM_OPTION_VALUE_MAX 1024
typedef struct lbm_option_text_t_stct {
  char name[LBM_OPTION_NAME_MAX];
  char value[LBM_OPTION_VALUE_MAX];
} lbm_option_text_t;

/* Writes all options that have a text form, in the order of their names. *count is the room in opts on entry and the
 * number of options on return; too little room fails and sets *count to what is needed. */
LBM_API int lbm_context_str_getopt_all(lbm_context_t* ctx, lbm_option_text_t* opts, size_t* count);

/* Processes the context's events on the calling thread: returns 0 as soon as some were processed, when msec
 * milliseconds have passed, or when lbm_context_unblock was called. 0 never waits: it delivers the messages that are
 * there, and looks for all else (sources, subscriptions, responses) at most once a millisecond, for that takes a system
 * call. One thread at a time; fails for a context whose mode is not "sequential". */
LBM_API int lbm_context_process_events(lbm_context_t* ctx, lbm_ulong_t msec);

/* Makes the lbm_context_process_events call in progress return early; when there is none, the next one. */
LBM_API int lbm_context_unblock(lbm_context_t* ctx);

/* ---- Topics ----------------------------------------------------------------------------------------------------- */

/* Topics belong to their context and live as long as it. A repeated look-up of the same name with equal attributes
 * gives the same topic. Names have 1 to LBM_TOPIC_NAME_MAX bytes. */
#define LBM_TOPIC_NAME_MAX 255
LBM_API int lbm_rcv_topic_lookup(lbm_topic_t** topic, lbm_context_t* ctx, const char* name,
                                 const lbm_rcv_topic_attr_t* attr);
LBM_API int lbm_src_topic_alloc(lbm_topic_t** topic, lbm_context_t* ctx, const char* name,
                                const lbm_src_topic_attr_t* attr);

/* ---- Messages --------------------------------------------------------------------------------------------------- */

#define LBM_MSG_DATA 0                     /* a message of a source */
#define LBM_MSG_EOS 1                      /* end of session: the source or its process is gone */
#define LBM_MSG_REQUEST 2                  /* a message that may be answered through its response */
#define LBM_MSG_RESPONSE 3                 /* an answer to lbm_send_request */
#define LBM_MSG_UNRECOVERABLE_LOSS 4       /* the message with this sequence number is lost */
#define LBM_MSG_UNRECOVERABLE_LOSS_BURST 5 /* len messages from this sequence number on are lost */
#define LBM_MSG_NO_SOURCE_NOTIFICATION 6   /* no source of the topic was found within the configured time */
#define LBM_MSG_BOS 20                     /* beginning of session: the first message of a source follows */

#define LBM_MSG_FLAG_START_BATCH 0x1
#define LBM_MSG_FLAG_END_BATCH 0x2
#define LBM_MSG_FLAG_RETRANSMIT 0x4
#define LBM_MSG_FLAG_FRAGMENT 0x8      /* the data are a piece of a message; this engine delivers whole messages only */
#define LBM_MSG_FLAG_EXPLICIT_ACK 0x10 /* lbm_msg_send_explicit_ack is possible */

typedef struct lbm_msg_channel_info_t_stct {
  int flags;
  uint32_t channel_number;
} lbm_msg_channel_info_t;

/* A delivered message. Read-only for the receiver, with one exception: setting response to null takes the response over
 * (see lbm_response_delete). Valid during the callback, and longer as long as it is retained. */
struct lbm_msg_t_stct {
  const char* source;       /* name of the sending source's session, or of the responding context; never null */
  const char* topic_name;   /* never null */
  int type;                 /* LBM_MSG_... */
  int flags;                /* LBM_MSG_FLAG_... */
  const char* data;         /* len bytes, 8-byte aligned; null when len is 0 */
  size_t len;               /* bytes; for LBM_MSG_UNRECOVERABLE_LOSS_BURST a count of messages */
  uint32_t sequence_number; /* per source; wraps */
  lbm_response_t* response; /* for LBM_MSG_REQUEST, else null */
  void* source_clientd;     /* what the create function of the source notification returned, or null */
  const lbm_msg_channel_info_t* channel_info; /* null when the message was not sent on a channel */
  struct timespec timestamp;                  /* CLOCK_REALTIME when the receiving context took the message in */
};

/* One more reference to the message, and one less. Both may be called on any thread. */
LBM_API int lbm_msg_retain(lbm_msg_t* msg);
LBM_API int lbm_msg_delete(lbm_msg_t* msg);

/* Fails with LBM_EOP unless the message has LBM_MSG_FLAG_EXPLICIT_ACK. */
LBM_API int lbm_msg_send_explicit_ack(lbm_msg_t* msg);

/* ---- Receivers -------------------------------------------------------------------------------------------------- */

/* Called for every event of the receiver, on the thread that processes the context's events or dispatches the event
 * queue. The result should be 0. */
typedef int (*lbm_rcv_cb_proc)(lbm_rcv_t* rcv, lbm_msg_t* msg, void* clientd);

LBM_API int lbm_rcv_create(lbm_rcv_t** rcv, lbm_context_t* ctx, lbm_topic_t* topic, lbm_rcv_cb_proc proc, void* clientd,
                           lbm_event_queue_t* evq);
LBM_API int lbm_rcv_delete(lbm_rcv_t* rcv);
LBM_API int lbm_rcv_setopt(lbm_rcv_t* rcv, const char* optname, const void* optval, size_t optlen);
LBM_API int lbm_rcv_getopt(lbm_rcv_t* rcv, const char* optname, void* optval, size_t* optlen);
LBM_API int lbm_rcv_str_setopt(lbm_rcv_t* rcv, const char* optname, const char* optval);
LBM_API int lbm_rcv_str_getopt(lbm_rcv_t* rcv, const char* optname, char* optval, size_t* optlen);

/* ---- Sources ---------------------------------------------------------------------------------------------------- */

/* Event data of the first two is the context's name, a const char*; for one without a name, what names it as the source
 * of responses. */
#define LBM_SRC_EVENT_CONNECT 1    /* a context subscribed */
#define LBM_SRC_EVENT_DISCONNECT 2 /* it unsubscribed or is gone */
#define LBM_SRC_EVENT_WAKEUP 3     /* after a send that would have blocked: there is room again; event data null */

/* Called on the thread that processes the context's events or dispatches the event queue. The result should be 0. */
typedef int (*lbm_src_cb_proc)(lbm_src_t* src, int event, void* event_data, void* clientd);

/* proc may be null: then no events are delivered. */
LBM_API int lbm_src_create(lbm_src_t** src, lbm_context_t* ctx, lbm_topic_t* topic, lbm_src_cb_proc proc, void* clientd,
                           lbm_event_queue_t* evq);
LBM_API int lbm_src_delete(lbm_src_t* src);
LBM_API int lbm_src_setopt(lbm_src_t* src, const char* optname, const void* optval, size_t optlen);
LBM_API int lbm_src_getopt(lbm_src_t* src, const char* optname, void* optval, size_t* optlen);
LBM_API int lbm_src_str_setopt(lbm_src_t* src, const char* optname, const char* optval);
LBM_API int lbm_src_str_getopt(lbm_src_t* src, const char* optname, char* optval, size_t* optlen);

#define LBM_SRC_FLUSH 4    /* send at once whatever was collected */
#define LBM_SRC_NONBLOCK 8 /* fail with LBM_EWOULDBLOCK instead of waiting for room */

/* Send on a channel when flags has LBM_SRC_SEND_EX_FLAG_CHANNEL. */
#define LBM_SRC_SEND_EX_FLAG_CHANNEL 1
typedef struct lbm_src_send_ex_info_t_stct {
  int flags;
  uint32_t channel_number;
} lbm_src_send_ex_info_t;

/* Send one message to every subscribed context. They return 0; a message that no one subscribed to is sent to no one
 * and is not an error. Sends of one source from several threads are put in some order; receivers see that order. */
LBM_API int lbm_src_send(lbm_src_t* src, const char* data, size_t len, int flags);
LBM_API int lbm_src_sendv(lbm_src_t* src, const struct iovec* iov, int num, int flags);
LBM_API int lbm_src_send_ex(lbm_src_t* src, const char* data, size_t len, int flags,
                            const lbm_src_send_ex_info_t* info);
LBM_API int lbm_src_sendv_ex(lbm_src_t* src, const struct iovec* iov, int num, int flags,
                             const lbm_src_send_ex_info_t* info);

/* ---- Requests and responses ------------------------------------------------------------------------------------- */

/* Called for each response (type LBM_MSG_RESPONSE), on the thread that processes the context's events or dispatches the
 * event queue. */
typedef int (*lbm_request_cb_proc)(lbm_request_t* req, lbm_msg_t* msg, void* clientd);

/* Sends a request; every receiver of it may answer, until the request is deleted. */
LBM_API int lbm_send_request(lbm_request_t** req, lbm_src_t* src, const char* data, size_t len,
                             lbm_request_cb_proc proc, void* clientd, lbm_event_queue_t* evq, int flags);
LBM_API int lbm_request_delete(lbm_request_t* req);

/* Answers a request; may be called several times. flags: LBM_SRC_FLUSH, LBM_SRC_NONBLOCK. */
LBM_API int lbm_send_response(lbm_response_t* response, const char* data, size_t len, int flags);

/* Gives back a response that was taken over from its message; one that was not goes with the message. */
LBM_API int lbm_response_delete(lbm_response_t* response);

/* ---- Event queues ----------------------------------------------------------------------------------------------- */

/* Queue-monitor callback; reserved. */
typedef int (*lbm_event_queue_monitor_proc)(lbm_event_queue_t* evq, int event, size_t size, lbm_ulong_t age_usec,
                                            void* clientd);

#define LBM_EVENT_QUEUE_BLOCK 0xffffffffUL /* dispatch until unblocked */
#define LBM_EVENT_QUEUE_POLL 0UL           /* dispatch what is there and return */

LBM_API int lbm_event_queue_create(lbm_event_queue_t** evq, lbm_event_queue_monitor_proc proc, void* clientd,
                                   const lbm_event_queue_attr_t* attr);

/* Runs the queued callbacks on the calling thread for msec milliseconds, or until lbm_event_dispatch_unblock. Returns
 * the number of events dispatched. One thread at a time. */
LBM_API int lbm_event_dispatch(lbm_event_queue_t* evq, lbm_ulong_t msec);

/* Makes the lbm_event_dispatch call in progress return; when there is none, the next one. */
LBM_API int lbm_event_dispatch_unblock(lbm_event_queue_t* evq);

/* Drops what is queued and takes nothing more. */
LBM_API int lbm_event_queue_shutdown(lbm_event_queue_t* evq);

/* Must not be called while a thread is inside lbm_event_dispatch for the queue, nor from one of its callbacks. */
LBM_API int lbm_event_queue_delete(lbm_event_queue_t* evq);

/* ---- Descriptors ------------------------------------------------------------------------------------------------ */

#define LBM_FD_EVENT_READ 1
#define LBM_FD_EVENT_WRITE 2
#define LBM_FD_EVENT_EXCEPT 4

/* Called while the descriptor is ready (level-triggered), with the one LBM_FD_EVENT_... that it is ready for. */
typedef int (*lbm_fd_cb_proc)(lbm_context_t* ctx, int fd, lbm_ulong_t event, void* clientd);

/* Registers a callback for each event of the mask ev. A descriptor has at most one registration for an event. The
 * caller must cancel before closing the descriptor. */
LBM_API int lbm_register_fd(lbm_context_t* ctx, int fd, lbm_fd_cb_proc proc, void* clientd, lbm_event_queue_t* evq,
                            lbm_ulong_t ev);
LBM_API int lbm_cancel_fd(lbm_context_t* ctx, int fd, lbm_ulong_t ev);

/* As lbm_cancel_fd, without waiting for a callback that is running: the notification is called once no more callbacks
 * of the registration will come, through the given queue, or on the context's thread when it is null. info
 * and its cancel_cb must not be null. */
typedef void (*lbm_event_queue_cancel_cb_proc)(int fd, void* clientd);
typedef struct lbm_event_queue_cancel_cb_info_t_stct {
  lbm_event_queue_t* event_queue;
  lbm_event_queue_cancel_cb_proc cancel_cb;
  void* clientd;
} lbm_event_queue_cancel_cb_info_t;
LBM_API int lbm_cancel_fd_ex(lbm_context_t* ctx, int fd, lbm_ulong_t ev, const lbm_event_queue_cancel_cb_info_t* info);

#ifdef __cplusplus
}
#endif

#endif
