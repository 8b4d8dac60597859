#include "messaging_nodes.h"
#include "scratch.h"
#include "vx_host.h"

#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>

namespace
{

#if defined(VX_SANITIZED)
constexpr size_t STACK_SIZE = size_t{1} << 20;
constexpr size_t STACK_USE_MAX = STACK_SIZE;
#else
constexpr size_t STACK_SIZE = size_t{64} << 10;
constexpr size_t STACK_USE_MAX = size_t{24} << 10;
#endif

void *use_host_functions(void *)
{
  uint32_t number = 0;
  vx_log("%s\n", std::string(2000, 'y').c_str());
  errno = EACCES;
  vx_log_err("%s(): %s", __func__, "failed");
  EXPECT_EQ(vx_cfg_get_uint(&number, "cluster.node_id"), 0);
  EXPECT_EQ(vx_cfg_set("1", "cluster.node[%u].mac", 15u), 0);
  EXPECT_EQ(vx_cfg_save(1), 0);
  record &got = recorder<1>::reset();
  vx_msg_register_recv_hook(recorder<1>::hook, 5);
  void *repeated = vx_msg_enqueue(tagged(1).release()->object(), 5, 0, GROUP_ADDRESS, -1, 1);
  for (uint32_t i = 0; i < 100; ++i) {
    vx_msg_enqueue(tagged(10 + i, 1420).release()->object(), 5, 2, GROUP_ADDRESS, 0, 0);
  }
  EXPECT_EQ(vx_msg_enqueue(tagged(2, 65500).release()->object(), 6, 0, GROUP_ADDRESS, 0, 0), nullptr);
  EXPECT_TRUE(got.await_tag(1, 2) && got.await_tag(109));
  vx_msg_dequeue(repeated, 0, 0, 0);
  vx_msg_dequeue(nullptr, 5, UINT32_MAX, 0);
  EXPECT_EQ(messaging_read_statistics().queued, 0u);
  vx_msg_unregister_recv_hook(recorder<1>::hook);
  return nullptr;
}

}  // namespace

// The library's threads have 64 KiB, of which it needs a part itself.
TEST(host_functions, work_together_and_are_content_with_little_stack)
{
  const scratch dir;
  std::string error;
  const std::string text = "cluster.node_id = 1\nmessaging.interval_ms = 1\nlog.file = " + dir.path("log") + "\n";
  ASSERT_TRUE(config_load(dir.write("conf", text), error)) << error;
  ASSERT_TRUE(log_open(error) && messaging_start(error)) << error;
  auto *stack = static_cast<uint8_t *>(
      mmap(nullptr, STACK_SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0));
  ASSERT_NE(static_cast<void *>(stack), MAP_FAILED);
  memset(stack, 0xa5, STACK_SIZE);
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  ASSERT_EQ(pthread_attr_setstack(&attr, stack, STACK_SIZE), 0);
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, &attr, use_host_functions, nullptr), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attr);
  ASSERT_EQ(kesh_pthread_create(&thread, nullptr, size_t{64} << 10, use_host_functions, nullptr), 0);
  pthread_join(thread, nullptr);
  messaging_stop();
  const uint8_t *touched = std::find_if(stack, stack + STACK_SIZE, [](uint8_t byte) { return byte != 0xa5; });
  const auto used = static_cast<size_t>(stack + STACK_SIZE - touched);
  printf("stack used: %zu bytes\n", used);
  EXPECT_LE(used, STACK_USE_MAX);
  munmap(stack, STACK_SIZE);
}
