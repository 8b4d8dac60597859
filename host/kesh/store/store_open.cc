// Opens, creates, puts aside and loads a store.
#include "store/store.h"
#include "store/store_aside.h"

namespace kesh
{

using platform::lock_scope;

namespace
{

/// A store is not put aside because somebody has edited a key.
void check_state_max(const std::string &stored, const std::string &configured)
{
  const auto rest = [](const std::string &identity) {
    return identity.substr(0, identity.rfind(STATE_MAX_IN_IDENTITY));
  };
  if (rest(stored) == rest(configured)) {
    throw store_unsuited(
        "it is of the same cluster, but with another state.max. That is the same on all nodes, for the "
        "life of the cluster: the store has \"" +
        stored + "\", the configuration \"" + configured + "\"");
  }
}

}  // namespace

store_found store::open(const store_settings &settings, std::string &why)
{
  lock_scope scope(lock_);
  settings_ = settings;
  has_failed_ = is_ending_ = false;
  locked_ = store_lock(settings_.path);
  if (const std::string command = interrupted_configuration(settings_.path); !command.empty()) {
    throw store_unsuited("the configuration of this node was interrupted; this command goes on with it: " + command);
  }
  finish_putting_aside(settings_.path);
  remove_leftover(creating_path());
  switch (store_file_look(settings_.path, why)) {
  case store_file::absent:
    return store_found::absent;
  case store_file::foreign:
    throw store_unsuited(why);
  case store_file::empty:
    why = settings_.path + " is cut: it has no bytes";
    return store_found::unusable;
  case store_file::ours:
    break;
  }
  try {
    attach();
    schema_check_version(db_);
    schema_quick_check(db_);
    load();
    if (meta_.identity != settings_.identity) {
      check_state_max(meta_.identity, settings_.identity);
      throw damaged("it is of another cluster: " + meta_.identity);
    }
    if (!meta_.damaged.empty()) {
      throw damaged(meta_.damaged);
    }
    return store_found::ready;
  } catch (const store_unsuited &failure) {
    detach();
    throw store_unsuited(settings_.path + ": " + failure.what());
  } catch (const store_failure &failure) {
    detach();
    if (!failure.is_damage()) {
      throw store_failure(settings_.path + ": " + failure.what());
    }
    why = settings_.path + ": " + failure.what();
    return store_found::unusable;
  }
}

std::string store::put_aside()
{
  lock_scope scope(lock_);
  detach();
  return kesh::put_aside(settings_.path);
}

void store::create(const store_start &start)
{
  lock_scope scope(lock_);
  store_meta meta;
  meta.identity = settings_.identity;
  meta.base_hash = start.hash;
  meta.base_lines = start.lines;
  meta.taken_over = start.taken_over;
  meta.incomplete = start.incomplete;
  build(meta, nullptr);
  if (std::string why; store_file_look(settings_.path, why) != store_file::absent) {
    throw store_failure(settings_.path + " exists");
  }
  if (has_parts(settings_.path)) {
    kesh::put_aside(settings_.path);
  }
  name_durably(creating_path(), settings_.path);
  attach();
  load();
}

void store::close()
{
  lock_scope scope(lock_);
  detach();
  locked_.reset();
  is_ending_ = true;
  changed_.signal_all();
}

void store::attach()
{
  db_ = database(settings_.path, database::mode::read_write);
}

void store::detach()
{
  rows_.reset();
  db_.close();
}

void store::load()
{
  meta_ = meta_read(db_);
  rows_ = std::make_unique<store_rows>(db_);
  n_ = meta_.base_n;
  hash_ = meta_.base_hash;
  lines_ = meta_.base_lines;
  first_line_ = lines_ + 1;
  if (const uint64_t last = db_.number("SELECT max(n) FROM payload"); last != 0) {
    const payload_row row = rows_->find(last).value();
    n_ = last;
    hash_ = row.hash;
    lines_ = row.first_line + row.lines - 1;
    const auto first_whole = rows_->find(meta_.bare_n + 1);
    first_line_ = first_whole ? first_whole->first_line : lines_ + 1;
  }
  if (n_ < meta_.base_n || db_.number("SELECT count(*) FROM payload") != n_ - meta_.base_n) {
    throw damaged("rows are missing between " + std::to_string(meta_.base_n) + " and " + std::to_string(n_));
  }
  bytes_ = db_.number("SELECT sum(size) FROM payload");
  cursor_ = n_ + 1;
  load_window();
}

void store::load_window()
{
  window_ = {};
  {
    statement select(db_, "SELECT origin, n, life, tags FROM window ORDER BY origin, n");
    query kept(select);
    while (kept.next()) {
      window_payload one{.n = kept.number(1), .life = kept.number(2), .tags = {}};
      const uint64_t origin = kept.number(0);
      if (origin == 0 || origin > ORIGIN_MAX || !one.unpack(kept.bytes(3))) {
        throw damaged("a row of the table window is no window payload");
      }
      window_.add(static_cast<uint8_t>(origin), std::move(one));
    }
  }
  // The newest two of each origin, of the rows that have items.
  std::array<std::array<window_payload, tag_window::PAYLOADS_PER_ORIGIN>, ORIGIN_MAX> newest;
  statement select(db_, "SELECT n, origin, life FROM payload WHERE n > ? ORDER BY n");
  query whole(select, meta_.bare_n);
  while (whole.next()) {
    const uint64_t origin = whole.number(1);
    if (origin == 0 || origin > ORIGIN_MAX) {
      throw damaged("row " + std::to_string(whole.number(0)) + " of the table payload has no origin");
    }
    auto &two = newest[origin - 1];
    two[0] = two[1];
    two[1] = {.n = whole.number(0), .life = whole.number(2), .tags = {}};
  }
  for (uint8_t origin = 1; origin <= ORIGIN_MAX; ++origin) {
    for (const window_payload &one : newest[origin - 1u]) {
      if (one.n != 0) {
        window_.add(origin, rows_->tags(one.n, one.life));
      }
    }
  }
}

}  // namespace kesh
