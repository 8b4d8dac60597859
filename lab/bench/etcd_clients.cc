// Many clients of etcd in one thread. Each waits for one Put at a time; a key of its own each time.
//
//   vx-etcd-clients ADDRESS[,ADDRESS..] CLIENTS SECONDS BYTES
//
// The clients take the addresses in turn and share one connection to each, which costs the server less than one per
// client. Prints one line of JSON (results.h).
#include <grpcpp/grpcpp.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "etcd_kv.grpc.pb.h"
#include "results.h"

namespace
{

using clock_type = std::chrono::steady_clock;

struct client {
  std::unique_ptr<grpc::ClientContext> context;
  std::unique_ptr<grpc::ClientAsyncResponseReader<etcdserverpb::PutResponse>> call;
  etcdserverpb::PutResponse response;
  grpc::Status status;
  clock_type::time_point sent;
};

}  // namespace

int main(int argc, char **argv)
{
  if (argc != 5) {
    fprintf(stderr, "usage: vx-etcd-clients ADDRESS[,ADDRESS..] CLIENTS SECONDS BYTES\n");
    return 2;
  }
  std::vector<std::unique_ptr<etcdserverpb::KV::Stub>> servers;
  std::istringstream addresses(argv[1]);
  for (std::string one; std::getline(addresses, one, ',');) {
    servers.push_back(etcdserverpb::KV::NewStub(grpc::CreateChannel(one, grpc::InsecureChannelCredentials())));
  }
  std::vector<client> clients(strtoul(argv[2], nullptr, 10));
  const std::string value(strtoul(argv[4], nullptr, 10), 'x');
  const auto begin = clock_type::now();
  const auto end = begin + std::chrono::seconds(strtoul(argv[3], nullptr, 10));

  grpc::CompletionQueue queue;
  bench::results found;
  uint64_t keys = 0;
  size_t under_way = 0;
  const auto put = [&](size_t index) {
    client &one = clients[index];
    etcdserverpb::PutRequest request;
    request.set_key("bench/" + std::to_string(++keys));
    request.set_value(value);
    one.context = std::make_unique<grpc::ClientContext>();
    one.sent = clock_type::now();
    one.call = servers[index % servers.size()]->AsyncPut(one.context.get(), request, &queue);
    one.call->Finish(&one.response, &one.status, reinterpret_cast<void *>(index));
    ++under_way;
  };
  for (size_t i = 0; i < clients.size(); ++i) {
    put(i);
  }
  void *tag = nullptr;
  bool is_done = false;
  while (under_way != 0 && queue.Next(&tag, &is_done)) {
    --under_way;
    const auto index = reinterpret_cast<size_t>(tag);
    const auto now = clock_type::now();
    if (clients[index].status.ok()) {
      found.latencies_us.push_back(
          std::chrono::duration_cast<std::chrono::microseconds>(now - clients[index].sent).count());
    } else if (found.failed++ == 0) {
      fprintf(stderr, "vx-etcd-clients: %s\n", clients[index].status.error_message().c_str());
    }
    if (now < end) {
      put(index);
    }
  }
  found.seconds = std::chrono::duration<double>(clock_type::now() - begin).count();
  found.print();
  return found.failed == 0 ? 0 : 1;
}
