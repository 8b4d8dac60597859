#include "command_line.h"

#include <malloc.h>

#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <functional>
#include <string>

#include "admin/configure.h"
#include "admin/store_commands.h"
#include "client/alive.h"
#include "client/client_commands.h"
#include "client/client_journal.h"
#include "client/client_submit.h"
#include "client/keygen.h"
#include "client/metrics.h"
#include "client/probe.h"
#include "client/vrrp_fifo.h"
#include "cluster/configured_cluster.h"
#include "cluster/node_state_file.h"
#include "cluster/standing_file.h"
#include "command_names.h"
#include "config/check.h"
#include "daemon/daemon.h"
#include "daemon/node_files.h"
#include "daemon/status.h"
#include "exit_codes.h"
#include "items/payload.h"
#include "platform.h"
#include "probe/probe_count.h"
#include "settings.h"
#include "version.h"

namespace
{

constexpr char FOOTER[] = R"(Exit codes:
  0  done
  1  failed while it ran
  2  wrong command line
  3  the configuration, or a file or directory that it needs, cannot be used: somebody has to mend it first
  4  no daemon answers on the control socket
  5  refused in the present state (not active, daemon running); a line was not submitted, and never will be
  6  the outcome of a line is not known: it may be in the journal, or come into it later, once at most
  7  the daemon ended itself, because its store could not be written; start it again

A first cluster of one node, as root:
  mkdir -p /flashdisk/cons && cp kesh.conf.example /etc/kesh.conf
  kesh check
  kesh configure --single
  kesh run --foreground &
  kesh vrrp MASTER
  echo hello | kesh submit
  kesh journal)";

/// The options by which a client command finds the daemon.
struct address_options {
  std::string config_path;
  std::string socket_path;

  void add_to(CLI::App &command)
  {
    CLI::Option *config = command.add_option("--config", config_path, "take the socket from this configuration");
    command.add_option("--socket", socket_path, "control socket of the daemon (default: /run/kesh.sock)")
        ->excludes(config);
  }

  /// Runs `action` with the socket's path.
  int with_socket(const std::function<int(const std::string &)> &action) const
  {
    if (config_path.empty()) {
      return action(socket_path.empty() ? kesh::SOCKET_PATH_DEFAULT : socket_path);
    }
    std::string error;
    kesh::settings configured;
    if (!platform::config_load(config_path, error) || !kesh::settings_read(configured, error)) {
      fprintf(stderr, "kesh: %s\n", error.c_str());
      return kesh::EXIT_CONFIG;
    }
    return action(configured.socket_path);
  }

  /// The same for commands that can do without a daemon; they need the configuration then.
  int with_store(const std::function<int(const kesh::store_access &)> &action) const
  {
    kesh::store_access access;
    kesh::settings configured;
    if (platform::config_load(config_path.empty() ? kesh::CONFIG_PATH_DEFAULT : config_path, access.why) &&
        kesh::settings_read(configured, access.why)) {
      std::string unread;
      const auto kept = kesh::standing_file(kesh::CONS_DIRECTORY, kesh::configured_cluster(configured)).read(unread);
      access.place = {{configured.store_path, configured.store_identity(), configured.state_max},
                      kesh::CONS_DIRECTORY,
                      kept && kept->stands == kesh::standing::reformed};
      access.socket_path = configured.socket_path;
    }
    if (!socket_path.empty() || !access.place) {
      access.socket_path = socket_path.empty() ? kesh::SOCKET_PATH_DEFAULT : socket_path;
    }
    return action(access);
  }
};

struct command_line {
  kesh::observer &watch;
  CLI::App app{"kesh: the host daemon of a small cluster. It keeps a journal whose lines stand in the same order on "
               "every node.",
               "kesh"};
  std::function<int()> chosen;
  address_options address;
  std::string config_path = kesh::CONFIG_PATH_DEFAULT;
  bool foreground = false;
  double life_cycle_timeout_s = 120;
  kesh::configure_options configure;
  kesh::reform_options reform;
  kesh::submit_options submit;
  kesh::journal_options journal;
  bool journal_tags = false;
  bool journal_json = false;
  bool status_json = false;
  uint32_t alive_max_age_s = 10;
  std::string vrrp_fifo;
  std::string vrrp_instance;
  std::string metrics_file;
  uint32_t probe_count = kesh::PROBE_COUNT_DEFAULT;
  bool probe_json = false;
  bool health_live = false;
  bool health_ready = false;
  bool health_eligible = false;
  bool health_json = false;
  std::string vrrp_word;
  bool heard_follow = false;
  std::string store_file;
  bool verify_json = false;
  std::string say_text;
  std::string log_level;

  explicit command_line(kesh::observer &of) : watch(of)
  {
    app.footer(FOOTER);
    app.set_version_flag("--version", kesh::version_text, "Print version, build number and the library's version");
    app.require_subcommand(1);
    add_daemon_commands();
    add_line_commands();
    add_state_commands();
    add_store_commands();
    add_other_commands();
  }

  CLI::App &add(const char *name, const char *help, std::function<int()> action)
  {
    CLI::App *command = app.add_subcommand(name, help);
    command->callback([this, action = std::move(action)] { chosen = action; });
    return *command;
  }

  CLI::App &add_client(const char *name, const char *help, std::function<int(const std::string &)> action)
  {
    CLI::App &command = add(name, help, [this, action = std::move(action)] { return address.with_socket(action); });
    address.add_to(command);
    return command;
  }

  void add_life_cycle(const char *name, const char *help)
  {
    add_client(
        name, help,
        [this, name](const std::string &path) { return kesh::life_cycle_command(path, name, life_cycle_timeout_s); })
        .add_option("--timeout", life_cycle_timeout_s,
                    "seconds to wait for the end of it; the daemon goes on if it takes longer")
        ->capture_default_str()
        ->check(CLI::Range(0.01, 1e6));
  }

  void add_daemon_commands()
  {
    CLI::App &run = add("run",
                        "Run the daemon, in the foreground. SIGTERM and SIGINT stop it cleanly, SIGHUP opens the log "
                        "again.",
                        [this] { return kesh::daemon_run(config_path, foreground, watch); });
    run.add_option("--config", config_path, "configuration file")->capture_default_str();
    run.add_flag("--foreground", foreground, "log to stderr, whatever log.file says");

    add("check",
        "Test a configuration, and start nothing. Tells every fault with file, line, key, value and what is allowed; "
        "exit code 3 if there is one. kesh run refuses what this refuses.",
        [this] { return kesh::check_command(config_path, watch.config_keys()); })
        .add_option("--config", config_path, "configuration file")
        ->capture_default_str();

    CLI::App &set = add("configure",
                        "Make this node a member of a new cluster, with the daemon stopped on every node. Writes the "
                        "cluster.* keys, resets the node's files in /flashdisk/cons and puts its store aside. If it "
                        "is interrupted, the same command goes on.",
                        [this] {
                          configure.config_path = config_path;
                          return kesh::configure_run(configure);
                        });
    set.add_option("--config", config_path, "configuration file")->capture_default_str();
    CLI::Option *count = set.add_option("--nodes", configure.node_count, "number of nodes, 1 to 16");
    count->check(CLI::Range(uint32_t{1}, uint32_t{kesh::ORIGIN_MAX}));
    set.add_option("--id", configure.node_id, "number of this node, from 1")
        ->check(CLI::Range(uint32_t{1}, uint32_t{kesh::ORIGIN_MAX}));
    set.add_option("--cluster", configure.cluster_name,
                   "name of the cluster, the same on all nodes: clusters of other names are not heard");
    constexpr uint64_t GENERATION_MAX = uint64_t{1} << 50;
    set.add_option("--generation", configure.generation, "of the cluster: another one for each new life of it")
        ->capture_default_str()
        ->check(CLI::Range(uint64_t{1}, GENERATION_MAX));
    set.add_flag("--single", configure.single, "a cluster of this node alone, to try it out")->excludes(count);
    set.add_option("--mac", configure.macs,
                   "MAC address of a node, once per node and in their order, the same on all nodes; the first one "
                   "names the cluster for the library (default: made from name and generation)");
    set.add_option("--ipaddr", configure.ipaddr, "address of the cluster, stored for other programs");
    set.add_option("--netmask", configure.netmask, "stored for other programs");
    set.add_option("--gateway", configure.gateway, "stored for other programs");
    set.add_flag("--yes", configure.yes,
                 "put a store aside that has lines, and give up another command that was "
                 "interrupted");

    CLI::App &again = add("reform",
                          "Begin a new generation of the cluster with the stores of the present one, with the daemon "
                          "stopped on every node: after a majority of the nodes lost their records, for instance. Give "
                          "it on each node. The node that applied most goes first; if histories differ, a person "
                          "decides.",
                          [this] {
                            reform.config_path = config_path;
                            return kesh::reform_run(reform);
                          });
    again.add_option("--config", config_path, "configuration file")->capture_default_str();
    again.add_option("--generation", reform.generation, "the new one, the same on all nodes")
        ->required()
        ->check(CLI::Range(uint64_t{1}, GENERATION_MAX));
    again.add_option("--without", reform.without, "a node whose store is lost for good, so that nobody waits for it");
    again.add_flag("--yes", reform.yes,
                   "give up another command that was interrupted, and what is decided and not applied here");

    add_life_cycle("start", "Join the cluster: after kesh.start = no, kesh leave, or when the node had to leave.");
    add_life_cycle("leave", "Leave the cluster: stop the protocol, not the daemon. This node goes on voting.");
    add_life_cycle("reinit",
                   "Clean the library up and bring it up again, and join the cluster if the node was active. As after "
                   "a restart of the daemon, but the process stays.");
    add_life_cycle("stop", "Stop the daemon cleanly, and wait for its end.");
  }

  void add_line_commands()
  {
    CLI::App &send =
        add_client("submit",
                   "Submit lines to the journal. A line is acknowledged when it is delivered on this node. After the "
                   "first line that is not, no more are submitted. Every line that is not acknowledged is counted as "
                   "not submitted, or as of unknown outcome.",
                   [this](const std::string &path) { return kesh::submit_command(path, submit); });
    constexpr int WINDOW_MAX = 4096;
    send.add_option("FILE", submit.input, "file with the lines, - for stdin")->capture_default_str();
    send.add_option("--window", submit.window, "lines that are open at once")
        ->capture_default_str()
        ->check(CLI::Range(1, WINDOW_MAX));
    send.add_option("--threads", submit.window)->check(CLI::Range(1, WINDOW_MAX))->group("");
    send.add_option("--timeout", submit.timeout_s,
                    "seconds in which a line has to be delivered; as long as it can, the daemon repeats what has no "
                    "result, and waits for the node to become active")
        ->capture_default_str()
        ->check(CLI::Range(0.01, 1e6));
    send.add_option("--latency-csv", submit.latency_path,
                    "write a row per acknowledged line: sequence, microseconds, line of the input; tab between");
    send.add_flag("--json", submit.as_json, "print the summary as JSON");

    CLI::App &show = add_client("journal", "Print the journal of this node.", [this](const std::string &path) {
      journal.form = journal_json   ? kesh::journal_form::json
                     : journal_tags ? kesh::journal_form::tags
                                    : kesh::journal_form::text;
      return kesh::journal_command(path, journal);
    });
    show.add_option("--since", journal.since, "number of the first line to print")->capture_default_str();
    show.add_option("--from", journal.since)->group("");
    show.add_flag("--follow", journal.follow, "keep printing lines as they come");
    CLI::Option *tags = show.add_flag(
        "--tags", journal_tags, "print number, hash, tag (node.life.sequence), attempt and escaped text; tab between");
    show.add_flag(
            "--json", journal_json,
            "print an object per line: line, n, hash, node, life, sequence, attempt, at, and text, or text_hex if "
            "that is not UTF-8")
        ->excludes(tags);
  }

  void add_state_commands()
  {
    CLI::App &status = add_client("status", "Show the state of the node.", [this](const std::string &path) {
      return kesh::status_command(path, status_json ? nullptr : kesh::status_text);
    });
    status.add_flag("--json", status_json, "print as JSON");

    CLI::App &health =
        add_client("health", "For check scripts: exit code 0 for yes, 5 for no, and one line that says why.",
                   [this](const std::string &path) {
                     const auto asked = health_live       ? kesh::health_question::live
                                        : health_eligible ? kesh::health_question::eligible
                                                          : kesh::health_question::ready;
                     return kesh::health_command(path, asked, health_json);
                   });
    CLI::Option_group &question = *health.add_option_group("question");
    question.require_option(0, 1);
    question.add_flag("--live", health_live, "does the daemon answer?");
    question.add_flag("--ready", health_ready, "does this node take part, and are payloads ordered? (default)");
    question.add_flag("--eligible", health_eligible, "may keepalived choose this node as MASTER?");
    health.add_flag("--json", health_json, "print as JSON");

    CLI::App &probe =
        add_client("probe",
                   "Ask each other node over the network, by unicast and by multicast: what is lost, how "
                   "long an answer takes, how long a packet may be. Exit code 5 if one does not answer.",
                   [this](const std::string &path) { return kesh::probe_command(path, probe_count, probe_json); });
    probe.add_option("--count", probe_count, "so many probes to each node, by each way")
        ->check(CLI::Range(1u, kesh::PROBE_COUNT_MAX))
        ->capture_default_str();
    probe.add_flag("--json", probe_json, "print as JSON");

    CLI::App &metrics =
        add_client("metrics", "Print what can be counted, in Prometheus' text format.",
                   [this](const std::string &path) { return kesh::metrics_command(path, metrics_file); });
    metrics.add_option("--file", metrics_file, "replace this file instead, at once, for a collector of text files");

    CLI::App &alive = add("alive",
                          "For check scripts: exit code 0 if the library gave a sign of life lately, 5 if not. Empties "
                          "the queue of these signs.",
                          [this] { return kesh::alive_command(kesh::SIGN_OF_LIFE_KEY, alive_max_age_s); });
    alive.add_option("--max-age", alive_max_age_s, "seconds that the last sign may be old")
        ->check(CLI::Range(1u, 3600u))
        ->capture_default_str();

    CLI::App &vrrp = add_client(
        "vrrp",
        "For keepalived: say which state VRRP gave this node. Also while no daemon runs; the next one knows it.",
        [this](const std::string &path) {
          const auto note = [&path](const std::string &word) {
            return kesh::vrrp_command(path, kesh::VRRP_STATE_PATH, word);
          };
          return vrrp_fifo.empty() ? note(vrrp_word) : kesh::vrrp_follow(vrrp_fifo, vrrp_instance, note);
        });
    CLI::Option_group &source = *vrrp.add_option_group("source");
    source.require_option(1);
    source.add_option("STATE", vrrp_word, "MASTER, BACKUP, FAULT or STOP")
        ->check(CLI::IsMember({"MASTER", "BACKUP", "FAULT", "STOP"}));
    source.add_option(
        "--fifo", vrrp_fifo,
        "follow this fifo instead, as keepalived's vrrp_notify_fifo_script; says STOP when keepalived ends");
    vrrp.add_option("--instance", vrrp_instance, "with --fifo: listen to this VRRP instance alone");
  }

  CLI::App &add_store(const char *name, const char *help, std::function<int(const kesh::store_access &)> action)
  {
    CLI::App &command = add(name, help, [this, action = std::move(action)] { return address.with_store(action); });
    address.add_to(command);
    return command;
  }

  void add_store_commands()
  {
    add_store("backup",
              "Write a copy of the store, of one moment, while the daemon runs or not. The library's records are never "
              "part of it.",
              [this](const kesh::store_access &access) { return kesh::backup_command(access, store_file); })
        .add_option("FILE", store_file, "must not exist")
        ->required();

    CLI::App &verify = add_store(
        "verify", "Check every hash and number of the store, or of a backup. Exit code 1 if there is a fault.",
        [this](const kesh::store_access &access) { return kesh::verify_command(access, store_file, verify_json); });
    verify.add_option("FILE", store_file, "a backup, or a store that was put aside (default: the node's store)");
    verify.add_flag("--json", verify_json, "print as JSON");

    add_store("restore",
              "With the daemon stopped: put the present store aside and a backup in its place. The node gets what came "
              "after it from the others.",
              [this](const kesh::store_access &access) { return kesh::restore_command(access, store_file); })
        .add_option("FILE", store_file, "the backup; it stays as it is")
        ->required();
  }

  void add_other_commands()
  {
    CLI::App &say = add_client("say", "Send a cluster message to all nodes, once and without any promise.",
                               [this](const std::string &path) { return kesh::say_command(path, say_text); });
    say.add_option("TEXT", say_text, "up to 1024 bytes")->required();

    CLI::App &listen = add_client("heard", "Print the last 1000 cluster messages heard by this node.",
                                  [this](const std::string &path) { return kesh::heard_command(path, heard_follow); });
    listen.add_flag("--follow", heard_follow, "keep printing messages as they come");

    add_client("reload", "Read the key file anew. What is wrong with it is said, and the former keys stay.",
               kesh::reload_command);
    add("keygen", "Print a new key for the key file.", kesh::keygen_command);

    CLI::App &log = add_client("log-level", "Log more, or less, until the daemon ends.",
                               [this](const std::string &path) { return kesh::log_level_command(path, log_level); });
    log.add_option("LEVEL", log_level, "debug, info, warning or error")
        ->required()
        ->check(CLI::IsMember({"debug", "info", "warning", "error"}));
  }
};

}  // namespace

int kesh::command_line_run(int argc, char **argv, observer &watch)
{
  // Otherwise the first freed snapshot raises the threshold, and malloc keeps later snapshots in its arenas.
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
  try {
    command_line line(watch);
    try {
      line.app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
      if (const std::string unknown = error.get_exit_code() == 0 ? "" : kesh::unknown_word(line.app);
          !unknown.empty()) {
        fprintf(stderr, "kesh: %s\nRun with --help for more information.\n", unknown.c_str());
        return kesh::EXIT_USAGE;
      }
      return line.app.exit(error) == 0 ? kesh::EXIT_OK : kesh::EXIT_USAGE;
    }
    return line.chosen();
  } catch (const std::exception &failure) {
    fprintf(stderr, "kesh: %s\n", failure.what());
    return kesh::EXIT_RUNTIME;
  }
}
