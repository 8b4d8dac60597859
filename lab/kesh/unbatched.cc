#include "unbatched.h"

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "control/request.h"
#include "items/payload.h"
#include "vx_cons.h"

namespace kesh_lab
{

using std::chrono::steady_clock;

namespace
{

constexpr size_t TEXT_MAX = 1 << 20;
constexpr double SECONDS_MAX = 600;

uint64_t percentile(const std::vector<uint64_t> &sorted, size_t percent)
{
  return sorted.empty() ? 0 : sorted[std::min(sorted.size() - 1, sorted.size() * percent / 100)];
}

}  // namespace

void serve_unbatched(kesh::service &host, const nlohmann::json &request, kesh::control_peer &peer)
{
  const auto seconds = kesh::request_number(request, "seconds", 0.0, SECONDS_MAX, 1.0);
  const std::string text(kesh::request_number<size_t>(request, "bytes", 1, TEXT_MAX, 100), 'u');
  if (!peer.accept()) {
    return;
  }
  // A life of its own: no result of these is awaited by anybody.
  const auto origin = static_cast<uint8_t>(host.configured.node_id);
  std::vector<uint64_t> times_us;
  uint64_t failed = 0;
  const auto began = steady_clock::now();
  const auto until = began + std::chrono::duration_cast<steady_clock::duration>(std::chrono::duration<double>(seconds));
  auto now = began;
  for (uint64_t sequence = 1; now < until && !peer.is_gone(); ++sequence) {
    const std::string bytes =
        kesh::payload_encode({origin, host.life + 1, {{kesh::item_kind::line, sequence, 1, text}}});
    const int result = vx_cons_distribute(reinterpret_cast<const uint8_t *>(bytes.data()),
                                          static_cast<uint32_t>(bytes.size()), kesh::DATA_TYPE);
    const auto then = std::exchange(now, steady_clock::now());
    if (result == 0) {
      times_us.push_back(
          static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now - then).count()));
    } else {
      ++failed;
    }
  }
  std::sort(times_us.begin(), times_us.end());
  const double took = std::chrono::duration<double>(now - began).count();
  peer.send(nlohmann::json{{"done", times_us.size()},
                           {"failed", failed},
                           {"seconds", took},
                           {"per_s", static_cast<double>(times_us.size()) / std::max(took, 1e-9)},
                           {"p50_us", percentile(times_us, 50)},
                           {"p99_us", percentile(times_us, 99)}}
                .dump() +
            '\n');
}

}  // namespace kesh_lab
