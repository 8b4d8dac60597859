#include "admin/configure.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "exit_codes.h"
#include "daemon/node_files.h"
#include "platform.h"
#include "settings.h"
#include "client/socket_text.h"
#include "vx_cons.h"

namespace kesh
{

namespace
{

int fail(int code, const std::string &error)
{
  fprintf(stderr, "kesh configure: %s\n", error.c_str());
  return code;
}

/// Locally administered addresses, one per node. Every node of a cluster must be given the same addresses.
std::vector<std::string> made_up_macs(uint32_t count)
{
  std::vector<std::string> macs;
  for (uint32_t i = 1; i <= count; i++) {
    char text[sizeof "02:00:00:00:00:00"];
    snprintf(text, sizeof text, "02:6b:65:73:68:%02x", i & 0xff);
    macs.emplace_back(text);
  }
  return macs;
}

/// Six two-digit hexadecimal numbers with colons.
bool is_mac(const std::string &text)
{
  constexpr size_t LENGTH = 17;
  bool good = text.size() == LENGTH;
  for (size_t i = 0; good && i < LENGTH; ++i) {
    good = i % 3 == 2 ? text[i] == ':' : std::isxdigit(static_cast<unsigned char>(text[i])) != 0;
  }
  return good;
}

bool check_macs(const std::vector<std::string> &macs, uint32_t node_count, std::string &error)
{
  for (const std::string &mac : macs) {
    if (!is_mac(mac) || mac == "00:00:00:00:00:00") {
      error = "--mac " + mac + ": six two-digit hexadecimal numbers with colons are needed, not all 0";
      return false;
    }
  }
  if (macs.size() != node_count) {
    error = "--mac is given " + std::to_string(macs.size()) + " times for " + std::to_string(node_count) + " nodes";
    return false;
  }
  return true;
}

bool file_has_bytes(const std::string &path)
{
  struct stat status;
  return stat(path.c_str(), &status) == 0 && status.st_size > 0;
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
  if (file_has_bytes(configured.store_path) && !options.yes) {
    return fail(EXIT_REFUSED, configured.store_path + " has lines, which a new cluster empties: give --yes");
  }
  return EXIT_OK;
}

int write_cluster(const configure_options &options, const std::vector<std::string> &macs)
{
  std::vector<const char *> mac_texts;
  mac_texts.reserve(macs.size());
  for (const std::string &mac : macs) {
    mac_texts.push_back(mac.c_str());
  }
  if (vx_cons_init() != 0) {
    return fail(EXIT_RUNTIME, "the library does not come up: the log says why");
  }
  const int result = vx_cons_configure(options.ipaddr.c_str(), options.netmask.c_str(), options.gateway.c_str(),
                                       mac_texts.data(), options.node_count, std::to_string(options.node_id).c_str(),
                                       std::to_string(time(nullptr)).c_str());
  vx_cons_cleanup();
  return result == 0 ? EXIT_OK : fail(EXIT_RUNTIME, "the cluster could not be written: the log says why");
}

}  // namespace

int configure_run(const configure_options &options)
{
  std::string error;
  const auto macs = options.macs.empty() ? made_up_macs(options.node_count) : options.macs;
  if (!check_macs(macs, options.node_count, error)) {
    return fail(EXIT_USAGE, error);
  }
  if (options.node_id > options.node_count) {
    return fail(EXIT_USAGE,
                "--id " + std::to_string(options.node_id) + " is above --nodes " + std::to_string(options.node_count));
  }
  settings configured;
  int code = check_ready(options, configured);
  if (code == EXIT_OK) {
    code = write_cluster(options, macs);
  }
  if (code != EXIT_OK) {
    return code;
  }
  for (const std::string &path : {configured.store_path, configured.store_path + ".incomplete"}) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
      return fail(EXIT_RUNTIME, "cannot empty the journal: " + path + ": " + strerror(errno) + "; repeat the command");
    }
  }
  printf("node %u of %u configured in %s\n", options.node_id, options.node_count, options.config_path.c_str());
  return EXIT_OK;
}

}  // namespace kesh
