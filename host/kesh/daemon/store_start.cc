#include "daemon/store_start.h"

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

/// Records that cannot be read name nothing; the library judges them itself.
library_records read_records()
{
  std::string error;
  const auto read = library_records_read(CONS_DIRECTORY, error);
  if (!read) {
    log_line(log_level::warning, "store: " + error);
  }
  return read.value_or(library_records{});
}

/// A reformed node that has no store has nothing to begin the generation with. Where nobody can say, it is taken for
/// one.
bool may_be_reformed(const settings &configured)
{
  std::string error;
  const auto kept = standing_file(CONS_DIRECTORY, configured_cluster(configured)).read(error);
  return kept ? kept->stands == standing::reformed : !error.empty();
}

void create(store &lines, const settings &configured, const std::string &reason)
{
  const library_records records = read_records();
  const bool is_incomplete = records.decision != 0 || !records.delivered.is_none() || may_be_reformed(configured);
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
  const auto start = journal_import(configured.old_journal_path, read_records().delivered, why);
  if (!start) {
    throw store_unsuited(why);
  }
  lines.create(*start);
  log_line(log_level::info, "store: begins behind the " + std::to_string(start->lines) + " lines of " +
                                configured.old_journal_path + ", which stay there");
}

}  // namespace

int store_bring_up(store &lines, const settings &configured, std::string &error)
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

bool store_make_fit(store &lines, bool is_reformed, std::string &rejoins, std::string &error)
{
  rejoins.clear();
  try {
    const library_records records = read_records();
    if (is_reformed && records.log.empty()) {
      lines.set_cursor(lines.position().n + 1);
      return true;
    }
    const fit_answer answer = store_fit(records, lines.facts(records.delivered));
    switch (answer.verdict) {
    case fit_verdict::fits:
    case fit_verdict::await_state:
      lines.set_cursor(lines.position().n + 1);
      return true;
    case fit_verdict::redelivers:
      lines.set_cursor(answer.from);
      return true;
    case fit_verdict::rejoin:
      rejoins = answer.reason;
      log_line(log_level::error, "store: " + answer.reason + "; this node asks the others for everything anew");
      lines.mark_incomplete(answer.reason);
      return forget_delivered(CONS_DIRECTORY, error);
    }
  } catch (const std::exception &failure) {
    error = std::string("store: ") + failure.what();
  }
  return false;
}

}  // namespace kesh
