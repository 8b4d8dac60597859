#include "admin/store_commands.h"

#include <cinttypes>
#include <cstdio>
#include <filesystem>

#include "client/control_client.h"
#include "exit_codes.h"
#include "store/library_records.h"
#include "store/store_aside.h"
#include "store/store_copy.h"

namespace kesh
{

using nlohmann::json;

namespace
{

/// Runs `action`, which may throw, and prints what it throws.
template <typename command>
int guarded(const char *name, const command &action)
{
  try {
    return action();
  } catch (const store_in_use &failure) {
    fprintf(stderr, "kesh %s: %s\n", name, failure.what());
    return EXIT_REFUSED;
  } catch (const std::exception &failure) {
    fprintf(stderr, "kesh %s: %s\n", name, failure.what());
    return EXIT_CONFIG;
  }
}

const store_place &demand(const store_access &access)
{
  if (!access.place) {
    throw store_failure(access.why);
  }
  return *access.place;
}

/// Throws unless there is a store that can be used.
void open_ready(store &lines, const store_place &place)
{
  std::string why;
  switch (lines.open(place.store, why)) {
  case store_found::ready:
    return;
  case store_found::absent:
    throw store_failure(place.store.path + ": there is no store");
  case store_found::unusable:
    throw store_failure(why);
  }
}

void demand_store_file(const std::string &file)
{
  std::string why;
  switch (store_file_look(file, why)) {
  case store_file::ours:
    return;
  case store_file::absent:
    throw store_failure(file + ": there is no such file");
  case store_file::empty:
    throw store_failure(file + " has no bytes");
  case store_file::foreign:
    throw store_failure(why);
  }
}

/// What the daemon would do at its next start.
std::string fit_text(store &lines, const store_place &place)
{
  std::string error;
  const auto records = library_records_read(place.records, error);
  if (!error.empty()) {
    return error;
  }
  const fit_answer answer = store_fit(*records, lines.facts(records->delivered), place.is_reformed);
  switch (answer.verdict) {
  case fit_verdict::fits:
    return "fit";
  case fit_verdict::redelivers:
    return "fit, payload " + std::to_string(answer.from) + " will be delivered again and compared";
  case fit_verdict::await_state:
    return "fit, a state comes next";
  case fit_verdict::rejoin:
    break;
  }
  return "do not fit, the node asks the others for a state: " + answer.reason;
}

json result_of(const verify_result &found)
{
  return {{"fault", found.fault},
          {"n", found.n},
          {"lines", found.lines},
          {"verified", found.verified},
          {"bare", found.bare}};
}

json verify_offline(const store_place &place)
{
  store lines;
  std::string why;
  const store_found found = lines.open(place.store, why);
  if (found == store_found::absent) {
    throw store_failure(place.store.path + ": there is no store");
  }
  if (found == store_found::unusable) {
    json result = result_of({});
    result["fault"] = why;
    return result;
  }
  json result = result_of(store_verify(place.store.path));
  result["records"] = fit_text(lines, place);
  result["incomplete"] = lines.position().incomplete;
  return result;
}

int print_verified(const json &result, bool as_json)
{
  const auto fault = result.at("fault").get<std::string>();
  if (as_json) {
    printf("%s\n", result.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
  } else {
    const auto number = [&result](const char *key) { return result.at(key).get<uint64_t>(); };
    printf("payloads  %" PRIu64 "\nlines     %" PRIu64 "\nverified  %" PRIu64 "\nbare      %" PRIu64
           "   came without items: their hashes cannot be computed again\nfault     %s\n",
           number("n"), number("lines"), number("verified"), number("bare"), fault.empty() ? "none" : fault.c_str());
    if (const std::string records = result.value("records", ""); !records.empty()) {
      printf("records   %s\n", records.c_str());
    }
    if (const std::string incomplete = result.value("incomplete", ""); !incomplete.empty()) {
      printf("waits for a state: %s\n", incomplete.c_str());
    }
  }
  return fault.empty() ? EXIT_OK : EXIT_RUNTIME;
}

/// A copy under a temporary name, which open() removes if a crash leaves it.
std::string copy_marked(const store_place &place, const std::string &file)
{
  const std::string copy = place.store.path + ".creating";
  {
    database from(file, database::mode::read_only);
    statement vacuum(from, "VACUUM INTO ?");
    query(vacuum, as_text{copy}).run();
  }
  database made(copy, database::mode::create);
  store_meta meta = meta_read(made);
  if (meta.identity != place.store.identity) {
    made.close();
    remove_leftover(copy);
    throw store_failure(file + " is of another cluster: " + meta.identity);
  }
  meta.incomplete = RESTORED;
  transaction writing(made);
  meta_write(made, meta);
  writing.commit();
  return copy;
}

int restore(const store_place &place, const std::string &file)
{
  demand_store_file(file);
  const verify_result found = store_verify(file);
  if (!found.fault.empty()) {
    throw store_failure(file + ": " + found.fault);
  }
  store lines;
  std::string why;
  lines.open(place.store, why);
  const std::string copy = copy_marked(place, file);
  if (has_parts(place.store.path)) {
    printf("%s is kept as %s\n", place.store.path.c_str(), lines.put_aside().c_str());
  }
  name_durably(copy, place.store.path);
  if (!forget_delivered(place.records, why)) {
    throw store_failure(why);
  }
  printf("restored: %" PRIu64 " payloads, %" PRIu64 " lines; what came after them comes from the other nodes\n",
         found.n, found.lines);
  return EXIT_OK;
}

std::string absolute(const std::string &file)
{
  return std::filesystem::absolute(file).lexically_normal();
}

}  // namespace

// By this process, not by the daemon, which may see and write less than who gives the command.
int backup_command(const store_access &access, const std::string &file)
{
  return guarded("backup", [&] {
    const store_place &place = demand(access);
    const std::string target = absolute(file);
    store lines;
    try {
      open_ready(lines, place);
    } catch (const store_in_use &) {
      // The daemon has it, and goes on.
    }
    store_copy(place.store.path, target);
    printf("%s is written\n", target.c_str());
    return static_cast<int>(EXIT_OK);
  });
}

int verify_command(const store_access &access, const std::string &file, bool as_json)
{
  return guarded("verify", [&] {
    if (!file.empty()) {
      demand_store_file(file);
      return print_verified(result_of(store_verify(file)), as_json);
    }
    control_client client;
    if (!client.connect(access.socket_path)) {
      return print_verified(verify_offline(demand(access)), as_json);
    }
    json reply;
    const int code = client.ask({{"op", "verify"}}, reply);
    reply.erase("ok");
    return code == EXIT_OK ? print_verified(reply, as_json) : code;
  });
}

int restore_command(const store_access &access, const std::string &file)
{
  return guarded("restore", [&] { return restore(demand(access), absolute(file)); });
}

}  // namespace kesh
