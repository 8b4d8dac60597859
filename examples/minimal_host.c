/* A small host. Its state is the number of lines that were ordered and a checksum of them: the same on all nodes.
 *
 *     minimal_host CONFIG NODE [COUNT]
 *
 * CONFIG is a file with "cluster.supported = yes". The first start makes this process node NODE of a cluster of three,
 * and writes so into the file. The node submits the lines of standard input, or COUNT lines of its own, and prints what
 * is delivered. SIGTERM ends it. It needs /flashdisk/cons; the node whose /var/run/node_state says MASTER leads. */
#define _POSIX_C_SOURCE 200809L
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <vx_cons.h>
#include <vx_host_layer.h>

#define STATE_FILE "/flashdisk/minimal_host.state"
#define LINE_SIZE 1000

/* The nodes' names in the configuration. The first one names the cluster. */
static const char *const MACS[] = {"02:00:00:00:00:01", "02:00:00:00:00:02", "02:00:00:00:00:03"};

/* Only hooks change it, and the library runs one hook for data at a time. */
static struct {
  uint64_t lines;
  uint64_t checksum;
  char last[LINE_SIZE]; /* no two lines are equal, for each begins with a tag */
} state;

/* If a hook returned, the library would take its work as done. As it is, the next start delivers again. */
static void give_up(const char *what)
{
  perror(what);
  _exit(2);
}

/* After a crash the file holds the state of before, or this one. */
static void save_state(void)
{
  int file = open(STATE_FILE ".new", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  int directory = open("/flashdisk", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (file < 0 || directory < 0 || write(file, &state, sizeof state) != (ssize_t)sizeof state || fsync(file) != 0 ||
      rename(STATE_FILE ".new", STATE_FILE) != 0 || fsync(directory) != 0)
    give_up(STATE_FILE);
  close(file);
  close(directory);
}

static void deliver(const uint8_t *data, uint32_t length, uint32_t full_state)
{
  if (full_state ? length != sizeof state : length == 0 || length > LINE_SIZE || data[length - 1] != '\0')
    give_up("not from a minimal_host");
  if (full_state) {
    memcpy(&state, data, sizeof state);
  } else if (strcmp(state.last, (const char *)data) == 0) {
    return; /* after a crash the last payload may come once more */
  } else {
    memcpy(state.last, data, length);
    state.lines++;
    for (uint32_t i = 0; i < length; i++)
      state.checksum = (state.checksum ^ data[i]) * 0x100000001b3;
  }
  save_state();
  printf("%llu %016llx %s%s\n", (unsigned long long)state.lines, (unsigned long long)state.checksum,
         full_state ? "snapshot, up to " : "", state.last);
  fflush(stdout);
}

static int get_state(uint8_t **copy, uint32_t *length)
{
  *copy = malloc(sizeof state); /* the library frees it */
  *length = sizeof state;
  if (*copy == NULL)
    give_up("snapshot"); /* any other result than 0 would clear the state of every node */
  memcpy(*copy, &state, sizeof state);
  return 0;
}

static void *submit(void *count)
{
  char text[LINE_SIZE / 2], line[LINE_SIZE];
  struct timespec start;
  clock_gettime(CLOCK_REALTIME, &start);
  for (unsigned long i = 1; count == NULL || i <= *(const unsigned long *)count; i++) {
    snprintf(text, sizeof text, "line %lu", i);
    if (count == NULL && fgets(text, sizeof text, stdin) == NULL)
      break;
    text[strcspn(text, "\n")] = '\0';
    int length = snprintf(line, sizeof line, "%u.%lld.%09ld.%lu %s", vx_cons_get_node_id(), (long long)start.tv_sec,
                          start.tv_nsec, i, text);
    if (vx_cons_distribute((const uint8_t *)line, (uint32_t)length + 1, 0) != 0)
      fprintf(stderr, "minimal_host: this line is delivered or not, nobody knows: %s\n", line);
    if (!vx_cons_cluster_active())
      break;
  }
  return NULL;
}

/* Runs the node until a signal comes, and returns 0. 1: it does not start, or its disk made it leave the cluster. */
static int run(const char *node, unsigned long *count, const sigset_t *signals)
{
  pthread_t submitter;
  int got = -1;
  vx_cons_register_data_hooks(0, get_state, deliver);
  if (!vx_cons_cluster_enabled() && vx_cons_configure(NULL, NULL, NULL, MACS, 3, node, NULL) != 0)
    return 1;
  if (vx_cons_start() != 0 || pthread_create(&submitter, NULL, submit, count) != 0)
    return 1;
  pthread_detach(submitter);
  while (got < 0 && vx_cons_cluster_active())
    got = sigtimedwait(signals, NULL, &(struct timespec){.tv_sec = 1});
  vx_cons_stop(); /* ends the call that the submitter is in */
  return got < 0;
}

int main(int argc, char **argv)
{
  if (argc < 3) {
    fprintf(stderr, "usage: minimal_host CONFIG NODE [COUNT]\n");
    return 2;
  }
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, NULL); /* before there are threads: all inherit it */

  int file = open(STATE_FILE, O_RDONLY | O_CLOEXEC);
  if (file >= 0 && (read(file, &state, sizeof state) != (ssize_t)sizeof state || close(file) != 0))
    give_up(STATE_FILE);
  const struct vx_host_setting settings[] = {{"cluster.node_id", argv[2]}, {NULL, NULL}};
  if (vx_host_configure(argv[1], settings) != 0 || vx_host_start() != 0) {
    fprintf(stderr, "minimal_host: %s\n", vx_host_error());
    return 1;
  }
  unsigned long count = argc > 3 ? strtoul(argv[3], NULL, 10) : 0;
  int code = vx_cons_init() == 0 ? run(argv[2], argc > 3 ? &count : NULL, &signals) : 1;
  vx_cons_cleanup();
  vx_host_stop();
  _exit(code); /* the submitter may still wait for standard input */
}
