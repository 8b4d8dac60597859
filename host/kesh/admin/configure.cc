#include "admin/configure.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "admin/cluster_identity.h"
#include "admin/configure_steps.h"
#include "client/socket_text.h"
#include "cluster/configured_cluster.h"
#include "cluster/reform.h"
#include "cluster/standing_file.h"
#include "daemon/node_files.h"
#include "exit_codes.h"
#include "platform.h"
#include "settings.h"
#include "store/library_records.h"
#include "store/store_aside.h"
#include "store/store_schema.h"
#include "unique_fd.h"
#include "vx_cons.h"
#include "vx_host.h"

namespace kesh
{

namespace
{

int fail(int code, const std::string &error)
{
  fprintf(stderr, "kesh: %s\n", error.c_str());
  return code;
}

/// Fills in what follows from other options. Returns why they cannot be used; empty if they can.
std::string complete(configure_options &options)
{
  if (options.single) {
    options.node_count = options.node_id = 1;
    options.cluster_name = options.cluster_name.empty() ? trial_cluster_name() : options.cluster_name;
  }
  if (options.node_count == 0 || options.node_id == 0) {
    return "--nodes and --id are needed, or --single";
  }
  if (options.node_id > options.node_count) {
    return "--id " + std::to_string(options.node_id) + " is above --nodes " + std::to_string(options.node_count);
  }
  if (options.cluster_name.empty() && options.macs.empty()) {
    return "--cluster NAME is needed, the same on all nodes, so that this cluster never hears another one";
  }
  if (!options.cluster_name.empty()) {
    if (const std::string fault = cluster_name_fault(options.cluster_name); !fault.empty()) {
      return "--cluster: " + fault;
    }
  }
  if (options.macs.empty()) {
    options.macs = cluster_macs(options.cluster_name, options.generation, options.node_count);
  }
  const std::string fault = macs_fault(options.macs, options.node_count);
  return fault.empty() ? "" : "--mac: " + fault;
}

/// As an operator types it, the same for the same values.
std::string command_of(const configure_options &given)
{
  std::string text = "kesh configure";
  const auto add = [&text](const char *name, const std::string &value) {
    if (!value.empty()) {
      text.append(1, ' ').append(name).append(1, ' ').append(value);
    }
  };
  add("--nodes", std::to_string(given.node_count));
  add("--id", std::to_string(given.node_id));
  add("--cluster", given.cluster_name);
  add("--generation", std::to_string(given.generation));
  for (const std::string &mac : given.macs) {
    add("--mac", mac);
  }
  add("--ipaddr", given.ipaddr);
  add("--netmask", given.netmask);
  add("--gateway", given.gateway);
  return text;
}

/// Checks what must hold before anything is changed.
int check_ready(const configure_options &options, settings &configured)
{
  std::string error;
  if (!platform::config_load(options.config_path, error) || !platform::log_open(error) ||
      !settings_read(configured, error) || !cons_directory_usable(error)) {
    return fail(EXIT_CONFIG, error);
  }
  if (vx_cons_cluster_supported() == 0) {
    return fail(EXIT_CONFIG, options.config_path + ": set cluster.supported = yes first");
  }
  if (socket_connect(configured.socket_path)) {
    return fail(EXIT_REFUSED, "the daemon runs: kesh stop first, on every node of the cluster");
  }
  return EXIT_OK;
}

int write_cluster(const configure_options &options)
{
  std::vector<const char *> macs;
  macs.reserve(options.macs.size());
  for (const std::string &mac : options.macs) {
    macs.push_back(mac.c_str());
  }
  // Saved with the keys of the library. Durable payloads must be on before it comes up: it flushes its files then.
  const char *name = options.cluster_name.empty() ? nullptr : options.cluster_name.c_str();
  vx_cfg_set(name, "cluster.name");
  vx_cfg_set(std::to_string(options.generation).c_str(), "cluster.generation");
  vx_cfg_set("yes", "cluster.durable_payloads");
  // The records are about to be reset: this node has no past in the new cluster.
  std::string error;
  if (!forget_standing(error, CONS_DIRECTORY)) {
    return fail(EXIT_RUNTIME, error);
  }
  if (vx_cons_init() != 0) {
    return fail(EXIT_RUNTIME, "the library does not come up: the log says why");
  }
  const int result = vx_cons_configure(options.ipaddr.c_str(), options.netmask.c_str(), options.gateway.c_str(),
                                       macs.data(), options.node_count, std::to_string(options.node_id).c_str(),
                                       std::to_string(time(nullptr)).c_str());
  vx_cons_cleanup();
  if (result != 0) {
    return fail(EXIT_RUNTIME, "the cluster could not be written: the log says why");
  }
  // The files that the library removed have to stay removed when the command is no longer noted.
  const platform::unique_fd directory(open(CONS_DIRECTORY, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory || syncfs(directory.get()) != 0) {
    return fail(EXIT_RUNTIME, std::string(CONS_DIRECTORY) + ": " + strerror(errno));
  }
  return EXIT_OK;
}

/// Why this node has nothing, or not all, to begin a generation with. Empty: it has.
std::string reform_fault(const settings &configured, const reform_options &given)
{
  const std::string &path = configured.store_path;
  std::string why;
  const store_file kind = store_file_look(path, why);
  if (kind == store_file::foreign) {
    return why;
  }
  bool has_payloads = false;
  if (kind == store_file::ours) {
    database in(path, database::mode::read_only);
    const store_meta meta = meta_read(in);
    has_payloads = meta.base_n != 0 || meta.base_lines != 0 || in.number("SELECT count(*) FROM payload") != 0;
  }
  if (!has_payloads) {
    return path +
           " has no payloads to begin with: restore a backup of another node first, or join as a new node with " +
           "kesh configure --cluster " + configured.cluster_name + " --generation " + std::to_string(given.generation) +
           ", and give all others --without " + std::to_string(configured.node_id);
  }
  std::string error;
  const auto records = library_records_read(CONS_DIRECTORY, error);
  const bool is_delivered = !records || records->log.empty() || records->log.back() == records->delivered;
  return is_delivered || given.yes ? ""
                                   : "the library has decided what this node has not applied yet: run kesh once more, "
                                     "alone if need be, until it has; or give that up with --yes";
}

void say_reformed(const configure_options &done)
{
  printf("node %u of %u keeps its store in generation %llu of cluster %s\n", done.node_id, done.node_count,
         static_cast<unsigned long long>(done.generation), done.cluster_name.c_str());
}

}  // namespace

int configure_run(const configure_options &given)
{
  configure_options options = given;
  const std::string fault = complete(options);
  if (!fault.empty()) {
    return fail(EXIT_USAGE, fault);
  }
  settings configured;
  int code = check_ready(options, configured);
  if (code == EXIT_OK) {
    // Addresses that follow from the name are left out.
    configure_options typed = options;
    typed.macs = given.macs;
    code = configure_steps_run({.command = command_of(typed),
                                .yes = options.yes,
                                .store_path = configured.store_path,
                                .old_journal_path = configured.old_journal_path,
                                .keep_store = nullptr,
                                .write_cluster = [&options] { return write_cluster(options); }});
  }
  if (code == EXIT_OK) {
    printf("node %u of %u configured in %s, cluster %s, generation %llu\n", options.node_id, options.node_count,
           options.config_path.c_str(),
           options.cluster_name.empty() ? options.macs.front().c_str() : options.cluster_name.c_str(),
           static_cast<unsigned long long>(options.generation));
  }
  return code;
}

int reform_run(const reform_options &given)
{
  configure_options options;
  options.config_path = given.config_path;
  settings configured;
  if (const int code = check_ready(options, configured); code != EXIT_OK) {
    return code;
  }
  const bool goes_on = configured.generation == given.generation;  // written by the one that was interrupted
  if (configured.cluster_name.empty() || (!goes_on && configured.generation > given.generation)) {
    return fail(EXIT_REFUSED, configured.cluster_name.empty()
                                  ? "a cluster without a name cannot be reformed: kesh configure makes a new one"
                                  : "the present generation is " + std::to_string(configured.generation) +
                                        ": give a greater one, the same on all nodes");
  }
  try {
    if (const std::string fault = goes_on ? "" : reform_fault(configured, given); !fault.empty()) {
      return fail(EXIT_REFUSED, fault);
    }
  } catch (const store_failure &failure) {
    return fail(EXIT_CONFIG, configured.store_path + ": " + failure.what());
  }
  options.cluster_name = configured.cluster_name;
  options.node_count = configured.node_count;
  options.node_id = configured.node_id;
  options.generation = given.generation;
  options.ipaddr = platform::config_text("cluster.ipaddr", "");
  options.netmask = platform::config_text("cluster.netmask", "");
  options.gateway = platform::config_text("cluster.gateway", "");
  if (const std::string fault = complete(options); !fault.empty()) {
    return fail(EXIT_CONFIG, given.config_path + ": " + fault);
  }
  settings reformed = configured;
  reformed.generation = options.generation;
  reformed.first_mac = options.macs.front();
  std::string command = "kesh reform --generation " + std::to_string(given.generation);
  kept_standing begins{standing::reformed, {}, 0};
  for (const uint32_t node : given.without) {
    if (node < 1 || node > configured.node_count || node == configured.node_id) {
      return fail(EXIT_USAGE, "--without " + std::to_string(node) + ": is none of the other nodes");
    }
    command += " --without " + std::to_string(node);
    begins.without |= 1u << (node - 1);
  }
  const standing_file standing_kept(CONS_DIRECTORY, configured_cluster(reformed));
  const std::string interrupted = interrupted_configuration(configured.store_path);
  if (goes_on && interrupted != command) {
    std::string error;
    const auto kept = standing_kept.read(error);
    const bool is_done = kept && kept->stands == standing::reformed && interrupted.empty();
    if (is_done && (kept->without == begins.without || standing_kept.write(begins, error))) {
      say_reformed(options);  // all but its last word was done, or --without comes later
      return EXIT_OK;
    }
    return fail(EXIT_REFUSED, "the present generation is " + std::to_string(configured.generation) +
                                  ": give a greater one, the same on all nodes");
  }
  const auto write = [&] {
    std::string error;
    if (const int code = write_cluster(options); code != EXIT_OK) {
      return code;
    }
    return standing_kept.write(begins, error) ? static_cast<int>(EXIT_OK) : fail(EXIT_RUNTIME, error);
  };
  const int code = configure_steps_run({.command = command,
                                        .yes = given.yes,
                                        .store_path = configured.store_path,
                                        .old_journal_path = configured.old_journal_path,
                                        .keep_store =
                                            [&] {
                                              store_change_identity(configured.store_path, configured.store_identity(),
                                                                    reformed.store_identity());
                                            },
                                        .write_cluster = write});
  if (code == EXIT_OK) {
    say_reformed(options);
  }
  return code;
}

}  // namespace kesh
