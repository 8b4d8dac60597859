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
///     HELLO (7); on TAP ports also VRRP, ARP, IP (other IPv4), OTHER; "*" or absent: any, those included. DECIDE means
///     all of them, DECIDE_UPDATE only those sent to one node. What a node sends to itself (its copy of a multicast,
///     too) is matched only by rules that name the node as "from" and as "to". loss: dropped. dup: delivered twice.
///     delay_ms: each delivered copy waits for a uniformly drawn time, so later ones may overtake it. reorder: held
///     back until 1 to 4 later ones on the same way (from, to) have passed, at most 200 ms.
/// {"do":"cut","pairs":[[from,to],..]}
///     One-way cuts; replaces all. [] heals. Datagrams under way when a cut begins do not arrive either.
/// {"do":"hold","id":k,"match":{"from","to","channel","type","number":x,"count":[lo,hi]},"max":n}
///     Keeps the next n (default and most: 10000) deliveries that match; further ones pass. number: the number of a
///     DECIDE, or the register id on channel 3. count: the length of the log in a DECIDE. A node's own copies are held
///     only if "from" and "to" name it. Holds come before the rules. The id must be free.
/// {"do":"release","id":k,"drop":bool}
///     Ends the hold: what it kept is delivered in its order, at once and whatever the rules say, or dropped (default
///     false). Answer: "released":n.
/// {"do":"arm","id":k,"node":n,"point":P,"skip":j}
///     The j+1-th event P (of node n; absent or 0: of any node) drops the datagram, or never answers the mark; from
///     then on everything else from and to that node is dropped, and its process gets SIGKILL. P: "decide" = the first
///     multicast DECIDE of a number; "decide-repeat" = a later one; else the name of a message type in lower case with
///     dashes ("read-ack", "write-ack", "decide-update", ..) or of a mark ("deliver-enter", ..). Fires once.
/// {"do":"disarm","id":k}
///     Answer: "was_armed":bool.
/// {"do":"events","since":k}
///     Answer: "events":[..] with numbers above k (absent: 0), "last":number of the newest. Each has "k", "t", "what":
///       kill {"id","node","pid","point","killed":bool}   killed false: no process is known (or it was gone)
///       hold {"id","from","to","channel","type","number"?,"count"?}
///       release {"id","count","drop"}
///       join {"node","pid"}, leave {"node","pid"}        a node's connection, or TAP device, came and went
/// {"do":"await","since":k,"timeout_ms":m}
///     As events, but answers only when there is a newer event, or the time (at most 60000) is over.
/// {"do":"stats"}
///     Answer: "stats":{..}: "nodes":{"1":{"kind":"broker"|"tap","pid","in","in_bytes","out","out_bytes","overflow",
///     "queued_bytes","dead"},..} (in: from the node),
///     "fates":{"delivered","own","lost","duplicated","delayed","reordered",
///     "cut","held","bandwidth","overflow","no_port","dead"} in deliveries, "types":{T: datagrams seen}.
/// {"do":"bandwidth","bytes_per_s":n}
///     All nodes share one medium of that speed, a multicast taking it once; what would wait longer than a second is
///     dropped. 0: no limit. A node's own copies do not use it.
/// {"do":"tap","node":n,"netns":"/proc/PID/ns/net","device":"vx0","address":"10.81.0.1/24"}
///     As option --tap: makes the device in that network namespace. Replaces the node's former device. address is
///     optional. Answer: "mac":"02:00:51:00:00:0n".
/// {"do":"port","node":n,"pid":p}
///     The process that an armed kill shall kill, for nodes with a TAP device. A dead node is alive again after it.
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
  /// Answers those that await events, if there are some or their time is over; writes what waits; drops who has gone.
  /// After each round of events.
  void flush(int64_t now);
  /// When flush has something to do without an event.
  int64_t next_due_ns() const;

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
