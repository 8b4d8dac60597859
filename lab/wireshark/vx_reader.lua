-- Bytes that are read from their front. What does not fit ends the reading with a fault, which is a text; the fields
-- before it stay shown.

local shown = require "vx_fields"

local NODES_MAX = 16
local ID_SIZE = 5

local reader = {NODES_MAX = NODES_MAX, ID_SIZE = ID_SIZE}
reader.__index = reader

-- Reads all of a Tvb. `pinfo` is that of the frame, `words` are what the info column will tell.
function reader.over(bytes, pinfo, words)
  return setmetatable({bytes = bytes, at = 0, last = bytes:len(), pinfo = pinfo, words = words}, reader)
end

function reader.fail(text, ...)
  error({fault = text:format(...)}, 0)
end

-- Calls `read`. Returns the fault that ended it, or nil.
function reader.fault_of(read, ...)
  local ok, problem = pcall(read, ...)
  if not ok and type(problem) ~= "table" then
    error(problem, 0)
  end
  return not ok and problem.fault or nil
end

function reader:say(text, ...)
  self.words[#self.words + 1] = text:format(...)
end

function reader:left()
  return self.last - self.at
end

local function skip(self, count)
  if count > self:left() then
    reader.fail("%.0f bytes wanted, %d left", count, self:left())
  end
  self.at = self.at + count
end

function reader:take(count)
  skip(self, count)
  return self.bytes:range(self.at - count, count)
end

-- Returns a reader of the next `count` bytes. It tells the same info column.
function reader:part(count)
  skip(self, count)
  return setmetatable(
    {bytes = self.bytes, at = self.at - count, last = self.at, pinfo = self.pinfo, words = self.words}, reader)
end

function reader:begins_with(text)
  return self:left() >= #text and self.bytes:range(self.at, #text):raw() == text
end

-- Shows a little-endian number. Returns it and its item.
function reader:number(tree, field, width)
  local range = self:take(width)
  return width == 8 and range:le_uint64() or range:le_uint(), tree:add_le(field, range)
end

-- Shows bytes, if there are any. Returns their range and item.
function reader:show(tree, field, count)
  if count > 0 then
    local range = self:take(count)
    return range, tree:add(field, range)
  end
end

-- Shows and returns a text.
function reader:text(tree, field, count)
  if count == 0 then
    return ""
  end
  local range = self:take(count)
  local text = range:string(ENC_UTF_8)
  tree:add(field, range, text)
  return text
end

local function id_text(range)
  return ("%d.%.0f"):format(range:range(0, 1):uint(), range:range(1, 4):le_uint())
end

local function check_id(range)
  local submitter = range:range(0, 1):uint()
  if submitter < 1 or submitter > NODES_MAX or range:range(1, 4):le_uint() == 0 then
    reader.fail("%s identifies nothing", id_text(range))
  end
end

-- Shows an identifier and tells it behind `name`. Returns it as "submitter.number".
function reader:id(tree, name)
  local range = self:take(ID_SIZE)
  local item = tree:add(shown.fields.id, range, id_text(range))
  item:add(shown.fields.submitter, range:range(0, 1))
  item:add_le(shown.fields.number, range:range(1, 4))
  self:say("%s %s", name, id_text(range))
  check_id(range)
  return id_text(range)
end

-- Shows an entry of a log. Returns its range and text.
function reader:entry(tree)
  local range = self:take(ID_SIZE)
  tree:add(shown.fields.entry, range, id_text(range))
  check_id(range)
  return range, id_text(range)
end

return reader
