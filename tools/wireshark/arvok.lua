-- Wireshark dissector of the agent's three links: to the gateway, to the cloud platform and to clients on the LAN.
--
--     tshark -X lua_script:tools/wireshark/arvok.lua -o arvok.keylog:FILE.keys -r FILE
--
-- docs/watching-traffic.md tells how to record FILE in a home, and what the fields are. Without the key log, or where it
-- lacks a key, frames and their lengths are shown and bodies stay closed.

local folder = debug.getinfo(1, "S").source:match("^@(.*[/\\])") or "./"
package.path = folder .. "?.lua;" .. package.path

local bodies = require "arvok.bodies"
local keylog = require "arvok.keylog"

-- ---- what is shown -------------------------------------------------------------------------------------------------

-- Also the protocol of what belongs to no link: the preferences, and the end of a connection inside of a frame.
local arvok = Proto("arvok", "Arvok links")

local fields = {
    magic = ProtoField.bytes("arvok.magic", "Magic"),
    length = ProtoField.uint32("arvok.length", "Length of the body", base.DEC),
    body = ProtoField.bytes("arvok.body", "Body"),
    cipher = ProtoField.string("arvok.cipher", "Cipher"),
    text = ProtoField.string("arvok.text", "Text"),
    kind = ProtoField.string("arvok.type", "Type"),
    reply = ProtoField.bool("arvok.reply", "Acknowledgement"),
    id = ProtoField.string("arvok.id", "Sequence or ID"),
    result = ProtoField.double("arvok.result", "Result"),
    request = ProtoField.framenum("arvok.request_in", "Request in frame", base.NONE, frametype.RESPONSE),
    time = ProtoField.relative_time("arvok.time", "Time since the request"),
    inner = ProtoField.string("arvok.carried", "Carried in base64 by"),
    inner_text = ProtoField.string("arvok.carried.text", "Text"),
    inner_kind = ProtoField.string("arvok.carried.type", "Type"),
}
arvok.fields = fields

local function expert_of(name, text, group, severity)
    return ProtoExpert.new("arvok." .. name, text, group, severity)
end

local experts = {
    bad_magic = expert_of("bad_magic", "Wrong magic", expert.group.MALFORMED, expert.severity.ERROR),
    bad_length = expert_of("bad_length", "Wrong length", expert.group.MALFORMED, expert.severity.ERROR),
    bad_body = expert_of("bad_body", "Unreadable body", expert.group.MALFORMED, expert.severity.ERROR),
    cut = expert_of("cut", "Incomplete frame", expert.group.MALFORMED, expert.severity.WARN),
    no_key = expert_of("no_key", "No key opens the body", expert.group.DECRYPTION, expert.severity.NOTE),
    failed = expert_of("failed", "Failure", expert.group.RESPONSE_CODE, expert.severity.NOTE),
}
arvok.experts = experts

-- ---- links ---------------------------------------------------------------------------------------------------------

local longest_body = 16384
local longest_of_device = 1024 * 1024  -- to the gateway and the cloud, which it connects to

local links = {
    {
        name = "gateway",
        title = "Arvok gateway link",
        column = "ARVOK-GW",
        ports = "32768",
        magic = "\x3f\x72\x1f\xb5",
        read = bodies.gateway,
        members = { kind = { "type" }, id = "sequence", result = "errcode" },
        -- Either side counts its own messages, so the number alone does not tell.
        replies = { keyngack = true, dh = true, ack = true, status = true, ubus_result = true },
        longest_request = longest_of_device,
    },
    {
        name = "cloud",
        title = "Arvok cloud connection",
        column = "ARVOK-CLOUD",
        ports = "8088",
        magic = "QZSGWMP2",
        read = bodies.cloud,
        members = { kind = { "RPCMethod", "Ack" }, id = "ID", result = "Result" },
        longest_request = longest_of_device,
    },
    {
        name = "local",
        title = "Arvok local server",
        column = "ARVOK-LOCAL",
        ports = "17998",
        magic = "",
        read = bodies.local_server,
        members = { kind = { "RPCMethod", "Ack" }, id = "ID", result = "Result" },
        -- A reply repeats the name of an unknown method, and control characters grow sixfold.
        longest_reply = 7 * longest_body,
    },
}

-- ---- messages ------------------------------------------------------------------------------------------------------

local log = keylog.new("")
local json_dissector = Dissector.get("json")

-- A number or a text, as a text; nil for anything else.
local function word_of(value)
    if type(value) == "number" then return string.format("%.14g", value) end
    return type(value) == "string" and value or nil
end

-- The first of these members that is a text, and whether it is not the very first.
local function text_of(message, names)
    for n, name in ipairs(names) do
        if type(message[name]) == "string" then return message[name], n > 1 end
    end
end

local tcp_stream, tcp_seq, tcp_len = Field.new("tcp.stream"), Field.new("tcp.seq"), Field.new("tcp.len")
local tcp_fin, tcp_reset = Field.new("tcp.flags.fin"), Field.new("tcp.flags.reset")

-- What sets apart the bytes that go one way on a connection; the sender's port tells which way.
local function direction_of(port)
    return tostring(tcp_stream()) .. ":" .. port
end

local function add_generated(tree, field, range, value)
    return tree:add(field, range, value):set_generated()
end

-- Messages that may get a reply, by direction and name, and the requests of the replies that were shown.
local waiting, answered = {}, {}

-- Which message this one replies to. Only at first, packets come in the order of their time.
local function add_request(tree, range, link, pinfo, kind, reply, id)
    local name = link.replies and id or kind .. " " .. (id or "")
    local this = pinfo.number .. " " .. name
    if not pinfo.visited then
        local request = direction_of(pinfo.dst_port) .. " " .. name
        if reply or link.replies and link.replies[kind] then
            answered[this], waiting[request] = waiting[request], nil
        end
        if not answered[this] then
            waiting[direction_of(pinfo.src_port) .. " " .. name] = { number = pinfo.number, time = pinfo.rel_ts }
        end
    end
    if not answered[this] then return end
    add_generated(tree, fields.request, range, answered[this].number)
    local seconds, fraction = math.modf(pinfo.rel_ts - answered[this].time)
    add_generated(tree, fields.time, range, NSTime.new(seconds, math.floor(fraction * 1e9 + 0.5)))
end

-- What the message is, as fields, and in a few words.
local function add_summary(tree, range, link, message, pinfo)
    local members = link.members
    local kind, reply = text_of(message, members.kind)
    local words = { kind or "message without a type" }
    if kind then add_generated(tree, fields.kind, range, kind) end
    if reply then
        add_generated(tree, fields.reply, range, true)
        table.insert(words, 1, "Ack")
    end
    local id, result = word_of(message[members.id]), message[members.result]
    if id then
        words[#words + 1] = id
        add_generated(tree, fields.id, range, id)
    end
    if type(result) == "number" then
        local item = add_generated(tree, fields.result, range, result)
        local text = members.result .. " " .. word_of(result)
        if result ~= 0 then
            words[#words + 1] = text
            item:add_proto_expert_info(experts.failed, text)
        end
    end
    if kind and (id or not link.replies) then add_request(tree, range, link, pinfo, kind, reply, id) end
    return table.concat(words, " ")
end

-- A text that is not in the packet, as a source of bytes of its own.
local function range_of(text, name)
    return ByteArray.new(text, true):tvb(name):range()
end

local function add_carried(tree, message, pinfo)
    local name, text, inner = bodies.carried(message)
    if not name then return "" end
    local range = range_of(text, name .. ", decoded")
    local branch = add_generated(tree, fields.inner, range, name)
    branch:add_packet_field(fields.inner_text, range, ENC_UTF_8)
    local kind = text_of(inner, { "CmdType", "type" })
    if kind then
        add_generated(branch, fields.inner_kind, range, kind)
        branch:append_text(": " .. kind)
    end
    json_dissector:call(range:tvb(), pinfo, branch)
    return kind and " (" .. kind .. ")" or ""
end

local function find_secret(link, pinfo)
    local from, to = tostring(pinfo.src) .. ":" .. pinfo.src_port, tostring(pinfo.dst) .. ":" .. pinfo.dst_port
    return function(try) return log:first(link.name, from, to, try) end
end

-- The body of a whole frame; returns what the summary says of it.
local function add_body(tree, link, body, pinfo)
    local item = tree:add(fields.body, body)
    local result = link.read(body:raw(), find_secret(link, pinfo))
    add_generated(tree, fields.cipher, body, result.cipher)
    if result.cipher == "encrypted" then
        item:add_proto_expert_info(experts.no_key)
        return "encrypted"
    end
    local range = body
    if result.text and (result.bytes or result.cipher ~= "plain") then
        range = range_of(result.text, result.cipher == "plain" and "Decoded body" or "Decrypted body")
    end
    if result.text then tree:add_packet_field(fields.text, range, ENC_UTF_8) end
    if result.problem then
        item:add_proto_expert_info(experts.bad_body, "The body is unreadable: " .. result.problem)
        return "unreadable: " .. result.problem
    end
    local summary = add_summary(tree, range, link, result.message, pinfo)
    json_dissector:call(range:tvb(), pinfo, tree)
    return summary .. add_carried(tree, result.message, pinfo)
end

-- ---- frames --------------------------------------------------------------------------------------------------------

-- The size of the frame that begins here; nil while too little of it is there; or what is wrong with it.
local function measure(link, tvb, offset, pinfo)
    local seen = math.min(tvb:len() - offset, #link.magic)
    if tvb:raw(offset, seen) ~= link.magic:sub(1, seen) then return nil, "bad_magic" end
    local header = #link.magic + 4
    if tvb:len() - offset < header then return nil end
    local length = tvb(offset + #link.magic, 4):uint()
    local from_server = pinfo.src_port == pinfo.match_uint
    local longest = (from_server and link.longest_reply or not from_server and link.longest_request) or longest_body
    if length == 0 or length > longest then return nil, "bad_length" end
    return header + length
end

-- Adds what is there of a frame, `size` bytes unless `problem` says otherwise.
local function add_frame(link, tvb, offset, size, problem, pinfo, root)
    local there = tvb(offset, math.min(size, tvb:len() - offset))
    local tree = root:add(link.proto, there)
    local magic, header = #link.magic, #link.magic + 4
    if magic > 0 then tree:add(fields.magic, there(0, math.min(magic, there:len()))) end
    if problem ~= "bad_magic" and there:len() >= header then tree:add(fields.length, there(magic, 4)) end
    local summary
    if problem == "bad_magic" then
        summary = "wrong magic"
        tree:add_proto_expert_info(experts.bad_magic)
    elseif problem then
        summary = "wrong length " .. there(magic, 4):uint()
        tree:add_proto_expert_info(experts.bad_length, "The length is wrong: " .. there(magic, 4):uint())
    elseif there:len() < size then
        tree:add_proto_expert_info(experts.cut, string.format("%d of %d bytes were recorded", there:len(), size))
        summary = "incomplete"
    else
        summary = add_body(tree, link, there(header), pinfo) .. string.format(", %d bytes", size - header)
    end
    tree:append_text(": " .. summary)
    return summary
end

-- Where, in each direction of a connection, the last frame that was seen incomplete would have ended.
local ends_at = {}
local function show(pinfo, link, summaries)
    if #summaries == 0 then return end
    pinfo.cols.protocol:set(link.column)
    -- Of a segment that ends one frame and has more behind it, each part is shown by a call of its own; the fence keeps
    -- what the one before has said.
    pinfo.cols.info:clear()
    if tostring(pinfo.cols.info) ~= "" then pinfo.cols.info:append("; ") end
    pinfo.cols.info:append(table.concat(summaries, "; "))
    pinfo.cols.info:fence()
end

local function dissect(link, tvb, pinfo, root)
    local offset, summaries = 0, {}
    while offset < tvb:len() do
        local left = tvb:len() - offset
        local size, problem = measure(link, tvb, offset, pinfo)
        -- What was recorded in part only cannot be put together.
        if not problem and (not size or size > left) and pinfo.can_desegment > 0 then
            pinfo.desegment_offset = offset
            pinfo.desegment_len = size and size - left or DESEGMENT_ONE_MORE_SEGMENT
            ends_at[direction_of(pinfo.src_port)] = tcp_seq().value + tcp_len().value - left + (size or #link.magic + 4)
            break
        end
        -- Behind a frame that is wrong, nobody knows where the next one begins.
        size = not problem and size or math.max(left, #link.magic + 4)
        summaries[#summaries + 1] = add_frame(link, tvb, offset, problem and left or size, problem, pinfo, root)
        offset = offset + math.min(size, left)
    end
    show(pinfo, link, summaries)
    return tvb:len()
end

-- As a postdissector: says so when a connection is ended inside of a frame.
function arvok.dissector(tvb, pinfo, root)
    local fin, reset = tcp_fin(), tcp_reset()
    if not fin or not (fin.value or reset.value) then return end
    local due, at = ends_at[direction_of(pinfo.src_port)], tcp_seq().value + tcp_len().value
    if not due or at >= due then return end
    local text = string.format("The connection ends %d bytes before the end of a frame", due - at)
    root:add(arvok, tvb(0, 0)):add_proto_expert_info(experts.cut, text)
    pinfo.cols.info:append(" [" .. text .. "]")
end

-- ---- registration --------------------------------------------------------------------------------------------------

local tcp_ports = DissectorTable.get("tcp.port")

for _, link in ipairs(links) do
    link.proto = Proto("arvok_" .. link.name, link.title)
    function link.proto.dissector(tvb, pinfo, root) return dissect(link, tvb, pinfo, root) end
    arvok.prefs[link.name] = Pref.range(link.title .. ": TCP ports", link.ports, "Ports of the " .. link.title, 65535)
    tcp_ports:add(link.ports, link.proto)
    -- Servers on other ports, which the bootstrap server may name, are known by what they say first.
    if link.magic ~= "" then
        link.proto:register_heuristic("tcp", function(tvb, pinfo, root)
            if tvb:len() < #link.magic or tvb:raw(0, #link.magic) ~= link.magic then return false end
            pinfo.conversation = link.proto
            dissect(link, tvb, pinfo, root)
            return true
        end)
    end
end

arvok.prefs.keylog = Pref.string("Key log", os.getenv("ARVOK_KEYLOG") or "", "The file in which the lab's peers log keys")

function arvok.prefs_changed()
    log = keylog.new(arvok.prefs.keylog)
    for _, link in ipairs(links) do
        if arvok.prefs[link.name] ~= link.ports then
            tcp_ports:remove(link.ports, link.proto)
            link.ports = arvok.prefs[link.name]
            tcp_ports:add(link.ports, link.proto)
        end
    end
end

function arvok.init()
    log = keylog.new(arvok.prefs.keylog)
    waiting, answered, ends_at = {}, {}, {}
end

register_postdissector(arvok)
