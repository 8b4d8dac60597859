#include "daemon/store_start.h"

#include <unistd.h>

#include "cluster/configured_cluster.h"
#include "cluster/standing_file.h"
#include "daemon/node_files.h"
#include "exit_codes.h"
#include "platform.h"
#include "store/journal_import.h"
#include "store/library_records.h"
#include "store/store_aside.h"

namespace kesh
{

using platform::log_level;
using platform::log_line;

namespace
{

/// What the store of this node may have had. Where nobody can say, it is taken to have had something.
bool has_past(const settings &configured)
{
  std::string error, no_records;
  const auto records = library_records_read(CONS_DIRECTORY, no_records);
  const auto kept = standing_file(CONS_DIRECTORY, configured_cluster(configured)).read(error);
  const bool is_new = kept ? kept->stands == standing::is_new : error.empty();
  if (!records) {
    return !is_new || access((std::string(CONS_DIRECTORY) + "/paxos_decide").c_str(), F_OK) == 0;
  }
  // A reformed node without a store has nothing to begin the generation with.
  return records->decision != 0 || !records->delivered.is_none() || !error.empty() ||
         (kept && kept->stands == standing::reformed);
}

void create(store &lines, const settings &configured, const std::string &reason)
{
  const bool is_incomplete = has_past(configured);
  store_start start;
  start.incomplete = is_incomplete ? reason : std::string();
  lines.create(start);
  if (is_incomplete) {
    log_line(log_level::error, "store: " + reason + "; this node asks the others for everything anew");
  }
}

/// No store is there: this node is new, its store was moved away, or it has the journal of an earlier build.
void create_first(store &lines, const settings &configured)
{
  std::string why;
  if (!old_journal_waits(configured.old_journal_path, why)) {
    if (!why.empty()) {
      throw store_unsuited(why);
    }
    create(lines, configured, configured.store_path + " is missing");
    return;
  }
  const auto records = library_records_read(CONS_DIRECTORY, why);
  const auto start = journal_import(configured.old_journal_path, records ? records->delivered : library_entry{}, why);
  if (!start) {
    throw store_unsuited(why);
  }
  lines.create(*start);
  log_line(log_level::info, "store: begins behind the " + std::to_string(start->lines) + " lines of " +
                                configured.old_journal_path + ", which stay there");
}

}  // namespace

int store_bring_up(store &lines, const settings &configured, std::atomic<uint64_t> &put_aside, std::string &error)
{
  try {
    std::string why;
    switch (lines.open({configured.store_path, configured.store_identity(), configured.state_max}, why)) {
    case store_found::ready:
      break;
    case store_found::absent:
      create_first(lines, configured);
      break;
    case store_found::unusable:
      log_line(log_level::error, "store: " + why + "; it is kept as " + lines.put_aside());
      put_aside++;
      create(lines, configured, why);
      break;
    }
    return note_taken_over(configured.old_journal_path, error) ? EXIT_OK : EXIT_STORE;
  } catch (const store_unsuited &failure) {
    error = std::string("store: ") + failure.what();
    return EXIT_CONFIG;
  } catch (const std::exception &failure) {
    error = std::string("store: ") + failure.what();
    return EXIT_STORE;
  }
}

int store_make_fit(store &lines, bool is_reformed, std::string &rejoins, std::string &error)
{
  rejoins.clear();
  try {
    std::string fault;
    const auto records = library_records_read(CONS_DIRECTORY, fault);
    if (!records) {
      // The store is good as it is: kesh reform begins with it, if a majority has lost its records.
      error = fault + ": this node stays out, since nobody can say what it has promised. Configure it anew, so that it "
                      "joins as new; if a majority is in this state, see kesh reform";
      return EXIT_CONFIG;
    }
    const fit_answer answer = !fault.empty() ? fit_answer{fit_verdict::rejoin, 0, fault}
                                             : store_fit(*records, lines.facts(records->delivered), is_reformed);
    switch (answer.verdict) {
    case fit_verdict::fits:
    case fit_verdict::await_state:
      lines.set_cursor(lines.position().n + 1);
      return EXIT_OK;
    case fit_verdict::redelivers:
      lines.set_cursor(answer.from);
      return EXIT_OK;
    case fit_verdict::rejoin:
      rejoins = answer.reason;
      log_line(log_level::error, "store: " + answer.reason + "; this node asks the others for everything anew");
      lines.mark_incomplete(answer.reason);
      return forget_delivered(CONS_DIRECTORY, error) ? EXIT_OK : EXIT_STORE;
    }
  } catch (const std::exception &failure) {
    error = std::string("store: ") + failure.what();
  }
  return EXIT_STORE;
}

}  // namespace kesh
