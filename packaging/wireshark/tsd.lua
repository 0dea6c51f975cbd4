-- Wireshark dissector for the time-synchronisation telegrams that the tsd
-- daemons of a module chain exchange over IPv4 multicast: "start", "resync"
-- and "item", colon-separated text framed by "<sync>". The rear side uses the
-- configured base port, the front side the base port + 1 (preference
-- "tsd.port", default 14000); a telegram sent over a front interface carries
-- one extra field before the closing "<sync>".
--
-- It reads the telegrams exactly as the daemons do: fields split at every
-- ":" (empty fields kept), at least three fields, framed by the same
-- "<sync>", the command word and the field count decide; numbers are read as
-- strtoul base 16 reads them (leading digits count, 0 when there are none,
-- cut to 32 bits). What the daemons drop is flagged malformed; what they
-- accept although no daemon writes it that way gets a note.
--
-- Install: copy this file into Wireshark's Lua plugin folder (the global one
-- is shown by `tshark -G folders` as "Global Lua Plugins", on Debian
-- /usr/lib/<multiarch>/wireshark/plugins), or load it once with
-- `tshark -X lua_script:tsd.lua`.

local tsd = Proto("tsd", "Time-sync telegram")

local fields = {
    side = ProtoField.string("tsd.side", "Side (from the port)"),
    text = ProtoField.string("tsd.text", "Telegram"),
    field_count = ProtoField.uint32("tsd.field_count", "Fields"),
    command = ProtoField.string("tsd.command", "Command"),
    form = ProtoField.string("tsd.form", "Side of the telegram's form"),
    uuid = ProtoField.uint32("tsd.uuid", "UUID", base.HEX),
    label = ProtoField.string("tsd.label", "UUID as on the label"),
    module_prio = ProtoField.uint32("tsd.module_prio", "Module priority"),
    ts_prio = ProtoField.uint32("tsd.ts_prio", "Time-source priority"),
    threshold = ProtoField.uint32("tsd.threshold", "Threshold (tenths)"),
    side_field = ProtoField.string("tsd.side_field", "Side field"),
}
tsd.fields = fields

local experts = {
    frame = ProtoExpert.new("tsd.malformed.frame",
        "Not framed by <sync> on both ends, or fewer than 3 fields (the daemons drop it)",
        expert.group.MALFORMED, expert.severity.ERROR),
    unknown = ProtoExpert.new("tsd.malformed.unknown",
        "Unknown command or field count (the daemons drop it)",
        expert.group.MALFORMED, expert.severity.ERROR),
    wrong_side = ProtoExpert.new("tsd.wrong_side",
        "Telegram of the other side's form on this port (the daemons raise error -3)",
        expert.group.PROTOCOL, expert.severity.WARN),
    odd_number = ProtoExpert.new("tsd.odd_number",
        "Number not written as the daemons write it (plain lower-case hexadecimal)",
        expert.group.PROTOCOL, expert.severity.WARN),
    side_value = ProtoExpert.new("tsd.side_value", "Side field is not \"1\" (the daemons do not look at it)",
        expert.group.PROTOCOL, expert.severity.NOTE),
    empty_item = ProtoExpert.new("tsd.empty_item",
        "Module or time-source priority 0: the daemons keep the side's list incomplete",
        expert.group.PROTOCOL, expert.severity.WARN),
}
tsd.experts = experts

tsd.prefs.port = Pref.uint("Base UDP port", 14000,
    "Port of the rear side's telegrams; the front side uses this port + 1")

local FRAME = "<sync>"
local TWO32 = 4294967296

-- Printable ASCII as it is, every other byte as \xNN and a backslash as \\.
local function escape(bytes)
    local out = {}
    for i = 1, #bytes do
        local b = bytes:byte(i)
        if b == 92 then
            out[#out + 1] = "\\\\"
        elseif b >= 32 and b < 127 then
            out[#out + 1] = string.char(b)
        else
            out[#out + 1] = string.format("\\x%02x", b)
        end
    end
    return table.concat(out)
end

-- Fields with their byte offsets, split at every ":" with empty fields kept.
local function split(text)
    local result = {}
    local start = 1
    while true do
        local at = string.find(text, ":", start, true)
        if not at then
            result[#result + 1] = { text = text:sub(start), offset = start - 1 }
            return result
        end
        result[#result + 1] = { text = text:sub(start, at - 1), offset = start - 1 }
        start = at + 1
    end
end

-- strtoul(text, nullptr, 16) cut to 32 bits: leading blanks, a sign and a
-- "0x" prefix are allowed, digits count until the first other character, an
-- overflow of the 64-bit result gives all ones.
local function strtoul16(text)
    local i = 1
    while i <= #text and text:sub(i, i):match("[ \t\n\v\f\r]") do
        i = i + 1
    end
    local negative = false
    local sign = text:sub(i, i)
    if sign == "+" or sign == "-" then
        negative = sign == "-"
        i = i + 1
    end
    if text:sub(i, i + 1):lower() == "0x" and text:sub(i + 2, i + 2):match("%x") then
        i = i + 2
    end
    local low = 0
    local significant = 0
    local any = false
    while i <= #text and text:sub(i, i):match("%x") do
        local digit = tonumber(text:sub(i, i), 16)
        if significant > 0 or digit ~= 0 then
            significant = significant + 1
        end
        low = (low * 16 + digit) % TWO32
        any = true
        i = i + 1
    end
    if not any then
        return 0
    end
    if significant > 16 then
        return TWO32 - 1
    end
    if negative and low ~= 0 then
        low = TWO32 - low
    end
    return low
end

local function label(uuid)
    return string.format("0A7C31%06X", uuid)
end

local function port_side(port)
    local base = tsd.prefs.port
    if port == base then
        return "rear"
    elseif port == base + 1 then
        return "front"
    end
    return nil
end

local SHAPES = {
    start = { [3] = "rear", [4] = "front" },
    resync = { [3] = "rear", [4] = "front" },
    item = { [7] = "rear", [8] = "front" },
}

function tsd.dissector(buffer, pinfo, tree)
    pinfo.cols.protocol = "TSD"
    local length = buffer:len()
    local side = port_side(pinfo.dst_port) or port_side(pinfo.src_port) or "unknown"
    local subtree = tree:add(tsd, buffer(), "Time-sync telegram, " .. side .. " side")
    subtree:add(fields.side, side):set_generated()

    local bytes = buffer:raw()
    subtree:add(fields.text, buffer(), escape(bytes))
    local parts = split(bytes)
    subtree:add(fields.field_count, #parts):set_generated()
    local function range(part)
        if #part.text == 0 then
            return buffer(part.offset, 0)
        end
        return buffer(part.offset, #part.text)
    end

    if #parts < 3 or parts[1].text ~= FRAME or parts[#parts].text ~= parts[1].text then
        subtree:add_proto_expert_info(experts.frame)
        pinfo.cols.info = "Malformed: bad frame \"" .. escape(bytes) .. "\" (" .. side .. ")"
        return length
    end

    local command = parts[2].text
    subtree:add(fields.command, range(parts[2]), escape(command))
    local shape = SHAPES[command]
    local form = shape and shape[#parts]
    if not form then
        subtree:add_proto_expert_info(experts.unknown)
        pinfo.cols.info = "Malformed: unknown command or field count \"" .. escape(bytes) .. "\" (" .. side .. ")"
        return length
    end
    subtree:add(fields.form, form):set_generated()
    if side ~= "unknown" and form ~= side then
        subtree:add_proto_expert_info(experts.wrong_side)
    end
    if form == "front" then
        local extra = parts[#parts - 1]
        local item = subtree:add(fields.side_field, range(extra), escape(extra.text))
        if extra.text ~= "1" then
            item:add_proto_expert_info(experts.side_value)
        end
    end

    local info = command
    if command == "item" then
        local names = {
            { fields.uuid, parts[3] },
            { fields.module_prio, parts[4] },
            { fields.ts_prio, parts[5] },
            { fields.threshold, parts[6] },
        }
        local values = {}
        for index, entry in ipairs(names) do
            local value = strtoul16(entry[2].text)
            values[index] = value
            local item = subtree:add(entry[1], range(entry[2]), value)
            if string.format("%x", value) ~= entry[2].text then
                item:add_proto_expert_info(experts.odd_number,
                    "Number \"" .. escape(entry[2].text) .. "\" not written as the daemons write it; read as "
                    .. string.format("%d", value))
            end
            if index == 1 then
                subtree:add(fields.label, range(entry[2]), label(value)):set_generated()
            elseif index == 4 then
                item:append_text(string.format(" (%d.%d)", math.floor(value / 10), value % 10))
            end
        end
        if values[2] == 0 or values[3] == 0 then
            subtree:add_proto_expert_info(experts.empty_item)
        end
        info = string.format("item %s module %d time-source %d threshold %d.%d", label(values[1]), values[2],
            values[3], math.floor(values[4] / 10), values[4] % 10)
    end
    if side ~= "unknown" and form ~= side then
        info = info .. " (" .. form .. " form on the " .. side .. " port)"
    else
        info = info .. " (" .. side .. ")"
    end
    pinfo.cols.info = info
    return length
end

-- UDP hands no empty payload to a port's dissector, so a zero-byte datagram
-- on the telegram ports is caught after the fact by a postdissector of its own.
local tsd_empty = Proto("tsdempty", "Empty time-sync datagram")
local empty_expert = ProtoExpert.new("tsd.malformed.empty", "Empty datagram (the daemons ignore it)",
    expert.group.MALFORMED, expert.severity.ERROR)
tsd_empty.experts = { empty_expert }
local udp_length = Field.new("udp.length")
local udp_dstport = Field.new("udp.dstport")

function tsd_empty.dissector(buffer, pinfo, tree)
    local length = udp_length()
    local port = udp_dstport()
    if not length or not port or length.value ~= 8 then
        return
    end
    local side = port_side(port.value)
    if not side then
        return
    end
    local subtree = tree:add(tsd_empty, "Empty time-sync datagram, " .. side .. " side")
    subtree:add(fields.side, side):set_generated()
    subtree:add_proto_expert_info(empty_expert)
    pinfo.cols.protocol = "TSD"
    pinfo.cols.info = "Malformed: empty datagram (" .. side .. ")"
end
register_postdissector(tsd_empty)

local registered = nil

local function register()
    local table = DissectorTable.get("udp.port")
    if registered then
        table:remove(registered, tsd)
        table:remove(registered + 1, tsd)
    end
    registered = tsd.prefs.port
    table:add(registered, tsd)
    table:add(registered + 1, tsd)
end

function tsd.prefs_changed()
    if registered ~= tsd.prefs.port then
        register()
    end
end

register()
