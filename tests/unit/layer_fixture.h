/// One layer of the library against the played host, as node `own` of a cluster, without the layers above it.
#pragma once

#include <gtest/gtest.h>

#include "fake_host.h"
#include "files.h"
#include "service/identity.h"
#include "service/service_state.h"

class layer_test : public ::testing::Test
{
protected:
  layer_test()
  {
    files::clear();
    fake::start(fake::dispatch::per_channel);
    be_node(1, 3);
  }
  ~layer_test() override
  {
    fake::stop();
    EXPECT_EQ(fake::violations(), std::vector<std::string>());
    EXPECT_EQ(fake::messages_in_hand(), 0u);
  }

  static void be_node(uint32_t own, uint32_t node_count)
  {
    cons_service.cluster_id = fake::CLUSTER_ID;
    cons_service.node_count = node_count;
    cons_service.quorum = node_count / 2 + 1;
    cons_service.node_id = own;
    cons_service.node_addr = node_addr_of_id(own);
  }
};
