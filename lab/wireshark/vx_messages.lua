-- Channels 3, 4, 6 and 7. A function per channel shows a message in `tree` and tells the info column about it.

local shown = require "vx_fields"
local reader = require "vx_reader"

local fields, names, fail = shown.fields, shown.names, reader.fail

local LOG_MAX = 250
local HELLO_MAX = 1400
local SAY_MAGIC = "KS1"

local function register_value(message, tree)
  local length = message:number(tree, fields.value_length, 4)
  if length == reader.ID_SIZE then
    message:id(tree, "value")
  elseif length == 0 then
    message:say("no value")
  else
    message:show(tree, fields.value, length)
    fail("a value of %.0f bytes is no identifier", length)
  end
end

local function registers(message, tree)
  local type = message:number(tree, fields.register_type, 4)
  local name = names.register[type] or fail("channel 3 has no type %.0f", type)
  message:say(name)
  message:say("register %.0f", (message:number(tree, fields.register, 4)))
  message:say("round %.0f", (message:number(tree, fields.round, 4)))
  if name == "READ_ACK" then
    message:say("write round %.0f", (message:number(tree, fields.write_round, 4)))
  end
  if name == "READ_ACK" or name == "WRITE_REQ" then
    register_value(message, tree)
  end
end

local function decide(message, tree)
  message:say("DECIDE %.0f", (message:number(tree, fields.decision, 4)))
  message:show(tree, fields.unused, 5)
  local count, log = message:number(tree, fields.count, 4)
  if count < 1 or count > LOG_MAX then
    fail("a log of %.0f entries", count)
  end
  local range, id
  for _ = 1, count do
    range, id = message:entry(log)
  end
  tree:add(fields.id, range, id):set_generated()
  message:say("%s, log of %d", id, count)
  message:show(log, fields.unused, (LOG_MAX - count) * reader.ID_SIZE)
  message:show(tree, fields.unused, 1)
end

local function forward(message, tree)
  message:id(tree, "FORWARD")
  message:show(tree, fields.unused, 3)
end

local function decisions(message, tree)
  local type = message:number(tree, fields.paxos_type, 4)
  local show = ({[0] = decide, [1] = forward})[type] or fail("channel 4 has no type %.0f", type)
  show(message, tree)
end

local function cluster_messages(message, tree)
  local type = message:number(tree, fields.message_type, 4)
  local length = message:number(tree, fields.message_length, 4)
  message:say("message of type %.0f, %.0f bytes", type, length)
  local bytes = message:part(length)
  if type == 0 and bytes:begins_with(SAY_MAGIC) then
    tree:add(fields.say_magic, bytes:take(#SAY_MAGIC))
    local node = bytes:number(tree, fields.say_node, 1)
    message:say("node %d says: %s", node, bytes:text(tree, fields.say_text, bytes:left()))
  else
    bytes:show(tree, fields.message, length)
  end
end

-- Key, how its value looks in JSON, field, and what makes the value of the field.
local HELLO_FIELDS = {
  {"node", "(%d+)", fields.hello_node, tonumber},
  {"role", '"(%l+)"', fields.hello_role, tostring},
  {"standing", '"(%l+)"', fields.hello_standing, tostring},
  {"decision", "(%d+)", fields.hello_decision, tonumber},
  {"top", "(%d+)", fields.hello_top, tonumber},
  {"n", "(%d+)", fields.hello_n, UInt64},
  {"reason", '"(.-)",', fields.hello_reason, tostring},
}

-- A key within a text has a backslash before its second quote, so only keys are found.
local function hello_fields(json, tree)
  local said = {}
  local text = json:raw()
  for _, one in ipairs(HELLO_FIELDS) do
    local key, pattern, field, convert = table.unpack(one)
    local first, last, value = text:find('"' .. key .. '":' .. pattern)
    if not first then
      fail("a hello without %s", key)
    end
    tree:add(field, json:range(first - 1, last - first + 1), convert(value))
    said[key] = value
  end
  return said
end

local PROBE_MAGIC = "VXP"
local PROBE_KINDS = {[1] = "PROBE", [2] = "PROBE answer"}

local function probe(message, tree)
  tree:add(fields.probe_magic, message:take(#PROBE_MAGIC))
  local size = message:left() + #PROBE_MAGIC
  local version = message:number(tree, fields.probe_version, 1)
  if version ~= 1 then
    message:say("PROBE of version %d", version)
    message:show(tree, fields.unused, message:left())
    return
  end
  local kind = message:number(tree, fields.probe_kind, 1)
  message:say("%s", PROBE_KINDS[kind] or fail("a probe of kind %d", kind))
  local asker = message:number(tree, fields.probe_asker, 1)
  message:show(tree, fields.unused, 2)
  message:number(tree, fields.probe_session, 4)
  local number = message:number(tree, fields.probe_number, 4)
  local asked = message:number(tree, fields.probe_size, 4)
  message:say("%.0f of node %d, %.0f bytes", number, asker, asked)
  if kind == 1 and asked ~= size then
    fail("a probe of %d bytes says %.0f", size, asked)
  elseif message:left() > 0 and kind == 1 then
    message:show(tree, fields.unused, message:left())
  end
end

local function hellos(message, tree)
  if message:begins_with(PROBE_MAGIC) then
    probe(message, tree)
    return
  end
  message:say("HELLO")
  local length = message:left()
  if length < 2 or length > HELLO_MAX then
    fail("a hello of %d bytes", length)
  end
  local json = message:take(length)
  if not json:raw():match("^{.*}$") then
    fail("a hello that is no JSON object")
  end
  Dissector.get("json"):call(json:tvb(), message.pinfo, tree)
  local said = hello_fields(json, tree)
  message:say("%s, %s, decision %s, %s payloads", said.standing, said.role, said.decision, said.n)
  if said.reason ~= "" then
    message:say("(%s)", said.reason)
  end
end

return {registers = registers, decisions = decisions, cluster_messages = cluster_messages, hellos = hellos}
