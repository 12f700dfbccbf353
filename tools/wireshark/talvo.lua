-- Shows the messages of talvo's protocol connections, over TCP and UDP, as docs/wire-format.md describes them.
--
--   tshark -X lua_script:talvo.lua -o talvo.ports:7000 -o talvo.form:package -r FILE
--
-- The bytes do not identify the form, so a preference sets it for the ports, and for the conversations chosen by Decode As.
-- Wireshark loads this file itself from the folder of personal Lua plugins (Help, About, Folders).

local FORM_PACKAGE, FORM_NOPARTIAL, FORM_LENGTH, FORM_RELIABLE = 1, 2, 3, 4
local TOKEN_FORM = 31  -- of ConnType
local REQUEST, RESPONSE, DISCONNECT, KEEPALIVE, DATA_START, DATA = 1, 2, 3, 4, 5, 6

local TYPES = {
    [REQUEST] = "connect request",
    [RESPONSE] = "connect response",
    [DISCONNECT] = "disconnect",
    [KEEPALIVE] = "keep-alive",
    [DATA_START] = "data, numbered anew",
    [DATA] = "data",
}

local talvo = Proto("talvo", "Talvo connection protocol")

local f = {
    type = ProtoField.uint8("talvo.type", "Type", base.DEC, TYPES),
    ack = ProtoField.uint32("talvo.ack", "ACK"),
    contag = ProtoField.uint16("talvo.contag", "ConTag"),
    conntype = ProtoField.uint8("talvo.conntype", "ConnType"),
    token = ProtoField.bytes("talvo.token", "Token"),
    attempt = ProtoField.uint32("talvo.attempt", "Attempt"),
    reason = ProtoField.uint16("talvo.reason", "Reason"),
    length = ProtoField.uint32("talvo.length", "Payload length"),
    payload = ProtoField.bytes("talvo.payload", "Payload"),
    rest = ProtoField.bytes("talvo.rest", "Ignored bytes"),
}
talvo.fields = f

local e = {
    broken = ProtoExpert.new("talvo.broken", "Ends the connection", expert.group.PROTOCOL, expert.severity.ERROR),
    rest = ProtoExpert.new("talvo.datagram_rest", "Dropped: a datagram holds one whole PDU and nothing else",
                           expert.group.PROTOCOL, expert.severity.WARN),
}
talvo.experts = e

talvo.prefs.form = Pref.enum("Form of the data", FORM_PACKAGE, "The connection type in use", {
    { 1, "package", FORM_PACKAGE },
    { 2, "nopartial", FORM_NOPARTIAL },
    { 3, "length", FORM_LENGTH },
    { 4, "reliable", FORM_RELIABLE },
}, false)
talvo.prefs.ports = Pref.range("Ports", "", "TCP and UDP ports of the protocol", 65535)

-- Data PDUs have an ACK.
local function has_ack()
    return talvo.prefs.form == FORM_NOPARTIAL or talvo.prefs.form == FORM_RELIABLE
end

-- The length of the PDU at offset, or the number of bytes needed to compute it. nil: there is no valid PDU. The second result
-- is true if the first is the length of the whole PDU.
local function pdu_length(tvb, offset)
    local left = tvb:len() - offset
    if talvo.prefs.form == FORM_LENGTH then
        if left < 4 then return 4, false end
        local payload = tvb(offset, 4):uint()
        if payload == 0 then return nil end
        return 4 + payload, true
    end
    local kind = tvb(offset, 1):uint()
    if (kind == REQUEST or kind == RESPONSE) and talvo.prefs.form == FORM_RELIABLE then
        if left < 8 then return 8, false end
        return tvb(offset + 7, 1):uint() == TOKEN_FORM and 28 or 8, true
    end
    if kind == REQUEST or kind == RESPONSE then return 8, true end
    if kind == DISCONNECT then return 3, true end
    if kind == KEEPALIVE then return 5, true end
    if kind ~= DATA and kind ~= DATA_START then return nil end
    local fixed = has_ack() and 9 or 5
    if left < fixed then return fixed, false end
    return fixed + tvb(offset + fixed - 4, 4):uint(), true
end

local function add_payload(pdu, tree, offset)
    tree:add(f.length, pdu(offset, 4))
    if pdu:len() > offset + 4 then tree:add(f.payload, pdu(offset + 4)) end
    return pdu(offset, 4):uint() .. " bytes"
end

-- Adds one whole PDU to the tree. Returns its summary of one line.
local function add_pdu(pdu, root)
    local tree = root:add(talvo, pdu())
    if talvo.prefs.form == FORM_LENGTH then
        local text = add_payload(pdu, tree, 0)
        tree:append_text(", " .. text)
        return text
    end
    local kind = pdu(0, 1):uint()
    local text = TYPES[kind]
    tree:add(f.type, pdu(0, 1))
    if kind == DISCONNECT then
        tree:add(f.reason, pdu(1, 2))
        text = text .. " " .. pdu(1, 2):uint()
    elseif kind < DATA_START or has_ack() then
        tree:add(f.ack, pdu(1, 4))
    end
    if kind == REQUEST or kind == RESPONSE then
        tree:add(f.contag, pdu(5, 2))
        tree:add(f.conntype, pdu(7, 1))
        text = text .. ", channel " .. pdu(5, 2):uint()
        if pdu:len() > 8 then
            tree:add(f.token, pdu(8, 16))
            tree:add(f.attempt, pdu(24, 4))
            text = text .. ", attempt " .. pdu(24, 4):uint()
        end
    elseif kind >= DATA_START then
        text = text .. ", " .. add_payload(pdu, tree, has_ack() and 5 or 1)
    end
    tree:append_text(", " .. text)
    return text
end

local function add_rest(rest, root, why)
    local tree = root:add(talvo, rest())
    tree:add(f.rest, rest())
    tree:add_proto_expert_info(why)
end

-- The PDUs of a stream may begin and end anywhere in its segments; a datagram holds one.
function talvo.dissector(tvb, pinfo, root)
    local datagram = pinfo.port_type == 3
    pinfo.cols.protocol = "TALVO"
    local offset, said = 0, {}
    while offset < tvb:len() do
        local length, whole = pdu_length(tvb, offset)
        if not length then
            add_rest(tvb(offset):tvb(), root, e.broken)
            break
        end
        if tvb:len() - offset < length then
            if datagram then
                add_rest(tvb(offset):tvb(), root, e.rest)
                break
            end
            pinfo.desegment_offset = offset
            pinfo.desegment_len = whole and length - (tvb:len() - offset) or DESEGMENT_ONE_MORE_SEGMENT
            break
        end
        said[#said + 1] = add_pdu(tvb(offset, length):tvb(), root)
        offset = offset + length
        if datagram and offset < tvb:len() then
            add_rest(tvb(offset):tvb(), root, e.rest)
            break
        end
    end
    if #said > 0 then pinfo.cols.info = table.concat(said, "; ") end
    return tvb:len()
end

local registered = ""

function talvo.prefs_changed()
    for _, name in ipairs({ "tcp.port", "udp.port" }) do
        local table = DissectorTable.get(name)
        if registered ~= "" then table:remove(registered, talvo) end
        if talvo.prefs.ports ~= "" then table:add(talvo.prefs.ports, talvo) end
    end
    registered = talvo.prefs.ports
end

for _, name in ipairs({ "tcp.port", "udp.port" }) do
    DissectorTable.get(name):add_for_decode_as(talvo)
end
