#include "unbatched.h"

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "bench/results.h"
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

}  // namespace

void serve_unbatched(kesh::service &host, const nlohmann::json &request, kesh::control_peer &peer)
{
  const auto seconds = kesh::request_number(request, "seconds", 0.001, SECONDS_MAX, 1.0);
  const std::string text(kesh::request_number<size_t>(request, "bytes", 1, TEXT_MAX, 100), 'u');
  if (!peer.accept()) {
    return;
  }
  // A life of its own: no result of these is awaited by anybody.
  const auto origin = static_cast<uint8_t>(host.configured.node_id);
  bench::results found;
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
      found.latencies_us.push_back(std::chrono::duration_cast<std::chrono::microseconds>(now - then).count());
    } else {
      ++found.failed;
    }
  }
  found.seconds = std::chrono::duration<double>(now - began).count();
  peer.send(found.text());
}

}  // namespace kesh_lab
