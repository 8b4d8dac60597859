-- Channel 5: how payloads travel, and what is in them.

local pieces = require "vx_pieces"
local reader = require "vx_reader"
local shown = require "vx_fields"

local fields, names, fail = shown.fields, shown.names, reader.fail

local PIECE_SIZE = 1400
local PAYLOAD_HEADER_SIZE = 8
local TO_THE_END = 0xffffffff
local MARKS_TYPE, MARKS_SIZE = 4, 4 + 4 * reader.NODES_MAX
local ITEMS_MAGIC = "KPL2"
local TEXT_SHOWN = 40

local function marks(record, tree)
  record:number(tree, fields.marks_number, 4)
  for node = 1, reader.NODES_MAX do
    local range = record:take(4)
    if range:le_uint() ~= 0 then
      tree:add(fields.marks_id, range, ("%d.%.0f"):format(node, range:le_uint()))
    end
  end
end

local function shortened(text)
  return #text > TEXT_SHOWN and text:sub(1, TEXT_SHOWN) .. "..." or text
end

local function items(record, tree)
  tree:add(fields.items_magic, record:take(#ITEMS_MAGIC))
  record:number(tree, fields.origin, 1)
  record:number(tree, fields.life, 8)
  local count = record:number(tree, fields.items_count, 4)
  if count < 1 then
    fail("a payload without items")
  end
  local first
  for _ = 1, count do
    local _, item = record:number(tree, fields.item, 1)
    record:number(item, fields.sequence, 8)
    record:number(item, fields.attempt, 4)
    local text = record:text(item, fields.text, (record:number(item, fields.item_length, 4)))
    first = first or text
  end
  record:say("= %s%s", count == 1 and "item: " or ("%.0f items: "):format(count), shortened(first))
end

local function record(payload, tree, is_state)
  local type, item = payload:number(tree, fields.record_type, 4)
  local length = payload:number(item, fields.record_length, 4)
  local bytes = payload:part(length)
  if is_state and type == MARKS_TYPE and length == MARKS_SIZE then
    marks(bytes, item)
  elseif not is_state and type == 0 and bytes:begins_with(ITEMS_MAGIC) then
    items(bytes, item)
  end
  bytes:show(item, fields.record, bytes:left())
end

local function content(message, tree, bytes)
  local payload = reader.over(ByteArray.new(bytes, true):tvb("Payload"), message.pinfo, message.words)
  local is_state = payload:number(tree, fields.full_state, 4) ~= 0
  local length = payload:number(tree, fields.records_length, 4)
  if length ~= payload:left() then
    fail("%.0f bytes of records in a payload that has room for %d", length, payload:left())
  end
  if is_state then
    message:say("= state of %d bytes", length)
  end
  while payload:left() > 0 do
    record(payload, tree, is_state)
  end
end

local function check_piece(offset, total, length)
  if total < PAYLOAD_HEADER_SIZE or offset >= total or offset % PIECE_SIZE ~= 0 then
    fail("no piece begins at %.0f of %.0f bytes", offset, total)
  end
  if length ~= math.min(total - offset, PIECE_SIZE) then
    fail("a piece of %.0f bytes at %.0f of %.0f", length, offset, total)
  end
end

local function data(message, tree, id)
  local offset = message:number(tree, fields.offset, 4)
  local total = message:number(tree, fields.total, 4)
  local length = message:number(tree, fields.piece_length, 4)
  message:say("%.0f bytes at %.0f of %.0f", length, offset, total)
  check_piece(offset, total, length)
  local piece, item = message:show(tree, fields.piece, length)
  if not pieces.can_decrypt then
    item:append_text(" (the Lua package luaossl is needed to decrypt it)")
    return
  end
  local plain = pieces.decrypt(piece:raw())
  tree:add(fields.plain, ByteArray.new(plain, true):tvb("Decrypted piece")())
  local name = ("%s %s %.0f"):format(message.cluster, id, total)
  local whole = pieces.whole(message.pinfo, name, offset, total, plain)
  if whole then
    content(message, tree, whole)
  end
end

local function request(message, tree)
  local offset = message:number(tree, fields.wanted_offset, 4)
  local length = message:number(tree, fields.wanted_length, 4)
  if length ~= TO_THE_END then
    message:say("%.0f bytes at %.0f", length, offset)
  elseif offset ~= 0 then
    message:say("from %.0f on", offset)
  end
end

local function payloads(message, tree)
  local type = message:number(tree, fields.data_type, 2)
  local name = names.data[type] or fail("channel 5 has no type %.0f", type)
  local from = message:number(tree, fields.from, 1)
  local id = message:id(tree, name)
  local may_be_anonymous = name == "COMPLETE" or name == "MISSING"
  if from > reader.NODES_MAX or (from == 0 and not may_be_anonymous) then
    fail("from node %d", from)
  end
  if name == "REQ" then
    request(message, tree)
  elseif name == "DATA" then
    data(message, tree, id)
  end
end

return payloads
