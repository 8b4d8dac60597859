#include "message_filter.h"

namespace platform
{
namespace
{

uint32_t word_at(const uint8_t *bytes)
{
  return bytes[0] | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24;
}

}  // namespace

message_view view_of(const message &one, uint32_t channel, uint32_t key)
{
  message_view view;
  view.channel = channel;
  view.key = key;
  if (one.data_size >= ENVELOPE_SIZE) {
    const uint8_t *envelope = one.object() + WORD_SIZE;
    view.cluster_id = word_at(envelope) | uint64_t{word_at(envelope + 4)} << 32;
    view.build = word_at(envelope + 8);
    view.payload = {envelope + ENVELOPE_SIZE, one.data_size - ENVELOPE_SIZE};
  }
  return view;
}

bool filter_gate::ask_in(message_filter &filter, const message &one, uint32_t channel)
{
  const bool passes = filter.lets_in(view_of(one, channel, 0));
  if (!passes) {
    counters_.drop(channel, drop_reason::filtered_in);
  }
  return passes;
}

bool filter_gate::ask_out(message_filter &filter, const message &one)
{
  const bool passes = filter.lets_out(view_of(one, one.channel, one.key));
  if (!passes) {
    counters_.drop(one.channel, drop_reason::filtered_out);
  }
  return passes;
}

}  // namespace platform
