-- Sealed datagrams: what their head tells, and what they bring if the key is known.
-- host/platform/seal/sealed_frame.h describes them.
--
-- luaossl cannot say what else is authenticated with a GCM text, so the tag is not checked here: the text is decrypted
-- as the counter mode that it is. What a wrong key makes of it is no message, and flagged as that.

local reader = require "vx_reader"
local shown = require "vx_fields"

local fields, fail = shown.fields, reader.fail

local MAGIC = "S"
local NODES_MAX = reader.NODES_MAX
local TO_GROUP, BULK = 0x40, 0x80
local SESSION_SIZE, TAG_SIZE = 6, 16
local INFO = "kesh seal 1"
local FIRST_COUNTER = "\0\0\0\2" -- GCM keeps 1 for the tag
local NOTHING = ("\0"):rep(SESSION_SIZE)

local has_cipher, cipher = pcall(require, "openssl.cipher")
local has_hmac, hmac = pcall(require, "openssl.hmac")

local seal = {MAGIC = MAGIC, keys = {}}
local derived = {}

local function bytes_of(digits)
  return (digits:gsub("%x%x", function(pair) return string.char(tonumber(pair, 16)) end))
end

-- Reads the keys of a key file; "" stands for none. Returns an error text if it cannot be opened.
function seal.load(path)
  seal.keys, derived = {}, {}
  if path == "" then
    return nil
  end
  local file, why = io.open(path)
  if not file then
    return why
  end
  for line in file:lines() do
    local number, digits = line:gsub("#.*", ""):match("^%s*%a+%s+(%d+)%s+(%x+)%s*$")
    if digits and #digits == 64 then
      seal.keys[tonumber(number)] = bytes_of(digits)
    end
  end
  file:close()
  return nil
end

-- HKDF-SHA256 without salt; one block is all that is wanted.
local function key_of(id, sender, session)
  local name = id .. sender .. session
  if not derived[name] then
    local extracted = hmac.new(("\0"):rep(32), "sha256"):final(seal.keys[id])
    derived[name] = hmac.new(extracted, "sha256"):final(INFO .. sender .. session .. "\1")
  end
  return derived[name]
end

-- Shows the head, of 16 bytes, and what is derived of it.
local function head_of(datagram, tree)
  local head = {}
  tree:add(fields.magic, datagram:take(#MAGIC))
  local sender = datagram:take(1)
  tree:add(fields.sender, sender)
  if sender:uint() < 1 or sender:uint() > NODES_MAX then
    fail("sealed by node %d", sender:uint())
  end
  head.sender = sender:raw()
  local flags = datagram:take(1)
  local bits = flags:uint()
  head.channel = bits % TO_GROUP
  tree:add(fields.bulk, flags, bits >= BULK)
  tree:add(fields.to_group, flags, bits % BULK >= TO_GROUP)
  tree:add(fields.channel, flags, head.channel)
  head.key = datagram:number(tree, fields.key, 1)
  local session = datagram:take(SESSION_SIZE)
  tree:add(fields.session, session)
  head.session = session:raw()
  local counter = datagram:take(SESSION_SIZE)
  tree:add(fields.counter, counter)
  head.nonce = head.session .. counter:raw()
  if head.key == 0 or head.session == NOTHING or counter:raw() == NOTHING then
    fail("sealed with key, session or counter 0")
  end
  return head
end

-- Shows a sealed datagram, and returns its channel and a reader of what it brings; 0 is a greeting. Without the key no
-- reader is returned.
function seal.open(datagram, tree)
  local head = head_of(datagram, tree)
  local text = datagram:take(math.max(datagram:left() - TAG_SIZE, 0))
  tree:add(fields.sealed, text)
  tree:add(fields.tag, datagram:take(TAG_SIZE))
  if not has_cipher or not has_hmac or not seal.keys[head.key] then
    datagram:say("node %d: sealed with key %d, %d bytes", head.sender:byte(), head.key, text:len())
    return head.channel, nil
  end
  local opened = cipher.new("aes-256-ctr"):decrypt(key_of(head.key, head.sender, head.session),
                                                   head.nonce .. FIRST_COUNTER):final(text:raw())
  local bytes = ByteArray.new(opened, true):tvb("Opened")
  return head.channel, reader.over(bytes, datagram.pinfo, datagram.words)
end

-- The sessions that a node has heard.
function seal.greeting(message, tree)
  local told = 0
  for node = 1, NODES_MAX do
    local session = message:take(SESSION_SIZE)
    if session:raw() ~= NOTHING then
      tree:add(fields.heard_session, session):append_text((" of node %d"):format(node))
      told = told + 1
    end
  end
  message:say("greeting, has heard %d", told)
end

return seal
