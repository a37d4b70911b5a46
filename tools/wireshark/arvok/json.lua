-- JSON as far as a summary needs it: is a text an object, and what are its members? The details are shown by Wireshark's
-- own dissector.

local json = {}

--- Stands for null, so that a member that is null is there.
json.null = setmetatable({}, { __tostring = function() return "null" end })

local deepest = 100
local escapes = { b = "\b", f = "\f", n = "\n", r = "\r", t = "\t", ['"'] = '"', ["\\"] = "\\", ["/"] = "/" }
local words = { ["true"] = true, ["false"] = false, null = json.null }

local function utf8(code)
    if code < 0x80 then return string.char(code) end
    if code < 0x800 then return string.char(0xc0 + math.floor(code / 64), 0x80 + code % 64) end
    return string.char(0xe0 + math.floor(code / 4096), 0x80 + math.floor(code / 64) % 64, 0x80 + code % 64)
end

-- Each reader takes the text and where its value begins; it returns the value and where the text goes on, or nothing.

local function skip(text, at)
    return text:find("[^ \t\r\n]", at) or #text + 1
end

local function read_string(text, at)
    local parts, from = {}, at + 1
    while true do
        local stop = text:find('["\\%c]', from)
        if not stop then return end
        parts[#parts + 1] = text:sub(from, stop - 1)
        local letter, next_letter = text:sub(stop, stop), text:sub(stop + 1, stop + 1)
        if letter == '"' then return table.concat(parts), stop + 1 end
        if letter ~= "\\" then return end
        if next_letter == "u" then
            local digits = text:match("^%x%x%x%x", stop + 2)
            if not digits then return end
            parts[#parts + 1], from = utf8(tonumber(digits, 16)), stop + 6
        else
            if not escapes[next_letter] then return end
            parts[#parts + 1], from = escapes[next_letter], stop + 2
        end
    end
end

local read_value

-- The elements of a list up to `closing`; `read_element` puts each into the list.
local function read_list(text, at, closing, read_element)
    local list = {}
    at = skip(text, at + 1)
    if text:sub(at, at) == closing then return list, at + 1 end
    while true do
        at = read_element(list, at)
        if not at then return end
        at = skip(text, at)
        local letter = text:sub(at, at)
        if letter == closing then return list, at + 1 end
        if letter ~= "," then return end
        at = skip(text, at + 1)
    end
end

local function read_object(text, at, depth)
    return read_list(text, at, "}", function(object, from)
        if text:sub(from, from) ~= '"' then return end
        local name, behind = read_string(text, from)
        behind = name and skip(text, behind)
        if not behind or text:sub(behind, behind) ~= ":" then return end
        local value, after = read_value(text, skip(text, behind + 1), depth)
        -- Of two members of one name, the first is the one that counts.
        if after and object[name] == nil then object[name] = value end
        return after
    end)
end

local function read_array(text, at, depth)
    return read_list(text, at, "]", function(array, from)
        local value, after = read_value(text, from, depth)
        if after then array[#array + 1] = value end
        return after
    end)
end

local function read_number(text, at)
    local digits = text:match("^-?%d+", at)
    if not digits or digits:find("^-?0%d") then return end
    for _, part in ipairs({ "^%.%d+", "^[eE][+-]?%d+" }) do
        digits = digits .. (text:match(part, at + #digits) or "")
    end
    return tonumber(digits), at + #digits
end

function read_value(text, at, depth)
    local letter = text:sub(at, at)
    if letter == "{" or letter == "[" then
        if depth == deepest then return end
        return (letter == "{" and read_object or read_array)(text, at, depth + 1)
    end
    if letter == '"' then return read_string(text, at) end
    local word = text:match("^%a+", at)
    if word then return words[word], words[word] ~= nil and at + #word or nil end
    return read_number(text, at)
end

--- The members of a text that is one JSON object and nothing else; nil for any other text, and for one that is nested
--- more than 100 deep.
function json.object(text)
    local at = skip(text, 1)
    if text:sub(at, at) ~= "{" then return nil end
    local object, after = read_object(text, at, 1)
    return after and skip(text, after) > #text and object or nil
end

return json
