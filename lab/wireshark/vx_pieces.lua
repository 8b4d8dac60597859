-- Decrypts pieces of payloads, and puts them together.
--
-- The pass phrase is that of src/payload_dissemination/cons_crypt.cc. The cipher is OpenSSL's; without the Lua package
-- luaossl all pieces stay encrypted.

local PASS_PHRASE = [[
  91 6f 8d 87 7e 1f 9c 40 93 cc 3c 2e be 58 21 bb 49 07 e9 aa 98 e3 a7 71 eb b6 99 80 df 0c 4e 89
  8e 38 2d 19 3b 2e 0a 6b 27 43 e1 38 a2 4f 81 41 7e 1e 4c b5 23 4e 7e f8 72 19 d9 9d 84 a0 eb e1
  cc ae 78 f8 75 36 57 9a 52 ae aa a6 82 73 74 88 b5 3e bc bc f7 3f 7a 9d 61 fc c9 63 7c]]

-- Bytes of payloads of several pieces that are kept: a frame may be looked at again at any time.
local KEPT_MAX = 64 * 1024 * 1024

local has_cipher, cipher = pcall(require, "openssl.cipher")
local has_digest, digest = pcall(require, "openssl.digest")

local key, vector

-- As EVP_BytesToKey does with MD5, one round and no salt.
local function derive()
  local function md5(bytes)
    return digest.new("md5"):final(bytes)
  end
  local phrase = PASS_PHRASE:gsub("%s", ""):gsub("%x%x", function(digits) return string.char(tonumber(digits, 16)) end)
  key = md5(phrase)
  vector = md5(key .. phrase)
end

local pieces = {can_decrypt = has_cipher and has_digest}

function pieces.decrypt(bytes)
  if not key then
    derive()
  end
  return cipher.new("aes-128-cfb"):decrypt(key, vector):final(bytes)
end

local open, whole, kept = {}, {}, 0

-- To be called when another capture is read.
function pieces.forget()
  open, whole, kept = {}, {}, 0
end

-- Takes a decrypted piece. Its payload becomes known in the frame that brings the last missing piece.
local function add(frame, name, offset, total, bytes)
  local payload = open[name] or {size = 0, parts = {}}
  if payload.parts[offset] or kept + #bytes > KEPT_MAX then
    return
  end
  open[name] = payload
  payload.parts[offset] = bytes
  payload.size = payload.size + #bytes
  kept = kept + #bytes
  if payload.size == total then
    local offsets = {}
    for at in pairs(payload.parts) do
      offsets[#offsets + 1] = at
    end
    table.sort(offsets)
    for i, at in ipairs(offsets) do
      offsets[i] = payload.parts[at]
    end
    whole[frame] = table.concat(offsets)
    open[name] = nil
  end
end

-- Returns the payload that the piece in this frame made whole, else nil. `name` tells payloads apart.
function pieces.whole(pinfo, name, offset, total, bytes)
  if #bytes == total then
    return bytes
  end
  if not pinfo.visited then
    add(pinfo.number, name, offset, total, bytes)
  end
  return whole[pinfo.number]
end

return pieces
