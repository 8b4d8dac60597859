/* The host contract: every function that libvx_cons calls of the process that loads it, and nothing else.
 * Plain C. The process provides them (an executable linked with exported symbols, or a shared object loaded
 * before the library). Unless said otherwise they may be called from any thread, those of the library with
 * 64 KiB of stack included, with locks of the library held, and must not call back into the library. */
#ifndef VX_HOST_H
#define VX_HOST_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* --- Messaging -------------------------------------------------------------------------------------------
 *
 * A message object, as allocated and as handed to a receive hook:
 *
 *   offset  width  content
 *   0       4      the messaging service's own word
 *   4       20     envelope: cluster id low, cluster id high, build number, sender address (four bytes in
 *                  network order), payload length n; each 32 bits, little-endian
 *   24      n      payload
 *
 * A hook is only given objects whose data area (all from offset 4 on) really holds 20 + n bytes: the service
 * drops a received datagram for which that is not so.
 *
 * Addresses are IPv4 in network byte order: 127.1.0.n names node n, 224.0.0.81 all nodes, the sender included.
 * The library uses channels 3 to 6. */

/* Returns an object with `size` bytes of data area, or null. The caller fills it and gives it to
 * vx_msg_enqueue, which takes it over in every case. */
void *vx_msg_allocate(uint32_t size);

/* Sends the message. repeat 0: once. repeat -1: it stays queued and is sent again every `interval` units
 * until dequeued. Returns a handle, null on failure (the message is released). Never calls a receive hook
 * and never waits for one. The handle of a message sent once may be stale at return: only a handle of a
 * repeated message is ever given to vx_msg_dequeue. */
void *vx_msg_enqueue(void *msg, uint32_t channel, uint32_t msg_key, uint32_t destination, int32_t repeat,
                     uint32_t interval);

/* handle not null: removes that queued message. handle null: removes every queued message of the channel whose
 * key is msg_key, or all of the channel if msg_key is 0xFFFFFFFF. What is not queued any more is no error.
 * Once it has returned, what it removed is not sent again. `reserved` is 0; the result is not used. */
int vx_msg_dequeue(void *handle, uint32_t channel, uint32_t msg_key, uint32_t reserved);

/* From now on `hook` is called with every message of the channel, one at a time, on a thread of the service
 * that holds no lock of the service. Hooks of different channels run independently: one may block for long.
 * The object belongs to the service and is valid during the call. */
void vx_msg_register_recv_hook(void (*hook)(void *msg), uint32_t channel);

/* No new call of the hook starts after this returned; it does not wait for a running one, and works from within
 * the hook. A hook that is not registered is no error. */
void vx_msg_unregister_recv_hook(void (*hook)(void *msg));

/* --- Configuration store ---------------------------------------------------------------------------------
 * Text values under dotted keys; the key is a printf format with arguments. All return 0 on success. */

#if defined(__GNUC__)
#define VX_HOST_PRINTF(text_at, arguments_at) __attribute__((format(printf, text_at, arguments_at)))
#else
#define VX_HOST_PRINTF(text_at, arguments_at)
#endif

/* On success *value is a copy for the caller to free; a key that is not set leaves *value as it was. */
int vx_cfg_get(char **value, const char *key_format, ...) VX_HOST_PRINTF(2, 3);
int vx_cfg_get_int(int32_t *value, const char *key_format, ...) VX_HOST_PRINTF(2, 3);
int vx_cfg_get_uint(uint32_t *value, const char *key_format, ...) VX_HOST_PRINTF(2, 3);
int vx_cfg_is_enabled(int *enabled, const char *key_format, ...) VX_HOST_PRINTF(2, 3);
/* A null value removes the key. */
int vx_cfg_set(const char *value, const char *key_format, ...) VX_HOST_PRINTF(2, 3);
int vx_cfg_set_int(int32_t value, const char *key_format, ...) VX_HOST_PRINTF(2, 3);
/* Makes what was set permanent; `permanent` is 1. */
int vx_cfg_save(int permanent);

/* --- Hash table with integer keys ------------------------------------------------------------------------
 * Not synchronised: the library locks around it. `destroy` is called with the value whenever the entry leaves
 * the table. A null table is an error of the caller. */

void *vx_hash_create_i(uint32_t buckets); /* null on failure */
void vx_hash_delete_i(void *table);       /* removes every entry, then the table */
void vx_hash_clear_i(void *table);
/* Replaces an entry of the key. Returns 0; anything else: not stored, destroy not called. */
int vx_hash_set_entry_i(void *table, uint32_t key, void *value, void (*destroy)(void *value));
void *vx_hash_get_entry_i(void *table, uint32_t key); /* null if there is none */
int vx_hash_delete_entry_i(void *table, uint32_t key); /* the result is not used */
/* Walks the values in any order; null at the end. Deleting the entry just returned does not break the walk.
 * *cursor belongs to the table; nothing has to be released. */
void *vx_hash_get_first_entry_i(void *table, void **cursor);
void *vx_hash_get_next_entry_i(void *table, void **cursor);

/* --- Log, threads, helpers ------------------------------------------------------------------------------- */

/* printf-style; the library's lines end in "\n" (two of the cipher do not). */
void vx_log(const char *format, ...) VX_HOST_PRINTF(1, 2);
/* Adds the text of errno and the newline. */
void vx_log_err(const char *format, ...) VX_HOST_PRINTF(1, 2);

/* pthread_create with a stack of stack_size bytes. Returns 0 on success. */
int kesh_pthread_create(pthread_t *thread, const pthread_attr_t *attr, size_t stack_size, void *(*start)(void *),
                        void *arg);

/* Reads `text` as an unsigned number of the given base; 0 if it is none. The library passes 0 for the rest. */
unsigned long long vx_strtoull(const char *text, int base, int reserved1, int reserved2, int reserved3);

/* later - earlier, in microseconds. */
int64_t timeval_diff_usec(const struct timeval *later, const struct timeval *earlier);

/* Nodes of different builds do not hear each other. */
extern const uint32_t vx_firmware_dova_build_nr;

#ifdef __cplusplus
}
#endif

#endif
