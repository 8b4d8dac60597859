#include "control/request.h"

namespace kesh
{

using nlohmann::json;

namespace
{

std::string line_of(const json &reply)
{
  return reply.dump(-1, ' ', false, json::error_handler_t::replace) + '\n';
}

}  // namespace

json request_parse(std::string_view line)
{
  json request = json::parse(line, nullptr, false);
  if (!request.is_object() || !request.contains("op") || !request.at("op").is_string()) {
    throw request_error("the request is no JSON object with an \"op\"");
  }
  return request;
}

std::string reply_accepted(const json &fields)
{
  json reply = {{"ok", true}};
  if (fields.is_object()) {
    reply.update(fields);
  }
  return line_of(reply);
}

std::string reply_refused(int code, const std::string &error)
{
  return line_of({{"ok", false}, {"code", code}, {"error", error}});
}

}  // namespace kesh
