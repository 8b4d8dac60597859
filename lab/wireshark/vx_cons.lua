-- Shows the datagrams of a cluster:  wireshark -X lua_script:lab/wireshark/vx_cons.lua
--
-- docs/wire-format.md describes the messages, "Look at it with Wireshark" there what to filter for.

package.path = __DIR__ .. "/?.lua;" .. package.path

local messages = require "vx_messages"
local payloads = require "vx_payloads"
local pieces = require "vx_pieces"
local reader = require "vx_reader"
local seal = require "vx_seal"
local shown = require "vx_fields"

local fields, experts, fail = shown.fields, shown.experts, reader.fail

local MAGIC = "VX"
local FRAME_SIZE, ENVELOPE_SIZE = 4, 20
local CHANNEL_FIRST, CHANNEL_LAST = 3, 7
local GREETING = 0

local CHANNELS = {
  [3] = messages.registers,
  [4] = messages.decisions,
  [5] = payloads,
  [6] = messages.cluster_messages,
  [7] = messages.hellos,
}

local vx = Proto("vx", "libvx_cons")
vx.fields = fields
vx.experts = experts
vx.prefs.port_base = Pref.uint("First UDP port", 17480, "messaging.port_base: channel n uses this port + n")
vx.prefs.keys = Pref.string("Key file", "", "messaging.keys: opens what is sealed")

local function check_channel(channel, port)
  local of_port = port - vx.prefs.port_base
  if not CHANNELS[channel] or (CHANNELS[of_port] and channel ~= of_port) then
    fail("channel %d on port %d", channel, port)
  end
end

-- The word before a plain message. Returns the channel, and a reader of envelope and payload.
local function open_plain(datagram, tree)
  local magic = datagram:take(#MAGIC)
  tree:add(fields.magic, magic)
  if magic:string() ~= MAGIC then
    fail("not of the messaging service")
  end
  local bulk = datagram:number(tree, fields.bulk, 1)
  if bulk > 1 then
    fail("bulk is %d", bulk)
  end
  local channel = datagram:number(tree, fields.channel, 1)
  return channel, datagram:part(datagram:left())
end

-- The frame of the messaging service, judged as a receiver does. Returns the channel, and a reader of envelope and
-- payload, or of a greeting; none if the key to it is not known. What it reads need not lie in the datagram itself.
local function open_frame(datagram, tree)
  local open = datagram:begins_with(seal.MAGIC) and seal.open or open_plain
  local channel, message = open(datagram, tree)
  if channel ~= GREETING or open == open_plain then
    check_channel(channel, datagram.pinfo.dst_port)
  end
  return channel, message
end

-- Returns a reader of the payload.
local function open_envelope(message, tree)
  local cluster = message:number(tree, fields.cluster, 8)
  message:number(tree, fields.build, 4)
  local address = message:take(4)
  tree:add(fields.address, address)
  tree:add(fields.node, address:range(3, 1)):set_generated()
  message:say("node %d:", address:range(3, 1):uint())
  local length = message:number(tree, fields.length, 4)
  if length ~= message:left() then
    fail("%d bytes behind the envelope instead of %.0f", message:left(), length)
  end
  local payload = message:part(length)
  payload.cluster = tostring(cluster)
  return payload
end

local function show_datagram(datagram, tree)
  local channel, message = open_frame(datagram, tree)
  if not message then
    return
  end
  if channel == GREETING then
    message:say("node %d:", datagram.bytes:range(1, 1):uint())
    seal.greeting(message, tree)
    return
  end
  local payload = open_envelope(message, tree)
  CHANNELS[channel](payload, tree)
  local left = payload:left()
  if left > 0 then
    local _, item = payload:show(tree, fields.rest, left)
    item:add_proto_expert_info(experts.trailing)
    payload:say("[%d bytes more]", left)
  end
end

function vx.dissector(bytes, pinfo, root)
  if bytes:len() == 0 then
    return 0
  end
  local tree = root:add(vx, bytes())
  local words = {}
  local fault = reader.fault_of(show_datagram, reader.over(bytes, pinfo, words), tree)
  if fault then
    local is_snapped = bytes:captured_len() < bytes:reported_len()
    local item = tree:add(fields.fault, is_snapped and "not captured whole: " .. fault or fault):set_generated()
    item:add_proto_expert_info(is_snapped and experts.snapped or experts.malformed)
    words[#words + 1] = "[" .. fault .. "]"
  end
  local said = table.concat(words, " ")
  pinfo.cols.protocol = "VX"
  pinfo.cols.info = said
  tree:append_text(", " .. said)
  return bytes:len()
end

function vx.init()
  pieces.forget()
end

local udp_ports = DissectorTable.get("udp.port")
local bound_ports

local function bind_ports()
  if bound_ports then
    udp_ports:remove(bound_ports, vx)
  end
  local base = vx.prefs.port_base
  bound_ports = ("%d-%d"):format(base + CHANNEL_FIRST, base + CHANNEL_LAST)
  udp_ports:add(bound_ports, vx)
end

local function take_preferences()
  bind_ports()
  local why = seal.load(vx.prefs.keys)
  if why then
    report_failure("Key file: " .. why)
  end
end

vx.prefs_changed = take_preferences
take_preferences()

-- On other ports: only what a receiver of plain messages would accept.
local function is_ours(bytes)
  local size = bytes:captured_len()
  return size >= FRAME_SIZE + ENVELOPE_SIZE and bytes(0, #MAGIC):string() == MAGIC and bytes(2, 1):uint() <= 1 and
         CHANNELS[bytes(3, 1):uint()] and bytes(20, 4):le_uint() == bytes:reported_len() - FRAME_SIZE - ENVELOPE_SIZE
end

vx:register_heuristic("udp", function(bytes, pinfo, root)
  if not is_ours(bytes) then
    return false
  end
  vx.dissector(bytes, pinfo, root)
  return true
end)
