/// The control socket of vx-fabric.
///
/// A Unix stream socket (`--control PATH`), any number of connections at once. One JSON object per line in, one per
/// line out, in the same order. An answer is {"ok":true,"t":T,...} or {"ok":false,"t":T,"error":"..."}; T is
/// CLOCK_MONOTONIC in nanoseconds when the command took effect. A command that is refused changes nothing; unknown
/// commands and unknown keys are refused. Nodes are 1 to 16, channels 3 to 7; 0 or an absent key means any. Times in
/// rules are milliseconds and may have fractions; probabilities are 0 to 1.
///
/// {"do":"rules","rules":[{"from":n,"to":n,"channel":c,"type":T,"loss":p,"dup":p,"delay_ms":[min,max],"reorder":p},..]}
///     Replaces all rules; [] ends all faults of this kind (datagrams under way keep their delay). Per datagram and
///     receiver the first rule that matches is applied, no other. T: READ_REQ READ_ACK READ_NACK WRITE_REQ WRITE_ACK
///     WRITE_NACK (channel 3), DECIDE DECIDE_UPDATE FORWARD (4), OFFER REQ DATA COMPLETE MISSING (5), CLMSG (6),
///     HELLO (7), VRRP, ARP, IP (other IPv4), OTHER; "*" or absent: any, those included. DECIDE means all of them,
///     DECIDE_UPDATE only those sent to one node. loss: dropped. dup: delivered twice. delay_ms: each delivered copy
///     waits for a uniformly drawn time, so later ones may overtake it. reorder: held back until 1 to 4 later ones on
///     the same way (from, to) have passed, at most 200 ms. A node's own copies of its multicasts do not come this way.
/// {"do":"cut","pairs":[[from,to],..]}
///     One-way cuts; replaces all. [] heals. Datagrams under way when a cut begins do not arrive either.
/// {"do":"stats"}
///     Answer: "stats":{..}: "nodes":{"1":{"is_connected","in","in_bytes","out","out_bytes","overflow"},..} (in: from
///     the node),
///     "fates":{"delivered","lost","duplicated","delayed","reordered","cut","bandwidth","overflow","no_port"} in
///     deliveries, "types":{T: datagrams seen}.
/// {"do":"bandwidth","bytes_per_s":n}
///     All nodes share one medium of that speed, a multicast taking it once; what would wait longer than a second is
///     dropped. 0: no limit.
/// {"do":"tap","node":n,"netns":"/proc/PID/ns/net","device":"vx0","address":"10.81.0.1/24"}
///     As option --tap: makes the device in that network namespace. Replaces the node's former device. address is
///     optional. Answer: "mac":"02:00:51:00:00:0n".
/// {"do":"quit"}
///     Writes the end of wire.log and ends. SIGTERM and SIGINT do the same.
#pragma once

#include "commands.h"
#include "event_loop.h"

#include <list>
#include <string>

namespace fabric
{

/// Serves the control socket from the event loop. A client that reads nothing is dropped once 4 MiB wait for it.
class control_server
{
public:
  control_server(event_loop &loop, commands &what);
  ~control_server();
  control_server(const control_server &) = delete;
  control_server &operator=(const control_server &) = delete;

  /// Throws std::runtime_error.
  void listen(const std::string &path);
  /// Writes what waits, and drops who has gone. After each round of events.
  void flush();

private:
  struct client;

  void accept_one();
  void read_some(client &from);
  void serve(client &from);
  void write_some(client &to);

  event_loop &loop_;
  commands &commands_;
  std::string path_;
  platform::unique_fd listener_;
  std::list<client> clients_;
};

}  // namespace fabric
