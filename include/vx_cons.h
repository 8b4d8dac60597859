/* libvx_cons: ordered, durable broadcast and cluster messages for a cluster of up to 16 appliances.
 *
 * Sixteen functions, plain C, symbol version VX. The library does no networking of its own: the process
 * that loads it provides the functions of vx_host.h.
 *
 * Calling order: vx_cons_init; the hooks; vx_cons_configure when the configuration is new or has changed;
 * vx_cons_start; any number of vx_cons_distribute and vx_cons_bcast_clmsg; vx_cons_stop; vx_cons_cleanup.
 * A stopped library may be started again. init, start, stop, configure and cleanup may be called from any
 * thread but are meant for one at a time; they wait for each other. Calls in the wrong state are ignored.
 *
 * What a host must know of its process:
 * - Paths are fixed: the node's records are in /flashdisk/cons, which must exist and belong to this process alone; the
 *   leader is named by /var/run/node_state, which must be replaced by rename. One process is one node.
 * - Memory: the payloads of the present log (its state and up to 249 more) stay in it on every node until the next log
 *   begins there.
 * - Message queue: while started, the library sends the sign of life for keepalived, 8 bytes of type 1 once a second,
 *   to the System V queue with the key 0x64387148. It creates the queue (mode 0600) if there is none and never removes
 *   it. If nobody reads it, it fills, and a line says so once a second.
 * - Signals: the library handles and blocks none. Its threads inherit the mask of the thread that calls vx_cons_start
 *   (the helper of an isolation: of the thread that met the failure). Block there what the host handles: a handler
 *   would run on 64 KiB of stack, perhaps with locks of the library held, and may make a save fail.
 * - fork: the child has neither the threads nor usable locks of the library. It must call nothing of it, cleanup
 *   included, before it calls exec. Files of the library are closed by exec. */
#ifndef VX_CONS_H
#define VX_CONS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Data types 0 to 3 have hooks; other types are ordered too, but no hook gets them. */
#define VX_CONS_DATA_TYPES 4u
/* Largest cluster. */
#define VX_CONS_NODES_MAX 16u
/* Longest payload that vx_cons_distribute takes, in bytes: with its two headers of 8 bytes it fits 32 bits. */
#define VX_CONS_PAYLOAD_MAX 0xFFFFFFEFu

/* Hooks run with locks of the library held, those for data on its threads, which have 64 KiB of stack: keep them
 * short, and do not wait in them for a lock that is held while the library is called. Never call the library from
 * them, but for the five queries at the end: it deadlocks, at once or only while another thread stops the service or a
 * log begins. Builds with VX_CHECK_LOCKS stop the process at such a call, with a message on stderr. A slow deliver hook
 * holds up the node's deliveries; on the leader it holds up the cluster. */

/* Hands over a snapshot of all that was delivered of this data type. Stores a buffer allocated with malloc
 * (the library releases it with free) and its length, and returns 0. No deliver hook runs meanwhile. With snapshots of
 * megabytes set glibc's M_MMAP_THRESHOLD, else malloc keeps the freed ones.
 *
 * ANY OTHER RESULT MAKES EVERY NODE REPLACE ITS STATE OF THIS TYPE BY NOTHING: it means "nothing was ever delivered of
 * this type", not "try again". A null buffer does the same, and so does a snapshot that does not fit beside those of
 * the lower types (4 GiB in all). A host that cannot make its snapshot must not return: it ends its process, and
 * another node leads. A type without such a hook has no state. What the hook does not hand over stays its own. */
typedef int (*vx_cons_get_state_hook)(uint8_t **state, uint32_t *length);

/* Receives one payload of its data type, valid during the call only. full_state is 0 for a payload given to
 * vx_cons_distribute; 1 for a snapshot, which replaces all that was delivered before (length 0: no state).
 * After a crash the last payload may be delivered once more.
 *
 * The key cluster.durable_payloads of the host's configuration store (boolean, off if absent, read by vx_cons_start,
 * the same on all nodes) lets payloads survive the crash of any nodes, of all at once, and a power cut, as long as a
 * majority keeps its disks. It asks of the host that this hook makes durable what it got before it returns, snapshots
 * too: written and synced, with the directory where a file is new or renamed. To turn it on, stop all nodes while they
 * are level (each has delivered the same last payload), set the key on all, start them. The promise begins with the
 * next log. */
typedef void (*vx_cons_deliver_hook)(const uint8_t *data, uint32_t length, uint32_t full_state);

/* Receives a cluster message of type 0, valid during the call only; type is always 0. */
typedef void (*vx_cons_clmsg_hook)(const uint8_t *data, uint32_t length, uint32_t type);

/* Brings the library up. Returns 0, also when it is up already; -1 if there is no memory for the table of registers. */
int vx_cons_init(void);

/* Stops the protocol if it runs, waits for every call and hook that is inside the library, and releases
 * everything, the hooks included. Harmless at any time. */
void vx_cons_cleanup(void);

/* Reads the configuration and the node's durable state and starts the protocol. Returns 0, also when it runs
 * already; -1 if the library is not initialised, the configuration or a file is unusable (the log says
 * which), a thread cannot be created, or a disk failure isolates the node meanwhile. */
int vx_cons_start(void);

/* Stops the protocol: every blocked vx_cons_distribute returns -1, every thread of the library ends. Takes as
 * long as a hook that is running, else below 3 s, whatever the network does. Harmless at any time. This
 * node goes on answering the other nodes' votes until vx_cons_cleanup. */
void vx_cons_stop(void);

/* Writes the cluster's configuration into the host's store and resets this node to an empty log: stop every
 * node before any is configured. node_macs has node_count texts (six hexadecimal numbers, colon separated), the same
 * in the same order on every node: the first one names the cluster. node_id is this node's number as text, 1 to
 * node_count; mtime may be null or empty ("0" is stored).
 * Nothing of this is checked: whether node_count is 1 to 16 and node_id lies in it, whether addresses and MACs can be
 * read and differ, whether another node has this node_id, whether the other nodes are stopped. vx_cons_start refuses a
 * count or a number out of range and a first MAC that is none; the rest is never noticed. null for ipaddr, netmask,
 * gateway, node_id or a MAC removes that key.
 * Returns 0; -1 if the library is not initialised or is active, node_macs is null, or something could not be written:
 * the keys and records are then those of before, new ones, or some of each. Call it again before vx_cons_start. */
int vx_cons_configure(const char *ipaddr, const char *netmask, const char *gateway, const char *const *node_macs,
                      uint32_t node_count, const char *node_id, const char *mtime);

/* Sets (null: clears) both hooks of a data type, 0 to 3; other types are ignored. Waits for a deliver hook
 * that is running; a get_state hook may still be running when it returns. Hooks are lost at vx_cons_cleanup. */
void vx_cons_register_data_hooks(uint32_t type, vx_cons_get_state_hook get_state, vx_cons_deliver_hook deliver);

/* Sets (null: clears) the hook for cluster messages; index must be 0. Once it has returned, the old hook is
 * not running and will not be called again. */
void vx_cons_register_clmsg_hook(uint32_t index, vx_cons_clmsg_hook hook);

/* Submits `length` bytes (copied) for delivery on every node, in one order for all. `type` picks the hook.
 * Blocks until delivered on this node; without a quorum, until vx_cons_stop. Any host thread, several at
 * once, but never one that runs a hook.
 * Returns 0 once delivered here, or at once with nothing sent if length is 0 or data is null, whatever the length; -1
 * if the service is or gets stopped, the payload is too long or cannot be stored, or its fate is not known: after -1 it
 * may still reach the nodes. */
int vx_cons_distribute(const uint8_t *data, uint32_t length, uint32_t type);

/* Multicasts one datagram to all nodes, this one included: unordered, unacknowledged, sent once. Only type 0
 * reaches a hook. null data with a length sends that many zero bytes. Ignored while stopped, and without
 * memory. Any thread. */
void vx_cons_bcast_clmsg(uint32_t type, const uint8_t *data, uint32_t length);

/* These five: any thread. 1 if the key cluster.supported is enabled. */
int vx_cons_cluster_supported(void);
/* 1 if supported and a node count above 0 is configured. */
int vx_cons_cluster_enabled(void);
/* 1 between a successful vx_cons_start and vx_cons_stop, or the node's isolation after a disk failure. */
int vx_cons_cluster_active(void);
/* The number of nodes and this node's id while active, else 1. */
uint32_t vx_cons_get_node_count(void);
uint32_t vx_cons_get_node_id(void);

/* What the library saves: records (decision, delivery, identifiers), registers, payloads. */
#define VX_CONS_SAVES_RECORD 0
#define VX_CONS_SAVES_REGISTER 1
#define VX_CONS_SAVES_PAYLOAD 2
#define VX_CONS_SAVE_KINDS 3
/* Files of one kind that were saved since the library was loaded, and the time that took, in microseconds. A save counts
 * when it ends, a failed one too. */
typedef struct vx_cons_saves {
  uint64_t count;
  uint64_t microseconds;
} vx_cons_saves;
/* Any thread. Zeros for an unknown kind. */
vx_cons_saves vx_cons_get_saves(uint32_t kind);

/* Any thread. With durable payloads: where fewer bytes than so many would stay free in /flashdisk/cons, no ordinary
 * payload is saved, and none can be ordered by this node. They are for the records and the states of the next logs, so
 * the number grows and falls with the last state. 0 without durable payloads, and before the first start. */
uint64_t vx_cons_get_disk_reserve(void);

#ifdef __cplusplus
}
#endif

#endif
