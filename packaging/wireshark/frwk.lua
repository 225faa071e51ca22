-- SPDX-FileCopyrightText: 2026 the libfrwk authors
-- SPDX-License-Identifier: MIT

-- Dissects what `monitor_tool capture` writes: the requests between the modules of a device, and the responses.
--
-- Wireshark loads it from its directory of plug-ins (Help, About, Folders), or by: wireshark -X lua_script:frwk.lua
-- docs/operators.md describes the packets. Captures have the link type USER0, which others may use as well: a packet that
-- is none of these is left alone.

local frwk = Proto("frwk", "Messages between modules (libfrwk)")

local KINDS = { [1] = "Request", [2] = "Response", [3] = "End without a response" }
local FAULTS = { [0] = "none", [1] = "request cut short", [2] = "no answer", [3] = "given up", [4] = "module is gone" }
local RESULTS = {
    [0] = "SUCCESS", [1] = "NO_MODULE", [2] = "FAILED", [3] = "INVALID_PARAM", [4] = "CONFIG_FILE", [5] = "NO_MEMORY",
    [7] = "NOT_FOUND", [8] = "UNSUPPORTED", [11] = "SOCKET", [12] = "FILE_CREATE", [13] = "NO_HANDLER", [14] = "THREAD",
    [15] = "ASYNC", [18] = "SEND", [19] = "RECV",
}
local HEAD_FIXED, REQUEST_HEADER, RESPONSE_HEADER = 26, 24, 8

local f = {
    version = ProtoField.uint8("frwk.version", "Version of the packet"),
    kind = ProtoField.uint8("frwk.kind", "Kind", base.DEC, KINDS),
    fault = ProtoField.uint8("frwk.fault", "Fault", base.DEC, FAULTS),
    order = ProtoField.uint8("frwk.byte_order", "Byte order of the frame", base.DEC, { [0] = "little", [1] = "big" }),
    connection = ProtoField.uint64("frwk.connection", "Connection"),
    sender_id = ProtoField.uint32("frwk.sender_id", "Sender's id"),
    receiver_id = ProtoField.uint32("frwk.receiver_id", "Receiver's id"),
    message = ProtoField.uint32("frwk.message", "Message"),
    sender = ProtoField.string("frwk.sender", "Sender"),
    receiver = ProtoField.string("frwk.receiver", "Receiver"),
    message_name = ProtoField.string("frwk.message_name", "Message's name"),
    from = ProtoField.uint32("frwk.request.from", "From"),
    msg = ProtoField.uint32("frwk.request.msg", "Message"),
    async = ProtoField.uint32("frwk.request.async", "Asynchronous"),
    timeout = ProtoField.uint32("frwk.request.timeout", "Wait for the handler, seconds"),
    rsp_size = ProtoField.int32("frwk.request.rsp_size", "Room for the answer"),
    req_len = ProtoField.int32("frwk.request.msg_len", "Body's length"),
    body = ProtoField.bytes("frwk.request.body", "Body"),
    result = ProtoField.int32("frwk.response.rc", "Result", base.DEC, RESULTS),
    rsp_len = ProtoField.int32("frwk.response.msg_len", "Data's length"),
    data = ProtoField.bytes("frwk.response.data", "Data"),
    failed = ProtoField.bool("frwk.failed", "Failed"),
    request_in = ProtoField.framenum("frwk.request_in", "Request in", base.NONE, frametype.REQUEST),
    response_in = ProtoField.framenum("frwk.response_in", "Response in", base.NONE, frametype.RESPONSE),
    time = ProtoField.relative_time("frwk.time", "Response time"),
}
frwk.fields = f

local fault_seen = ProtoExpert.new("frwk.expert.fault", "The request got no answer", expert.group.RESPONSE_CODE,
    expert.severity.ERROR)
local result_seen = ProtoExpert.new("frwk.expert.result", "The result is not 0", expert.group.RESPONSE_CODE,
    expert.severity.WARN)
local cut_short = ProtoExpert.new("frwk.expert.cut", "The frame is not whole", expert.group.MALFORMED,
    expert.severity.WARN)
frwk.experts = { fault_seen, result_seen, cut_short }

-- By connection: the numbers of the packets, when the request passed, and whether it was asynchronous.
local exchanges = {}

function frwk.init()
    exchanges = {}
end

-- A text behind its length; the text, and where the next begins.
local function text_at(tvb, at, limit)
    if at >= limit then
        return nil
    end
    local len = tvb(at, 1):uint()
    if at + 1 + len > limit then
        return nil
    end
    return tvb(at + 1, len), at + 1 + len
end

local function read_head(tvb)
    if tvb:len() < HEAD_FIXED or tvb(0, 1):uint() ~= 1 or KINDS[tvb(1, 1):uint()] == nil then
        return nil
    end
    local head = { kind = tvb(1, 1):uint(), fault = tvb(2, 1):uint(), len = tvb(24, 2):uint() }
    if head.len > tvb:len() then
        return nil
    end
    local at = HEAD_FIXED
    for _, name in ipairs({ "sender", "receiver", "message_name" }) do
        local range
        range, at = text_at(tvb, at, head.len)
        if range == nil then
            return nil
        end
        head[name] = range
    end
    return head
end

local function name_or_id(range, id)
    return range:len() > 0 and range:string() or (id > 0 and "module " .. id or "?")
end

local function message_text(head, number)
    return head.message_name:len() > 0 and string.format("%s (%d)", head.message_name:string(), number) or
        string.format("message %d", number)
end

local function show_head(tvb, tree, head)
    tree:add(f.version, tvb(0, 1))
    tree:add(f.kind, tvb(1, 1))
    tree:add(f.fault, tvb(2, 1))
    tree:add(f.order, tvb(3, 1))
    tree:add(f.connection, tvb(4, 8))
    tree:add(f.sender_id, tvb(12, 4))
    tree:add(f.receiver_id, tvb(16, 4))
    tree:add(f.message, tvb(20, 4))
    for _, name in ipairs({ "sender", "receiver", "message_name" }) do
        if head[name]:len() > 0 then
            tree:add(f[name], head[name])
        end
    end
end

-- Adds a word of the frame in its own byte order; its value.
local function add_word(tree, field, range, little, signed)
    if little then
        tree:add_le(field, range)
        return signed and range:le_int() or range:le_uint()
    end
    tree:add(field, range)
    return signed and range:int() or range:uint()
end

local function show_request(frame, tree, little)
    if frame == nil or frame:len() < REQUEST_HEADER then
        tree:add_proto_expert_info(cut_short)
        return { async = false, len = 0 }
    end
    local part = tree:add(frame(0), "Request")
    add_word(part, f.from, frame(0, 4), little)
    add_word(part, f.msg, frame(4, 4), little)
    local async = add_word(part, f.async, frame(8, 4), little) ~= 0
    add_word(part, f.timeout, frame(12, 4), little)
    add_word(part, f.rsp_size, frame(16, 4), little, true)
    local len = add_word(part, f.req_len, frame(20, 4), little, true)
    if frame:len() > REQUEST_HEADER then
        part:add(f.body, frame(REQUEST_HEADER))
    end
    if frame:len() - REQUEST_HEADER < len then
        part:add_proto_expert_info(cut_short)
    end
    return { async = async, len = len }
end

local function show_response(frame, tree, little)
    if frame == nil or frame:len() < RESPONSE_HEADER then
        tree:add_proto_expert_info(cut_short)
        return { rc = 0, len = 0 }
    end
    local part = tree:add(frame(0), "Response")
    local rc = add_word(part, f.result, frame(0, 4), little, true)
    local len = add_word(part, f.rsp_len, frame(4, 4), little, true)
    if frame:len() > RESPONSE_HEADER then
        part:add(f.data, frame(RESPONSE_HEADER))
    end
    if frame:len() - RESPONSE_HEADER < len then
        part:add_proto_expert_info(cut_short)
    end
    return { rc = rc, len = len }
end

local function show_link(tree, field, number)
    if number ~= nil then
        tree:add(field, number):set_generated()
    end
end

local function show_duration(tree, exchange, pinfo)
    if exchange.when == nil then
        return ""
    end
    local seconds = pinfo.abs_ts - exchange.when
    local whole = math.floor(seconds)
    tree:add(f.time, NSTime.new(whole, math.floor((seconds - whole) * 1e9 + 0.5))):set_generated()
    return string.format(", %.3f ms", seconds * 1000)
end

function frwk.dissector(tvb, pinfo, root)
    local head = read_head(tvb)
    if head == nil then
        return 0
    end
    local little = tvb(3, 1):uint() == 0
    local frame = tvb:len() > head.len and tvb(head.len):tvb() or nil
    local key = tostring(tvb(4, 8):uint64())
    local text = message_text(head, tvb(20, 4):uint())
    local tree = root:add(frwk, tvb(), "Message between modules")
    show_head(tvb, tree, head)
    pinfo.cols.protocol = "FRWK"
    pinfo.cols.src = name_or_id(head.sender, tvb(12, 4):uint())
    pinfo.cols.dst = name_or_id(head.receiver, tvb(16, 4):uint())

    local exchange = exchanges[key]
    if exchange == nil then
        exchange = {}
        exchanges[key] = exchange
    end
    local info
    if head.kind == 1 then
        local request = show_request(frame, tree, little)
        exchange.request, exchange.when, exchange.async = pinfo.number, pinfo.abs_ts, request.async
        show_link(tree, f.response_in, exchange.response)
        info = string.format("%s, %s, %d bytes", text, request.async and "asynchronous" or "synchronous",
            math.max(request.len, 0))
    elseif head.kind == 2 then
        local response = show_response(frame, tree, little)
        local failed = response.rc ~= 0 and not exchange.async
        exchange.response = pinfo.number
        show_link(tree, f.request_in, exchange.request)
        tree:add(f.failed, failed):set_generated()
        if failed then
            tree:add_proto_expert_info(result_seen)
        end
        local result = exchange.async and "taken" or RESULTS[response.rc] or "result " .. response.rc
        info = string.format("%s, %s, %d bytes%s", text, result, math.max(response.len, 0),
            show_duration(tree, exchange, pinfo))
    else
        exchange.response = pinfo.number
        show_link(tree, f.request_in, exchange.request)
        tree:add(f.failed, true):set_generated()
        tree:add_proto_expert_info(fault_seen)
        info = string.format("%s, %s%s", text, FAULTS[head.fault] or "no answer", show_duration(tree, exchange, pinfo))
    end
    pinfo.cols.info = info
    return tvb:len()
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, frwk)
