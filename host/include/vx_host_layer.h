/* The host layer as a library, libvx_host.so.1, for hosts in C. It gives libvx_cons.so.1 all functions of vx_host.h:
 * messages over UDP, configuration, log, tables, threads. This header starts and stops it.
 *
 * Calling order: vx_host_configure; vx_host_start; vx_cons_init and the life of the library; vx_cons_cleanup;
 * vx_host_stop. It may begin again with vx_host_configure.
 *
 * One process is one node, so there is one host layer in it. Call the functions of this header from one thread at a
 * time, never from a hook, and after a fork only before exec. They wait for disks, not for other nodes.
 *
 * Threads: start begins one thread for the log and eight for messages. They inherit the signal mask of their caller, so
 * block what the process handles before. The layer handles no signal itself.
 *
 * A function of vx_host.h that the process defines takes the place of this library's, for libvx_cons alone: the layer's
 * own log and messages go on reading the layer's configuration. */
#ifndef VX_HOST_LAYER_H
#define VX_HOST_LAYER_H

#ifdef __cplusplus
extern "C" {
#endif

/* Those that can fail return 0, or -1 and a text for people: what failed, where and why. The text belongs to the
 * calling thread and is valid until its next call; "" after a success. */
const char *vx_host_error(void);

/* Both are texts that end with a zero byte. The keys are those of the example configuration, without those of kesh
 * itself; a host may have keys of its own, and reads them with vx_cfg_get. */
struct vx_host_setting {
  const char *key;   /* letters, digits and . _ - [ ], at most 255 */
  const char *value; /* what a file would hold, without quotes */
};

/* Replaces the whole configuration by the file's keys, then sets those of `settings`, whose last element has a null
 * key. Copies everything. vx_cfg_save, which vx_cons_configure calls, writes back to the file what was set, also by
 * `settings`; comments and order stay.
 * path null: no file. vx_cfg_save then keeps nothing and succeeds. At each start of the process the host itself gives
 * all keys, with those that vx_cons_configure has set: cluster.node_id, cluster.node._s_ (number of nodes),
 * cluster.node[0].mac and so on.
 * settings null: none.
 * -1: the file cannot be read, a line of it or a key is none, a value is null, or there is no memory. Then nothing has
 * changed, unless memory ran out. */
int vx_host_configure(const char *path, const struct vx_host_setting *settings);

/* Opens the log (keys log.*; without log.file it is standard error) and starts messaging (cluster.node_id, which must
 * be set, and messaging.*). -1: a value is bad, the log's file cannot be opened, a port or an address is not free, or
 * there is no thread or memory. Then nothing runs. Does nothing if messaging runs already. */
int vx_host_start(void);

/* Opens the log's file again, after somebody renamed it. -1: it cannot be opened; the old one stays in use. */
int vx_host_reopen_log(void);

/* Reads the key file, messaging.keys, anew; without that key nothing is sealed. -1: it cannot be used; the former keys
 * stay. */
int vx_host_reload_keys(void);

/* Ends messaging and its threads, writes the log to its end and closes it. Lines that come later go to standard error.
 * Clean the library up before: hooks that still run are waited for. The configuration stays. Harmless at any time.
 * -1: the disk did not take the last lines of the log within 5 s; the log and its thread then stay as they are. */
int vx_host_stop(void);

#ifdef __cplusplus
}
#endif

#endif
