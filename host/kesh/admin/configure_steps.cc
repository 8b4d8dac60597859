#include "admin/configure_steps.h"

#include <cstdio>

#include "atomic_file.h"
#include "exit_codes.h"
#include "store/journal_import.h"
#include "store/store_aside.h"
#include "store/store_schema.h"

namespace kesh
{

namespace
{

int fail(int code, const std::string &error)
{
  fprintf(stderr, "kesh: %s\n", error.c_str());
  return code;
}

bool store_has_lines(const std::string &path)
{
  std::string why;
  switch (store_file_look(path, why)) {
  case store_file::foreign:
    throw store_failure(why);
  case store_file::absent:
  case store_file::empty:
    return false;
  case store_file::ours:
    break;
  }
  try {
    database in(path, database::mode::read_only);
    return meta_read(in).base_lines != 0 || in.number("SELECT count(*) FROM payload WHERE lines > 0") != 0;
  } catch (const store_failure &) {
    return true;  // it cannot be known
  }
}

bool journal_waits(const std::string &path)
{
  std::string why;
  const bool waits = old_journal_waits(path, why);
  if (!why.empty()) {
    throw store_failure(why);
  }
  return waits;
}

/// Whether this command may begin, or go on.
int check(const configure_steps &what)
{
  const bool has_store_lines = store_has_lines(what.store_path);
  const bool has_journal = journal_waits(what.old_journal_path);
  const std::string interrupted = interrupted_configuration(what.store_path);
  if (what.yes || interrupted == what.command) {
    return EXIT_OK;
  }
  if (!interrupted.empty()) {
    return fail(EXIT_REFUSED, "another configuration was interrupted; go on with it, or give --yes: " + interrupted);
  }
  if (!what.keep_store && (has_store_lines || has_journal)) {
    return fail(EXIT_REFUSED, (has_store_lines ? what.store_path : what.old_journal_path) +
                                  " has lines, which are put aside for a new cluster: give --yes");
  }
  return EXIT_OK;
}

void write_intent(const configure_steps &what)
{
  std::string error;
  if (!platform::file_replace(configuring_path(what.store_path), what.command + '\n', error)) {
    throw store_failure(error);
  }
}

void put_all_aside(const configure_steps &what, const std::function<void()> &step)
{
  const auto tell = [](const std::string &path, const std::string &to) {
    fprintf(stderr, "kesh configure: %s is kept as %s\n", path.c_str(), to.c_str());
  };
  finish_putting_aside(what.store_path, what.after_step);
  remove_leftover(what.store_path + ".creating");
  if (has_parts(what.store_path)) {
    tell(what.store_path, put_aside(what.store_path, what.after_step));
  }
  step();
  if (journal_waits(what.old_journal_path)) {
    tell(what.old_journal_path, put_file_aside(what.old_journal_path, ".incomplete"));
  }
  step();
}

int run_locked(const configure_steps &what)
{
  const auto step = [&what] {
    if (what.after_step != nullptr) {
      what.after_step();
    }
  };
  if (const int code = check(what); code != EXIT_OK) {
    return code;
  }
  write_intent(what);
  step();
  if (what.keep_store) {
    what.keep_store();
    step();
  } else {
    put_all_aside(what, step);
  }
  if (const int code = what.write_cluster(); code != EXIT_OK) {
    return fail(code, "interrupted; give the same command again");
  }
  step();
  remove_durably(configuring_path(what.store_path));
  return EXIT_OK;
}

}  // namespace

int configure_steps_run(const configure_steps &what)
{
  try {
    const platform::unique_fd lock = store_lock(what.store_path);
    return run_locked(what);
  } catch (const store_in_use &failure) {
    return fail(EXIT_REFUSED, failure.what());
  } catch (const std::exception &failure) {
    return fail(EXIT_CONFIG, failure.what());
  }
}

}  // namespace kesh
