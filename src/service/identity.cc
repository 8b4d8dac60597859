#include "service/identity.h"

#include <arpa/inet.h>

#include <cstdio>

#include "service/service_state.h"

uint32_t node_addr_of_id(uint32_t node_id)
{
  char text[16];
  std::snprintf(text, sizeof text, "127.1.0.%u", node_id);
  return inet_addr(text);
}

uint32_t node_id_of_addr(uint32_t node_addr)
{
  return ntohl(node_addr) & 0xff;
}

id_entry own_entry(uint32_t msg_id)
{
  return {.sender = static_cast<uint8_t>(cons_service.node_id), .msg_id = msg_id};
}

bool is_member(uint32_t node_id)
{
  return node_id >= 1 && node_id <= cons_service.node_count;
}
