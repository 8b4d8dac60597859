// Adopts a state: the store stays as it is, is extended or is replaced.
#include "store/store.h"
#include "store/store_aside.h"

namespace kesh
{

using platform::lock_scope;

namespace
{

/// Writes the state's rows behind n, its window and the meta.
void write_state(database &to, store_rows &rows, const store_state &state, uint64_t n, const store_meta &meta)
{
  payload decoded;
  std::string fault;
  const int64_t now = seconds_now();
  for (const state_row &one : state.rows) {
    if (one.row.n <= n) {
      continue;
    }
    payload_row row = one.row;
    row.at = now;
    rows.add(row);
    if (one.payload.empty()) {
      continue;
    }
    payload_decode(one.payload, decoded, fault);
    const std::vector<item_outcome> results = state_row_results(one, decoded);
    for (size_t i = 0; i < results.size(); ++i) {
      rows.add_item(row.n, i, decoded.items[i], results[i]);
    }
  }
  rows.window_clear();
  for (const auto &[origin, one] : state.window) {
    if (one.n <= meta.bare_n) {
      rows.window_put(origin, one);
    }
  }
  meta_write(to, meta);
}

}  // namespace

void store::begin_adopt(std::string_view bytes)
{
  auto state = std::make_unique<store_state>();
  {
    lock_scope scope(lock_);
    pending_.reset();
  }
  state_decode(std::string(bytes), *state);
  lock_scope scope(lock_);
  check_open();
  if (state->identity != settings_.identity) {
    throw store_failure("a state of another cluster came: " + state->identity);
  }
  pending_ = std::move(state);
}

adoption_kind store::judge_state(const store_state &state)
{
  if (state.n <= n_) {
    // Behind the row that differs nothing is to be trusted.
    const bool is_ahead_wrongly = meta_.differs_at != 0 && state.n < n_;
    return hash_at(state.n) == state.hash && !is_ahead_wrongly ? adoption_kind::kept : adoption_kind::replaced;
  }
  return state.hash_at(n_) == hash_ && n_ >= state.bare_n ? adoption_kind::extended : adoption_kind::replaced;
}

adoption store::commit_adopt(const library_entry &after, const library_entry &entry)
{
  lock_scope scope(lock_);
  check_open();
  const std::unique_ptr<store_state> state = std::move(pending_);
  if (state == nullptr) {
    throw store_failure(settings_.path + ": there is no state to adopt");
  }
  adoption result{.kind = judge_state(*state), .state_n = state->n, .added = 0, .aside = {}};
  store_meta meta = meta_;
  meta.incomplete.clear();
  meta.differs_at = 0;
  meta.has_state = true;
  meta.taken_over.reset();
  meta.state_n = state->n;
  meta.state_after = after;
  meta.state_entry = entry;
  try {
    if (result.kind == adoption_kind::kept) {
      write_meta(meta);
      cursor_ = state->n + 1;
      return result;
    }
    if (result.kind == adoption_kind::replaced) {
      result.is_too_far = state->n > n_ && state->hash_at(n_) == hash_;
      meta.base_n = state->base_n;
      meta.base_hash = state->base_hash;
      meta.base_lines = state->base_lines;
      meta.bare_n = state->bare_n;
    }
    result.added = state->n - (result.kind == adoption_kind::extended ? n_ : state->bare_n);
    if (result.kind == adoption_kind::replaced && n_ != 0) {
      result.aside = replace_with(*state, meta);
    } else {
      fill_in(*state, meta);
    }
  } catch (const std::exception &) {
    has_failed_ = true;
    throw;
  }
  generation_ += result.kind == adoption_kind::replaced ? 1 : 0;
  changed_.signal_all();
  return result;
}

/// Makes a whole store under its temporary name.
void store::build(const store_meta &meta, const store_state *state)
{
  remove_leftover(creating_path());
  database made(creating_path(), database::mode::create);
  transaction writing(made);
  schema_create(made);
  meta_write(made, meta);
  if (state != nullptr) {
    store_rows rows(made);
    write_state(made, rows, *state, state->base_n, meta);
  }
  writing.commit();
}

/// Adds to the rows that are here.
void store::fill_in(const store_state &state, const store_meta &meta)
{
  {
    transaction writing(db_);
    write_state(db_, *rows_, state, n_, meta);
    writing.commit();
  }
  load();
}

/// The new store is whole and on disk before the old one moves.
std::string store::replace_with(const store_state &state, const store_meta &meta)
{
  build(meta, &state);
  const closed_scope nobody_reads(gate_);
  detach();
  std::string aside = kesh::put_aside(settings_.path);
  name_durably(creating_path(), settings_.path);
  attach();
  load();
  return aside;
}

}  // namespace kesh
