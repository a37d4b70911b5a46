-- The key log of the lab's peers: one line for each secret,
--
--     PROTOCOL REMOTE LOCAL KIND VALUE...
--
-- REMOTE and LOCAL are the connection's ends, ADDRESS:PORT; values are hexadecimal digits. The file may grow while it is
-- read.

local keylog = {}
keylog.__index = keylog

local function bytes_of(digits)
    return (digits:gsub("%x%x", function(pair) return string.char(tonumber(pair, 16)) end))
end

-- Both directions of a connection are one.
local function name_of(protocol, end1, end2)
    if end2 < end1 then end1, end2 = end2, end1 end
    return protocol .. " " .. end1 .. " " .. end2
end

--- A log in the file at `path`; an empty path, and a file that cannot be read, hold nothing.
function keylog.new(path)
    local log = setmetatable({ path = path, position = 0, secrets = {} }, keylog)
    log:refresh()
    return log
end

--- Reads what has been added to the file; true when something has.
function keylog:refresh()
    local file = self.path ~= "" and io.open(self.path, "rb")
    if not file then return false end
    file:seek("set", self.position)
    -- A line that is still being written is left for the next time.
    local lines = (file:read("*a") or ""):match("^.*\n") or ""
    file:close()
    self.position = self.position + #lines
    for protocol, remote, here, kind, values in lines:gmatch("(%S+) (%S+) (%S+) (%S+) ([%x ]+)\n") do
        local name, secret = name_of(protocol, remote, here), { kind = kind }
        for digits in values:gmatch("%x+") do secret[#secret + 1] = bytes_of(digits) end
        self.secrets[name] = self.secrets[name] or {}
        table.insert(self.secrets[name], secret)
    end
    return #lines > 0
end

--- Calls `try(secret)` with each of a connection's secrets, the newest first, until it returns something, and returns
--- that. A secret has its `kind` and, as elements, its values.
function keylog:first(protocol, end1, end2, try)
    local name = name_of(protocol, end1, end2)
    repeat
        local secrets = self.secrets[name] or {}
        for n = #secrets, 1, -1 do
            local found = try(secrets[n])
            if found then return found end
        end
    until not self:refresh()
end

return keylog
