-- What the body of a frame says: how it was encrypted, its text, and the message in it.
--
-- A function for each link takes the body, and `find(try)`, which calls `try` with each secret that the key log has of the
-- connection until it returns something. It returns a table of
--
--     cipher   "plain", "encrypted" (no key opens it), or the kind of secret that opened it
--     bytes    what the body carries in base64, if it does
--     text     the message's text, unless it is encrypted
--     message  the members of that text, if it is a JSON object
--     problem  why there is no message though nothing is encrypted; nil when there is one
--
-- No link says which key a body is under, so what opens it tells.

local aes = require "arvok.aes"
local json = require "arvok.json"

local bodies = {}

local no_object = "not a JSON object"

--- What a base64 text stands for; nil when it is none. Blanks do not count.
function bodies.from_base64(text)
    text = text:gsub("[ \t\r\n]", "")
    if text == "" or #text % 4 ~= 0 or not text:find("^[%w+/]+=?=?$") then return nil end
    return ByteArray.new(text, true):base64_decode():raw()
end

-- The text as it would be if `cipher` were right; nil when that cannot be.
local function opened(cipher, text)
    local message = json.object(text)
    if message then return { cipher = cipher, text = text, message = message } end
    -- A message that is broken, rather than bytes that happen to begin like one.
    return text:find('^{"') and { cipher = cipher, text = text, problem = no_object } or nil
end

-- Most wrong keys show in the first block.
local function decrypted(mode, key, sealed)
    return #key == 16 and mode(key, sealed:sub(1, 16)):find("^%s*{") and mode(key, sealed)
end

local function sealed_in_blocks(sealed, find, try)
    if #sealed % 16 ~= 0 then return { cipher = "plain", problem = "neither JSON nor whole blocks of a cipher" } end
    return find(try) or { cipher = "encrypted" }
end

--- AES-128-CBC, filled up with zeros.
function bodies.gateway(body, find)
    return opened("plain", body) or sealed_in_blocks(body, find, function(secret)
        local text = secret.kind == "key" and decrypted(aes.cbc, secret[1], body)
        return text and opened(secret.kind, text:match("^[^%z]*"))
    end)
end

local function without_padding(text)
    local count = text:byte(-1)
    local padding = count > 0 and count <= 16 and string.rep(string.char(count), count)
    return padding and text:sub(-count) == padding and text:sub(1, -count - 1)
end

--- Base64 of AES-128-ECB under the client key or the server key, with a padding that counts itself, or of RSA, whose
--- texts the log has.
function bodies.cloud(body, find)
    local line = body:match("^(.*)\r\n$")
    if not line then return { cipher = "plain", problem = "no CR LF at the end" } end
    local bytes = bodies.from_base64(line)
    if not bytes then return { cipher = "plain", problem = "no base64" } end
    local result = opened("plain", bytes) or sealed_in_blocks(bytes, find, function(secret)
        if secret.kind == "rsa" then return bytes:sub(1, 16) == secret[1] and opened("rsa", secret[2]) or nil end
        local text = decrypted(aes.ecb, secret[1], bytes)
        text = text and without_padding(text)
        return text and opened(secret.kind, text)
    end)
    result.bytes = bytes
    return result
end

--- Never encrypted.
function bodies.local_server(body)
    return opened("plain", body) or { cipher = "plain", text = body, problem = no_object }
end

--- What a message carries inside: the first of its members that is a JSON object in base64, as name, text and members.
function bodies.carried(message)
    for _, name in ipairs({ "Parameter", "return_Parameter", "Message" }) do
        local value = message[name]
        local text = type(value) == "string" and bodies.from_base64(value)
        local inner = text and json.object(text)
        if inner then return name, text, inner end
    end
end

return bodies
