-- Wireshark dissector for nkProtocol: frames in TCP streams (the device port 5000 and any
-- stream that starts like a frame) and in the MQTT payloads of the fleet topics
-- nk/<fleet>/<address>/up and /down; the base128 body, its CRC-8, the telegram header,
-- multi-part reassembly, both compression forms and every message body.
--
-- Wireshark loads every .lua file of its plugin folder on its own; this is the only one that
-- registers anything. It finds its two helpers beside itself.

local script_dir = debug.getinfo(1, "S").source:match("^@(.*[/\\])") or "./"
local codecs = dofile(script_dir .. "nk_codecs.lua")
local messages = dofile(script_dir .. "nk_messages.lua")

local nk = Proto("nk", "nkProtocol")

local type_vals = { [0] = "request, wants a response", [1] = "request without response",
                    [2] = "request, wants a response", [3] = "response" }
local part_vals = { [0] = "none", [1] = "not the last part", [2] = "last part", [3] = "both marks" }
local comp_vals = { [0] = "none", [1] = "RLE", [2] = "Huffman", [3] = "unknown" }
local address_names = { [0xFFFFFFFE] = " (broadcast)", [0xFFFFFFFF] = " (no address)" }

local F = {
    encoded = ProtoField.bytes("nk.encoded", "Encoded body (base128)"),
    body_len = ProtoField.uint32("nk.body_len", "Decoded body length"),
    src = ProtoField.uint32("nk.src", "Source address"),
    dst = ProtoField.uint32("nk.dst", "Destination address"),
    broadcast = ProtoField.bool("nk.broadcast", "Broadcast"),
    tlg_id = ProtoField.uint32("nk.tlg.id", "Telegram id"),
    part = ProtoField.uint32("nk.part", "Part id"),
    timestamp = ProtoField.uint32("nk.timestamp", "Time stamp"),
    flags = ProtoField.uint8("nk.flags", "Flags", base.HEX),
    kind = ProtoField.uint8("nk.flags.type", "Telegram type", base.DEC, type_vals, 0x03),
    part_info = ProtoField.uint8("nk.flags.part", "Part info", base.DEC, part_vals, 0x0C),
    compression = ProtoField.uint8("nk.flags.compression", "Compression", base.DEC, comp_vals, 0x30),
    payload_len = ProtoField.uint32("nk.payload_len", "Payload length"),
    payload = ProtoField.bytes("nk.payload", "Payload"),
    crc = ProtoField.uint8("nk.crc", "CRC-8", base.HEX),
    crc_expected = ProtoField.uint8("nk.crc.expected", "CRC-8 expected", base.HEX),
    crc_good = ProtoField.bool("nk.crc.good", "CRC-8 good"),
    parts = ProtoField.uint32("nk.tlg.parts", "Parts reassembled"),
    tlg_len = ProtoField.uint32("nk.tlg.length", "Telegram content length"),
    reassembled_in = ProtoField.framenum("nk.tlg.reassembled_in", "Reassembled in"),
    part_frames = ProtoField.framenum("nk.tlg.part_in", "Part in"),
    decoded_len = ProtoField.uint32("nk.comp.length", "Decompressed length"),
    message = ProtoField.none("nk.msg", "Message"),
    type = ProtoField.string("nk.type", "Message type"),
    type_id = ProtoField.uint16("nk.type_id", "Message type number"),
    version = ProtoField.uint16("nk.version", "Layout version"),
    outside = ProtoField.bytes("nk.outside", "Bytes outside frames"),
    topic = ProtoField.string("nk.mqtt_topic", "MQTT topic"),
}

local E = {
    crc = ProtoExpert.new("nk.crc.bad", "CRC-8 mismatch: the receiver drops this frame",
                          expert.group.CHECKSUM, expert.severity.ERROR),
    empty = ProtoExpert.new("nk.frame.empty", "Empty frame: dropped by the receiver",
                            expert.group.MALFORMED, expert.severity.WARN),
    short = ProtoExpert.new("nk.frame.short", "Body too short for the header or payload: dropped",
                            expert.group.MALFORMED, expert.severity.ERROR),
    stray = ProtoExpert.new("nk.stray_end", "End byte 02 before a start byte: a receiver reads nothing more from this stream",
                            expert.group.PROTOCOL, expert.severity.WARN),
    incomplete = ProtoExpert.new("nk.frame.incomplete", "Frame without its end byte",
                                 expert.group.MALFORMED, expert.severity.WARN),
    comp = ProtoExpert.new("nk.comp.bad", "Compressed content refused",
                           expert.group.MALFORMED, expert.severity.ERROR),
    body = ProtoExpert.new("nk.msg.short", "Message body ends inside a field: the reader stops there",
                           expert.group.MALFORMED, expert.severity.NOTE),
    extra = ProtoExpert.new("nk.msg.extra", "Bytes beyond the known layout (a newer revision?)",
                            expert.group.UNDECODED, expert.severity.NOTE),
    unhandled = ProtoExpert.new("nk.msg.unhandled", "Message type without a message class",
                                expert.group.UNDECODED, expert.severity.NOTE),
    order = ProtoExpert.new("nk.tlg.dropped", "Parts out of order: the receiver drops this telegram",
                            expert.group.SEQUENCE, expert.severity.WARN),
}

local field_list = {}
for _, field in pairs(F) do field_list[#field_list + 1] = field end
messages.create_fields(field_list)
nk.fields = field_list
nk.experts = { E.crc, E.empty, E.short, E.stray, E.incomplete, E.comp, E.body, E.extra, E.unhandled, E.order }

nk.prefs.port = Pref.uint("TCP port", 5000, "TCP port of the device (stream dissected without the heuristic)")

-- Reassembly state, filled on the first pass only (pinfo.visited false) and read back on
-- every later pass, so a re-dissection shows the same result.
local open_telegrams = {}   -- stream key .. telegram key -> { parts = {id -> payload}, frames = {id -> number}, ... }
local part_results = {}     -- packet number .. telegram key .. part -> result record

function nk.init()
    open_telegrams = {}
    part_results = {}
end

local function unix_text(seconds)
    return os.date("! (%Y-%m-%d %H:%M:%S UTC)", seconds)
end

local function dissect_message(content_tvb, pinfo, tree, info)
    local size = content_tvb:len()
    local msg_tree = tree:add(F.message, content_tvb(0, size))
    if size < 4 then
        msg_tree:add_proto_expert_info(E.body, "Fewer than 4 bytes: no message")
        return
    end
    local msg_type = content_tvb(0, 2):le_uint()
    local version = content_tvb(2, 2):le_uint()
    local name = messages.type_names[msg_type] or ("unknown " .. msg_type)
    msg_tree:set_text("Message " .. name .. ", version " .. version)
    msg_tree:add(F.type, content_tvb(0, 2), name)
    msg_tree:add_le(F.type_id, content_tvb(0, 2))
    msg_tree:add_le(F.version, content_tvb(2, 2))
    info[#info + 1] = name
    if not messages.layouts[msg_type] then
        msg_tree:add_proto_expert_info(E.unhandled)
        return
    end
    local after, cut = messages.dissect_body(msg_type, version, content_tvb, 4, msg_tree)
    if cut then
        msg_tree:add_proto_expert_info(E.body)
    elseif after < size then
        msg_tree:add_proto_expert_info(E.extra, (size - after) .. " bytes beyond the known layout")
    end
end

local function decompress(content, compression)
    if compression == 1 then return codecs.rle_decode(content) end
    if compression == 2 then return codecs.huffman_decode(content) end
    return nil, "unknown compression"
end

-- The telegram behind one valid frame: the payload alone when it is part 1 flagged last,
-- otherwise the joined parts once the last one arrived in order.
local function telegram_content(pinfo, stream_key, h, payload_tvb, tree)
    local tkey = h.tlg_id .. "/" .. h.src .. "/" .. h.dst
    local rkey = pinfo.number .. "/" .. tkey .. "/" .. h.part
    local last = h.part_info == 2
    if h.part == 1 and last then return payload_tvb, 1 end

    if not pinfo.visited then
        local key = stream_key .. "/" .. tkey
        local ctx = open_telegrams[key]
        local result = { state = "open" }
        if not ctx then
            ctx = { parts = {}, frames = {}, arrival = 0 }
            open_telegrams[key] = ctx
        end
        if not ctx.parts[h.part] then
            ctx.parts[h.part] = payload_tvb:raw()
            ctx.frames[h.part] = pinfo.number
            ctx.arrival = ctx.arrival + 1
        end
        result.ctx = ctx
        -- Like the receiver: the part that opens a context is never checked, so a telegram
        -- whose last part comes first never completes; a later last part decides.
        if last and ctx.arrival > 1 then
            local n = 0
            for id in pairs(ctx.parts) do n = math.max(n, id) end
            local complete = true
            for id = 1, n do if not ctx.parts[id] then complete = false end end
            local count = 0
            for _ in pairs(ctx.parts) do count = count + 1 end
            if complete and count == n then
                local joined = {}
                for id = 1, n do joined[id] = ctx.parts[id] end
                result.state = "done"
                result.data = table.concat(joined)
                result.count = n
                ctx.done_in = pinfo.number
            else
                result.state = "dropped"
            end
            open_telegrams[key] = nil
        end
        part_results[rkey] = result
    end

    local result = part_results[rkey]
    if not result then return nil end
    if result.ctx and result.ctx.frames then
        for id, number in pairs(result.ctx.frames) do
            if number ~= pinfo.number then tree:add(F.part_frames, number):set_generated() end
        end
        if result.state == "open" and result.ctx.done_in then
            tree:add(F.reassembled_in, result.ctx.done_in):set_generated()
        end
    end
    if result.state == "dropped" then
        tree:add_proto_expert_info(E.order)
        return nil
    end
    if result.state ~= "done" then return nil end
    local joined_tvb = ByteArray.new(result.data, true):tvb("Reassembled telegram")
    return joined_tvb, result.count
end

-- One frame: range covers 01 .. 02. Returns nothing; adds to the tree and to info.
local function dissect_frame(frame_range, pinfo, tree, stream_key, info)
    local frame_tree = tree:add(nk, frame_range)
    local len = frame_range:len()
    if len <= 2 then
        frame_tree:set_text("nkProtocol empty frame")
        frame_tree:add_proto_expert_info(E.empty)
        info[#info + 1] = "empty frame"
        return
    end
    local encoded = frame_range(1, len - 2)
    frame_tree:add(F.encoded, encoded)
    local body = codecs.base128_decode(encoded:raw())
    local body_tvb = ByteArray.new(body, true):tvb("Decoded frame body")
    local size = #body
    frame_tree:add(F.body_len, encoded, size):set_generated()
    if size < 26 then
        frame_tree:set_text("nkProtocol frame, short body (" .. size .. " bytes)")
        frame_tree:add_proto_expert_info(E.short)
        info[#info + 1] = "short frame"
        return
    end
    local h = {
        src = body_tvb(0, 4):le_uint(), dst = body_tvb(4, 4):le_uint(),
        tlg_id = body_tvb(8, 4):le_uint(), part = body_tvb(12, 4):le_uint(),
        flags = body_tvb(20, 1):uint(),
    }
    h.part_info = math.floor(h.flags / 4) % 4
    h.compression = math.floor(h.flags / 16) % 4
    frame_tree:add_le(F.src, body_tvb(0, 4)):append_text(address_names[h.src] or "")
    frame_tree:add_le(F.dst, body_tvb(4, 4)):append_text(address_names[h.dst] or "")
    frame_tree:add(F.broadcast, body_tvb(4, 4), h.dst == 0xFFFFFFFE):set_generated()
    frame_tree:add_le(F.tlg_id, body_tvb(8, 4))
    frame_tree:add_le(F.part, body_tvb(12, 4))
    frame_tree:add_le(F.timestamp, body_tvb(16, 4)):append_text(unix_text(body_tvb(16, 4):le_uint()))
    local flags_tree = frame_tree:add(F.flags, body_tvb(20, 1))
    flags_tree:add(F.kind, body_tvb(20, 1))
    flags_tree:add(F.part_info, body_tvb(20, 1))
    flags_tree:add(F.compression, body_tvb(20, 1))
    frame_tree:add_le(F.payload_len, body_tvb(21, 4))
    local n = body_tvb(21, 4):le_uint()
    frame_tree:set_text(string.format("nkProtocol frame, %d -> %d, telegram %d, part %d%s",
        h.src, h.dst, h.tlg_id, h.part, h.part_info == 2 and " (last)" or ""))
    if 26 + n > size then
        frame_tree:add_proto_expert_info(E.short, "Payload length " .. n .. " runs past the body")
        info[#info + 1] = "short frame"
        return
    end
    local payload_tvb = n > 0 and body_tvb(25, n) or nil
    if payload_tvb then frame_tree:add(F.payload, payload_tvb) end
    local crc_range = body_tvb(25 + n, 1)
    local crc_item = frame_tree:add(F.crc, crc_range)
    local good = codecs.crc8(body) == 0
    frame_tree:add(F.crc_expected, crc_range, codecs.crc8(body, 1, 25 + n)):set_generated()
    frame_tree:add(F.crc_good, crc_range, good):set_generated()
    if not good then
        crc_item:add_proto_expert_info(E.crc)
        info[#info + 1] = "bad CRC"
        return
    end
    if not payload_tvb then return end

    local content_tvb, count = telegram_content(pinfo, stream_key, h, payload_tvb:tvb(), frame_tree)
    if not content_tvb then
        info[#info + 1] = string.format("part %d of telegram %d", h.part, h.tlg_id)
        return
    end
    if count > 1 then
        frame_tree:add(F.parts, count):set_generated()
    end
    frame_tree:add(F.tlg_len, content_tvb(), content_tvb:len()):set_generated()
    if h.compression ~= 0 then
        frame_tree:add_le(F.decoded_len, content_tvb(0, math.min(4, content_tvb:len())))
        local plain, reason = decompress(content_tvb:raw(), h.compression)
        if not plain then
            frame_tree:add_proto_expert_info(E.comp, "Compressed content refused: " .. reason)
            info[#info + 1] = "bad compression"
            return
        end
        content_tvb = ByteArray.new(plain, true):tvb("Decompressed telegram")
    end
    local before = #info
    dissect_message(content_tvb, pinfo, frame_tree, info)
    if #info > before then
        info[#info] = info[#info] .. " tlg " .. h.tlg_id
    end
end

local function outside(tree, range)
    return tree:add(nk, range, "nkProtocol, bytes outside frames"):add(F.outside, range)
end

-- Every frame in a byte stream. With can_wait, an unfinished frame asks TCP for more bytes;
-- returns the number of bytes used (or nothing while waiting).
local function dissect_stream(tvb, pinfo, tree, stream_key, can_wait)
    local s = tvb:raw()
    local pos, info = 1, {}
    while pos <= #s do
        local start = s:find("\1", pos, true)
        local stray = s:find("\2", pos, true)
        if not start then
            local item = outside(tree, tvb(pos - 1, #s - pos + 1))
            if stray then item:add_proto_expert_info(E.stray) end
            pos = #s + 1
            break
        end
        if start > pos then
            local item = outside(tree, tvb(pos - 1, start - pos))
            if stray and stray < start then item:add_proto_expert_info(E.stray) end
        end
        local stop = s:find("\2", start + 1, true)
        if not stop then
            if can_wait then
                pinfo.desegment_offset = start - 1
                pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT
                break
            end
            local item = tree:add(nk, tvb(start - 1, #s - start + 1), "nkProtocol frame without its end byte")
            item:add_proto_expert_info(E.incomplete)
            pos = #s + 1
            break
        end
        dissect_frame(tvb(start - 1, stop - start + 1), pinfo, tree, stream_key, info)
        pos = stop + 1
    end
    if #info > 0 then
        pinfo.cols.protocol = "NK"
        pinfo.cols.info:set(table.concat(info, ", "))
    end
    return #s
end

local function tcp_stream_key(pinfo)
    local a = tostring(pinfo.src) .. ":" .. pinfo.src_port
    local b = tostring(pinfo.dst) .. ":" .. pinfo.dst_port
    if a > b then a, b = b, a end
    return "tcp " .. a .. " " .. b
end

function nk.dissector(tvb, pinfo, tree)
    pinfo.cols.protocol = "NK"
    return dissect_stream(tvb, pinfo, tree, tcp_stream_key(pinfo), true)
end

-- A stream is taken when a segment starts with 01 followed by base128 bytes.
local function heuristic(tvb, pinfo, tree)
    local len = tvb:len()
    if len < 3 or tvb(0, 1):uint() ~= 1 then return false end
    local probe = tvb(1, math.min(len - 1, 16)):raw()
    for i = 1, #probe do
        local b = probe:byte(i)
        if b < 0x80 and not (b == 2 and i > 1) then return false end
    end
    pinfo.conversation = nk
    nk.dissector(tvb, pinfo, tree)
    return true
end

local tcp_port_table = DissectorTable.get("tcp.port")
local registered_port = nk.prefs.port
tcp_port_table:add(registered_port, nk)

function nk.prefs_changed()
    if nk.prefs.port ~= registered_port then
        tcp_port_table:remove(registered_port, nk)
        registered_port = nk.prefs.port
        tcp_port_table:add(registered_port, nk)
    end
end

nk:register_heuristic("tcp", heuristic)

-- MQTT: Wireshark 4.0's MQTT dissector has no dissector table by topic; it hands a payload
-- on only through its "Message Decoding" table, which each user would have to fill in. So a
-- small post-dissector pairs each published message with its topic and dissects the
-- payloads of nk/<fleet>/<address>/up and /down (any prefix) as a byte stream of frames.
local nk_mqtt = Proto("nk_mqtt", "nkProtocol in MQTT")
local mqtt_msg = Field.new("mqtt.msg")

local function fleet_topic(topic)
    -- <prefix>/<fleet>/<address>/up|down; the prefix is configurable and may hold slashes
    return topic and (topic:match("^.+/[^/]+/%d+/up$") or topic:match("^.+/[^/]+/%d+/down$"))
end

function nk_mqtt.dissector(tvb, pinfo, tree)
    if not mqtt_msg() then return end
    local topic
    for _, fi in ipairs({ all_field_infos() }) do
        if fi.name == "mqtt.topic" then
            topic = tostring(fi.value)
        elseif fi.name == "mqtt.msg" and fleet_topic(topic) and fi.len > 0 then
            local payload = fi.range:tvb()
            local sub = tree:add(nk, fi.range, "nkProtocol in MQTT, topic " .. topic)
            sub:add(F.topic, fi.range, topic):set_generated()
            dissect_stream(payload, pinfo, sub, "mqtt " .. tcp_stream_key(pinfo) .. " " .. topic, false)
            topic = nil
        end
    end
end

register_postdissector(nk_mqtt, true)
