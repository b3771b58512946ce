-- nkProtocol messages: the header names and every body layout per revision, as data, and
-- the walk that adds a body's fields to the tree. Loading this file alone registers nothing:
-- the fields are created when nk.lua calls create_fields.

local M = {}

M.type_names = {
    [1] = "STATE_REQ", [2] = "STATE_RSP", [3] = "EVENTS_REQ", [4] = "EVENTS_RSP",
    [5] = "SET_CONFIG_REQ", [6] = "SET_CONFIG_RSP",
    [7] = "GET_DISPLAY_CONFIGURATION_REQ", [8] = "GET_DISPLAY_CONFIGURATION_RSP",
    [9] = "SET_SCHEDULES_REQ", [10] = "SET_SCHEDULES_RSP", [11] = "TIME", [12] = "SHUTDOWN",
    [13] = "IMAGE", [14] = "STATISTICS_REQ", [15] = "STATISTICS_RSP",
    [16] = "TAVO_AUTHORIZE_REQ", [17] = "TAVO_AUTHORIZE_RSP",
    [18] = "TAVO_DEVICE_LIST_REQ", [19] = "TAVO_DEVICE_LIST_RSP",
    [20] = "TAVO_CONFIG_LIST_REQ", [21] = "TAVO_CONFIG_LIST_RSP",
    [22] = "TAVO_REMOVE_REQ", [23] = "TAVO_REMOVE_RSP", [24] = "TAVO_ADD_REQ", [25] = "TAVO_ADD_RSP",
    [26] = "TAVO_ASSIGNMENT_REQ", [27] = "TAVO_ASSIGNMENT_RSP",
    [28] = "GENERIC_REQ", [29] = "GENERIC_RSP",
}

-- A layout is a list of items: { encoding, key, label, options }.
-- Encodings: u8 i8 u16 i16 u32 u64 i64 (the u64 of a signed value) str blob;
-- "count" reads a number into a variable for a later "items"; "list" is a count followed
-- by its items; "items" repeats its layout as often as a variable says.
-- Options: min / max (versions that carry the item), vals, unix (Unix seconds),
-- bits ({ key, label, mask, vals }) for sub-fields of a number.
local function f(enc, key, label, opts)
    local item = opts or {}
    item.enc, item.key, item.label = enc, key, label
    return item
end

local yes_no = { [0] = "no", [1] = "yes" }

local id_word_bits = {
    { "id", "Id", 0x7FFF },
    { "current", "Current", 0x8000, yes_no },
}

M.layouts = {
    [1] = { prefix = "state_req",
        f("u8", "task", "Task", { vals = { [0] = "none", [1] = "set a new device name" } }),
        f("str", "name", "New name"),
    },
    [2] = { prefix = "state_rsp",
        f("u32", "serial", "Serial"),
        f("str", "ci", "ci"),
        f("str", "csCfg", "Configuration checksum"),
        f("str", "csSched", "Schedules checksum"),
        f("str", "vc", "vc"),
        f("str", "va", "va"),
        f("u32", "omc", "omc"),
        f("u32", "secondCounter", "Second counter"),
        f("u32", "evc", "evc"),
        f("str", "legacy", "Legacy text", { max = 0 }),
        f("str", "devName", "Device name"),
        f("str", "devCus", "devCus"),
        f("u32", "flags", "Flags", { bits = {
            { "configHeld", "Configuration held", 0x1, yes_no },
            { "schedulesHeld", "Schedules held", 0x2, yes_no },
            { "imagesHeld", "Images held", 0x4, yes_no },
        } }),
        f("list", "images", "Images", { count = "u32", min = 1,
            f("u64", "uid", "Image id"),
        }),
        f("u64", "extState", "Extended state", { min = 2, ext_state = true }),
    },
    [3] = { prefix = "events_req",
        f("u8", "task", "Task"),
    },
    [4] = { prefix = "events_rsp",
        f("u8", "task", "Task"),
        f("list", "events", "Events", { count = "u32",
            f("u32", "timeFirst", "Time first", { unix = true }),
            f("u32", "timeLast", "Time last", { unix = true }),
            f("u32", "id", "Id"),
            f("u16", "type", "Event type"),
            f("str", "event", "Event text"),
            f("u8", "cat", "Category"),
            f("count", "subEventCount", "Sub-event count", { count = "u32", var = "sub" }),
            f("u32", "occ", "Occurrences"),
            f("str", "refImage", "Ref image"),
            f("items", "subEvents", "Sub-events", { var = "sub",
                f("str", "subEvent", "Sub-event"),
            }),
        }),
    },
    [5] = { prefix = "config_req",
        f("u32", "updateTime", "Update time (seconds from midnight)"),
        f("i8", "minUpdateTemp", "Minimum update temperature"),
        f("u8", "balanceTime", "Balance time"),
        f("i8", "updateTemp", "Update temperature"),
        f("u8", "opMode", "Operating mode", { vals = { [0] = "normal", [1] = "dpi", [2] = "slideshow", [3] = "dynamic" } }),
        f("u8", "heatMode", "Heat mode", { vals = { [0] = "tempering", [1] = "inCaseOfUpdate" } }),
        f("u16", "curDispSwCfg", "Current display configuration"),
        f("u16", "defaultLogicalDisplay", "Default logical display"),
        f("u16", "slideshowInterval_sec", "Slideshow interval (s)"),
        f("u8", "flags", "Flags", { bits = { { "sleepUserEna", "Sleep enabled by the user", 0x01, yes_no } } }),
        f("list", "timeslots", "Time slots", { count = "u32",
            f("str", "name", "Name"),
            f("u32", "start", "Start (seconds from midnight)"),
            f("u32", "stop", "Stop (seconds from midnight)"),
            f("u32", "activity", "Activity"),
        }),
        f("str", "deviceName", "Device name"),
        f("list", "frames", "Frames", { count = "u32", min = 3,
            f("str", "name", "Name"),
            f("u16", "left", "Left"),
            f("u16", "top", "Top"),
            f("u16", "width", "Width"),
            f("u16", "height", "Height"),
            f("u16", "id", "Id"),
            f("u16", "logDisp", "Logical display"),
            f("u16", "realtimeTimeout", "Real-time timeout"),
        }),
    },
    [6] = { prefix = "config_rsp",
        f("str", "cs", "Configuration checksum"),
    },
    [7] = { prefix = "display_req" },
    [8] = { prefix = "display_rsp",
        f("count", "dispConfigCount", "Configuration count", { count = "u16", var = "configs" }),
        f("str", "name", "Display name"),
        f("i8", "rot", "Rotation"),
        f("items", "dispConfigs", "Configurations", { var = "configs",
            f("str", "name", "Name"),
            f("u16", "id", "Id word", { bits = id_word_bits }),
            f("list", "logDisps", "Logical displays", { count = "u16",
                f("str", "name", "Name"),
                f("u16", "id", "Id word", { bits = id_word_bits }),
                f("u16", "w", "Width"),
                f("u16", "h", "Height"),
                f("u16", "l", "Left", { min = 1 }),
                f("u16", "t", "Top", { min = 1 }),
            }),
        }),
    },
    [9] = { prefix = "schedules_req",
        f("list", "schedules", "Schedules", { count = "u32",
            f("u64", "uid", "Id"),
            f("str", "name", "Name"),
            f("i64", "startTime", "Start time"),
            f("i64", "stopTime", "Stop time", { min = 2 }),
            f("u32", "flags", "Flags", { bits = {
                { "loop", "Loop", 0x1, yes_no },
                { "type", "Type", 0xE },
            } }),
            f("u16", "showOnLogicalDisplay", "Logical display"),
            f("list", "entries", "Entries", { count = "u32",
                f("u64", "uid", "Id"),
                f("str", "name", "Name"),
                f("u32", "duration", "Duration (s)"),
                f("u64", "imageUid", "Image id"),
            }),
        }),
    },
    [10] = { prefix = "schedules_rsp",
        f("str", "cs", "Schedules checksum"),
    },
    [11] = { prefix = "time",
        f("u32", "currentTime", "Current time", { unix = true }),
    },
    [12] = { prefix = "shutdown" },
    [13] = { prefix = "image",
        f("u8", "taskRemove", "Task remove"),
        f("list", "images", "Files", { count = "u32",
            f("u64", "uid", "Id"),
            f("str", "name", "Name"),
            f("str", "cs", "Checksum"),
            f("u8", "mime", "Mime type", { vals = { [0] = "image/png", [1] = "image/jpeg",
                [2] = "application/pdf", [3] = "7z archive", [4] = "xml", [5] = "other" } }),
            f("blob", "content", "Content"),
        }),
        f("u8", "taskFbc", "Task fbc", { min = 3 }),
    },
    [14] = { prefix = "statistics_req" },
    [15] = { prefix = "statistics_rsp",
        f("u32", "imgUpdateCount", "Image updates"),
        f("u32", "energy_Wh", "Energy (Wh)"),
        f("u32", "energy_mWh", "Energy remainder (mWh)"),
        f("i16", "tempCaseMin", "Case temperature minimum"),
        f("u32", "tempCaseMinTime", "Time of the minimum", { unix = true }),
        f("i16", "tempCaseMax", "Case temperature maximum"),
        f("u32", "tempCaseMaxTime", "Time of the maximum", { unix = true }),
    },
    [28] = { prefix = "generic_req",
        f("str", "text1", "Text 1"),
        f("str", "text2", "Text 2"),
    },
    [29] = { prefix = "generic_rsp",
        f("str", "text1", "Text 1"),
        f("str", "text2", "Text 2"),
    },
}

local widths = { u8 = 1, i8 = 1, u16 = 2, i16 = 2, u32 = 4, u64 = 8, i64 = 8 }

local radio_names = { [0] = "none", [1] = "2G", [2] = "3G", [3] = "4G", [4] = "NB-IoT", [5] = "LTE-M", [6] = "5G" }

local function make_field(abbr, item)
    local enc = item.enc
    local vals = item.vals
    if enc == "u8" then return ProtoField.uint8(abbr, item.label, base.DEC, vals) end
    if enc == "i8" then return ProtoField.int8(abbr, item.label, base.DEC) end
    if enc == "u16" then return ProtoField.uint16(abbr, item.label, base.DEC, vals) end
    if enc == "i16" then return ProtoField.int16(abbr, item.label, base.DEC) end
    if enc == "u32" or enc == "count" or enc == "list" then
        return ProtoField.uint32(abbr, item.label, base.DEC, vals)
    end
    if enc == "u64" then return ProtoField.uint64(abbr, item.label, base.DEC) end
    if enc == "i64" then return ProtoField.int64(abbr, item.label, base.DEC) end
    if enc == "str" then return ProtoField.string(abbr, item.label) end
    if enc == "blob" then return ProtoField.bytes(abbr, item.label) end
    return nil
end

-- Creates one ProtoField per item (abbreviation nk.<message>.<key>[.<key>...]), keeps them
-- in the items, and appends them to list.
local function create_layout_fields(layout, path, list)
    for _, item in ipairs(layout) do
        local abbr = path .. "." .. item.key
        if item.enc ~= "items" then
            item.field = make_field(abbr, item)
            list[#list + 1] = item.field
        end
        if item.bits then
            item.bit_fields = {}
            local ftype = item.enc == "u8" and ProtoField.uint8 or item.enc == "u16" and ProtoField.uint16 or ProtoField.uint32
            for k, b in ipairs(item.bits) do
                item.bit_fields[k] = ftype(abbr .. "." .. b[1], b[2], base.DEC, b[4], b[3])
                list[#list + 1] = item.bit_fields[k]
            end
        end
        if item.ext_state then
            item.link_field = ProtoField.bool(abbr .. ".linkUp", "Mobile link up")
            item.radio_field = ProtoField.uint8(abbr .. ".radio", "Radio access", base.DEC, radio_names)
            item.device_field = ProtoField.uint64(abbr .. ".deviceBits", "Device-defined bits 8 to 63", base.HEX)
            list[#list + 1] = item.link_field
            list[#list + 1] = item.radio_field
            list[#list + 1] = item.device_field
        end
        if item.enc == "list" or item.enc == "items" then
            create_layout_fields(item, abbr, list)
        end
    end
end

function M.create_fields(list)
    for _, layout in pairs(M.layouts) do
        create_layout_fields(layout, "nk." .. layout.prefix, list)
    end
end

local function carried(item, version)
    return (item.min == nil or version >= item.min) and (item.max == nil or version <= item.max)
end

local function read_count(tvb, offset, enc)
    if enc == "u16" then return tvb(offset, 2):le_uint() end
    return tvb(offset, 4):le_uint()
end

-- Walks a layout. Returns the new offset, or nil once a field does not fit (a reader stops
-- there; the caller reports it).
local function walk(layout, tvb, offset, tree, version, vars)
    local size = tvb:len()
    for _, item in ipairs(layout) do
        if carried(item, version) then
            local enc = item.enc
            if enc == "items" then
                local n = vars[item.var] or 0
                local sub = tree:add(tvb(offset, 0), item.label .. " (" .. n .. ")")
                local start = offset
                for k = 1, n do
                    local entry = sub:add(tvb(offset, 0), item.label .. " #" .. k)
                    local entry_start = offset
                    offset = walk(item, tvb, offset, entry, version, vars)
                    if not offset then return nil end
                    entry:set_len(offset - entry_start)
                end
                sub:set_len(offset - start)
            elseif enc == "list" or enc == "count" then
                local w = item.count == "u16" and 2 or 4
                if offset + w > size then return nil end
                local n = read_count(tvb, offset, item.count)
                if enc == "count" then
                    tree:add_le(item.field, tvb(offset, w))
                    vars[item.var] = n
                    offset = offset + w
                else
                    local sub = tree:add_le(item.field, tvb(offset, w))
                    local start = offset
                    offset = offset + w
                    for k = 1, n do
                        local entry = sub:add(tvb(offset, 0), item.label .. " #" .. k)
                        local entry_start = offset
                        local inner = {}
                        setmetatable(inner, { __index = vars })
                        offset = walk(item, tvb, offset, entry, version, inner)
                        if not offset then return nil end
                        entry:set_len(offset - entry_start)
                    end
                    sub:set_len(offset - start)
                end
            elseif enc == "str" or enc == "blob" then
                if offset + 4 > size then return nil end
                local n = tvb(offset, 4):le_uint()
                if offset + 4 + n > size then return nil end
                local item_tree
                if enc == "str" then
                    item_tree = tree:add(item.field, tvb(offset, 4 + n), n > 0 and tvb(offset + 4, n):string(ENC_UTF_8) or "")
                else
                    -- a bytes field takes its value from its range: the content without the count
                    item_tree = tree:add(item.field, tvb(offset + 4, n))
                end
                item_tree:append_text(" (" .. n .. " bytes)")
                offset = offset + 4 + n
            else
                local w = widths[enc]
                if offset + w > size then return nil end
                local range = tvb(offset, w)
                local node = tree:add_le(item.field, range)
                if item.unix then
                    node:append_text(os.date("! (%Y-%m-%d %H:%M:%S UTC)", range:le_uint()))
                end
                if item.bit_fields then
                    for _, bf in ipairs(item.bit_fields) do node:add_le(bf, range) end
                end
                if item.ext_state then
                    local low = range(0, 1):uint()
                    node:add(item.link_field, range(0, 1), low % 2 == 1)
                    node:add(item.radio_field, range(0, 1), math.floor(low / 2))
                    node:add(item.device_field, range(1, 7), range:le_uint64():rshift(8))
                end
                offset = offset + w
            end
        end
    end
    return offset
end

-- Adds the body fields of a message of the given type and version. Returns the offset after
-- the last field read and whether the body ended inside a field.
function M.dissect_body(msg_type, version, tvb, offset, tree)
    local layout = M.layouts[msg_type]
    if not layout then return offset, false end
    local after = walk(layout, tvb, offset, tree, version, {})
    if not after then return tvb:len(), true end
    return after, false
end

return M
