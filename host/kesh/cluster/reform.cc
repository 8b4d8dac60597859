#include "cluster/reform.h"

#include <bit>

#include "store/store_schema.h"

namespace kesh
{

namespace
{

std::string node_name(const reform_voice &of)
{
  return "node " + std::to_string(of.node);
}

/// Set: they differ at that n. Compares what both still know.
std::optional<uint64_t> fork_of(const told_position &own, const told_position &said,
                                const std::function<std::optional<chain_hash>(uint64_t n)> &own_hash)
{
  const auto differs = [&](uint64_t n, const chain_hash &hash) {
    const auto mine = n == own.n ? std::optional(own.hash) : n < own.n ? own_hash(n) : std::nullopt;
    return mine && *mine != hash;
  };
  if (said.checkpoint_hash && differs(checkpoint_of(said.n), *said.checkpoint_hash)) {
    return checkpoint_of(said.n);
  }
  return differs(said.n, said.hash) ? std::optional(said.n) : std::nullopt;
}

/// Why the first of the nodes that are waited for keeps the others waiting.
std::string awaited_text(uint32_t awaited, const std::vector<reform_voice> &voices)
{
  const auto node = static_cast<uint32_t>(std::countr_zero(awaited)) + 1;
  const auto said =
      std::find_if(voices.begin(), voices.end(), [&](const reform_voice &one) { return one.node == node; });
  const std::string name = "node " + std::to_string(node);
  const std::string what = said == voices.end() ? name + " has not been heard, and may have applied more"
                           : !said->is_member   ? name + " is of another generation still"
                           : said->stands != standing::reformed ? name + " has no store of the last generation"
                                                                : "the store of " + name + " is not whole";
  return what + "; if its store is lost for good, give kesh reform on all others once more, with --without " +
         std::to_string(node);
}

}  // namespace

void store_change_identity(const std::string &path, const std::string &from, const std::string &to)
{
  database in(path, database::mode::read_write);
  schema_check_version(in);
  store_meta meta = meta_read(in);
  if (meta.identity == to) {
    return;
  }
  if (meta.identity != from) {
    throw store_failure(path + " is of another cluster: " + meta.identity);
  }
  meta.identity = to;
  if (meta.incomplete == RESTORED) {
    meta.incomplete.clear();  // a person wants this generation to begin with what the backup has
  }
  transaction writing(in);
  meta_write(in, meta);
  writing.commit();
}

std::string reform_obstacle(const reform_node &own_node, const std::vector<reform_voice> &voices,
                            const std::function<std::optional<chain_hash>(uint64_t n)> &own_hash)
{
  const uint32_t node_count = own_node.count;
  const told_position &own = own_node.position;
  uint32_t awaited = ((1u << node_count) - 1) & ~own_node.without & ~(1u << (own_node.number - 1));
  uint32_t heard = 1;
  uint32_t compared = 1;
  std::string ahead, unknown;
  for (const reform_voice &one : voices) {
    const uint32_t bit = 1u << (one.node - 1);
    if (one.is_member && one.decision != 0) {
      awaited &= ~bit;
      if (one.is_live) {
        return node_name(one) + " has begun the new generation: its state comes";
      }
      continue;
    }
    if (!one.is_member || one.stands != standing::reformed) {
      continue;
    }
    ++heard;
    if (!one.said.complete) {
      continue;
    }
    ++compared;
    awaited &= ~bit;
    if (const auto fork = fork_of(own, one.said, own_hash)) {
      return node_name(one) + " has another history, seen at payload " + std::to_string(*fork) +
             ": neither may begin the new generation; decide whose store is right and put the other one aside";
    }
    if (one.said.n > own.n) {
      ahead = node_name(one) + " has applied more, " + std::to_string(one.said.n) + " payloads, and goes first";
    } else if (one.said.n < own.n && !own_hash(one.said.n)) {
      unknown = node_name(one) + " cannot be compared: its last payload, " + std::to_string(one.said.n) +
                ", is not kept here; put its store aside";
    }
  }
  const uint32_t quorum = node_count / 2 + 1;
  if (heard < quorum) {
    return "of the new generation it has heard " + std::to_string(heard) + " of " + std::to_string(node_count) +
           " nodes with itself, and " + std::to_string(quorum) + " have to compare their stores";
  }
  if (compared < node_count - quorum + 1) {
    return "of the new generation " + std::to_string(compared) + " of " + std::to_string(node_count) +
           " nodes have their store, and " + std::to_string(node_count - quorum + 1) + " have to compare theirs";
  }
  if (!ahead.empty() || !unknown.empty()) {
    return ahead.empty() ? unknown : ahead;
  }
  return awaited != 0 ? awaited_text(awaited, voices) : "";
}

}  // namespace kesh
