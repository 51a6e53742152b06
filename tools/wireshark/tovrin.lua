-- tovrin.lua: Wireshark dissector for the tovrin link between an access point
-- (AP) and its controller (the DRAV) on UDP 6650. Wireshark 4.0, Lua 5.2.
--
-- Every datagram: the 12-byte frame header and its flag bits; control packets
-- (registration, keepalive, DRAV IP) with their fields; data fragments put
-- together per direction and transaction number, and the whole message with
-- its inner header (plain or encrypted; the dissector cannot decrypt).
-- Malformed input gets expert info; every read is bounded by the bytes that
-- were captured, so no input raises a Lua error.
--
-- Install: copy into ~/.local/lib/wireshark/plugins/ (or the system plugin
-- directory), or load once with  tshark -X lua_script:tovrin.lua

local bitop = bit or bit32
local band = bitop.band

local PORT = 6650
local HDR_LEN = 12
local MAGIC = 0xdeadfeed
local FRAG_SIZE = 1024
local MAX_PAYLOAD = 16384

local F_CTRL, F_DATA, F_ACK, F_ACK_REQ, F_RETX, F_MORE = 0x80, 0x20, 0x08, 0x04, 0x02, 0x01

local CTRL_REG, CTRL_KA, CTRL_DRAVIP = 0x1f, 0x20, 0x22
local CTRL_MIN = { [CTRL_REG] = 104, [CTRL_KA] = 36, [CTRL_DRAVIP] = 12 }

local DATA_PLAIN, DATA_ENC = 0x21, 0x26

local DIR_UNKNOWN, DIR_UP, DIR_DOWN = 0, 1, 2
local dir_names = { [DIR_UNKNOWN] = "?", [DIR_UP] = "AP->DRAV", [DIR_DOWN] = "DRAV->AP" }

-- Loaded twice (installed as a plugin and given again with -X lua_script):
-- the copy loaded first serves, the second steps aside instead of failing.
local registered, tovrin = pcall(Proto, "tovrin", "tovrin AP-controller link")
if not registered then return end

local pf = {
    version = ProtoField.uint8("tovrin.version", "Version", base.DEC),
    hdr_len = ProtoField.uint8("tovrin.hdr_len", "Header length", base.DEC),
    data_len = ProtoField.uint16("tovrin.data_len", "Data length", base.DEC),
    magic = ProtoField.uint32("tovrin.magic", "Magic", base.HEX),
    flags = ProtoField.uint8("tovrin.flags", "Flags", base.HEX),
    f_ctrl = ProtoField.bool("tovrin.flags.ctrl", "Control packet", 8, nil, F_CTRL),
    f_unused = ProtoField.uint8("tovrin.flags.unused", "Unused bits", base.HEX, nil, 0x50),
    f_data = ProtoField.bool("tovrin.flags.data", "Data", 8, nil, F_DATA),
    f_ack = ProtoField.bool("tovrin.flags.ack", "Acknowledgement", 8, nil, F_ACK),
    f_ack_req = ProtoField.bool("tovrin.flags.ack_req", "Acknowledgement requested", 8, nil, F_ACK_REQ),
    f_retx = ProtoField.bool("tovrin.flags.retx", "Retransmission", 8, nil, F_RETX),
    f_more = ProtoField.bool("tovrin.flags.more_frags", "More fragments", 8, nil, F_MORE),
    frag = ProtoField.uint8("tovrin.frag", "Fragment number", base.DEC),
    ctlr_trans = ProtoField.uint8("tovrin.ctlr_trans", "Controller transaction", base.DEC),
    ap_trans = ProtoField.uint8("tovrin.ap_trans", "AP transaction", base.DEC),
    dir = ProtoField.uint8("tovrin.dir", "Direction", base.DEC,
        { [DIR_UNKNOWN] = "unknown", [DIR_UP] = "AP to DRAV", [DIR_DOWN] = "DRAV to AP" }),

    ctrl_type = ProtoField.uint8("tovrin.ctrl.type", "Control type", base.HEX,
        { [CTRL_REG] = "Registration", [CTRL_KA] = "Keepalive", [CTRL_DRAVIP] = "DRAV IP" }),
    ctrl_zero = ProtoField.uint8("tovrin.ctrl.zero", "Zero byte", base.DEC),
    ctrl_len = ProtoField.uint16("tovrin.ctrl.len", "Control length", base.DEC),
    serial = ProtoField.stringz("tovrin.ctrl.serial", "Serial number"),
    uptime = ProtoField.uint32("tovrin.ctrl.uptime", "Uptime (s)", base.DEC),
    mac = ProtoField.ether("tovrin.ctrl.mac", "VAP MAC"),
    reg_param = ProtoField.uint8("tovrin.reg.param", "Registration parameter", base.DEC),
    name_len = ProtoField.uint8("tovrin.reg.name_len", "Name length", base.DEC),
    name = ProtoField.stringz("tovrin.reg.name", "Name"),
    ka_rate = ProtoField.uint32("tovrin.ctrl.ka_rate", "Keepalive rate (ms)", base.DEC),
    reg_extra = ProtoField.uint32("tovrin.reg.extra", "Registration extra", base.DEC),
    ka_zero = ProtoField.uint16("tovrin.ka.zero", "Zero bytes", base.DEC),
    dravip_unread = ProtoField.bytes("tovrin.dravip.unread", "Unread bytes"),
    dravip_addr = ProtoField.ipv4("tovrin.dravip.addr", "DRAV address"),
    ctrl_body = ProtoField.bytes("tovrin.ctrl.body", "Body"),
    ctrl_beyond = ProtoField.bytes("tovrin.ctrl.beyond", "Bytes beyond the control length"),

    msgno = ProtoField.uint8("tovrin.msgno", "Message number", base.DEC),
    frag_data = ProtoField.bytes("tovrin.frag.data", "Fragment data"),
    reassembled_in = ProtoField.framenum("tovrin.reassembled_in", "Reassembled in frame"),
    fragments = ProtoField.string("tovrin.fragments", "Fragments in frames"),
    retx_of = ProtoField.framenum("tovrin.retx_of", "Retransmission of the message in frame"),
    acked_in = ProtoField.framenum("tovrin.acked_in", "Acknowledged in frame"),
    ack_of = ProtoField.framenum("tovrin.ack_of", "Acknowledges the message completed in frame"),

    msg_type = ProtoField.uint8("tovrin.msg.type", "Payload type", base.HEX,
        { [DATA_PLAIN] = "plain ('!')", [DATA_ENC] = "encrypted ('&')" }),
    msg_zero = ProtoField.uint8("tovrin.msg.zero", "Reserved", base.DEC),
    msg_len = ProtoField.uint16("tovrin.msg.len", "Payload length", base.DEC),
    src_ep = ProtoField.uint32("tovrin.msg.src_ep", "Source endpoint", base.DEC),
    dst_ep = ProtoField.uint32("tovrin.msg.dst_ep", "Destination endpoint", base.DEC),
    pad = ProtoField.uint32("tovrin.msg.pad", "Pad bytes", base.DEC),
    iv = ProtoField.bytes("tovrin.msg.iv", "IV"),
    md5 = ProtoField.bytes("tovrin.msg.md5", "MD5 of data and pad"),
    ciphertext = ProtoField.bytes("tovrin.msg.ciphertext", "Ciphertext"),
    data = ProtoField.bytes("tovrin.msg.data", "Data"),
    text = ProtoField.string("tovrin.msg.text", "Data as text"),
}
local fields = {}
for _, f in pairs(pf) do fields[#fields + 1] = f end
tovrin.fields = fields

local MAL, SEQ, PROTO = expert.group.MALFORMED, expert.group.SEQUENCE, expert.group.PROTOCOL
local ERR, WARN, NOTE, CHAT = expert.severity.ERROR, expert.severity.WARN, expert.severity.NOTE,
    expert.severity.CHAT
local ex = {
    short = ProtoExpert.new("tovrin.short", "Datagram shorter than the 12-byte frame header", MAL, ERR),
    version = ProtoExpert.new("tovrin.bad_version", "Version is not 1", MAL, ERR),
    hdr_len = ProtoExpert.new("tovrin.bad_hdr_len", "Header length is not 12", MAL, ERR),
    magic = ProtoExpert.new("tovrin.bad_magic", "Magic is not 0xdeadfeed", MAL, ERR),
    length = ProtoExpert.new("tovrin.bad_length", "Data length disagrees with the datagram", MAL, ERR),
    too_long = ProtoExpert.new("tovrin.too_long", "Data length above 1024", MAL, ERR),
    captured = ProtoExpert.new("tovrin.not_captured", "Datagram cut short by the capture", MAL, WARN),
    ctrl_type = ProtoExpert.new("tovrin.ctrl.unknown", "Unknown control type", MAL, ERR),
    ctrl_len = ProtoExpert.new("tovrin.ctrl.bad_len", "Control length out of bounds", MAL, ERR),
    ack_data = ProtoExpert.new("tovrin.ack.data", "Acknowledgement with data", MAL, WARN),
    frag_order = ProtoExpert.new("tovrin.frag.order", "Fragment does not follow the one before", SEQ, WARN),
    too_big = ProtoExpert.new("tovrin.frag.too_big", "Message larger than 16384 bytes", MAL, ERR),
    msg_len = ProtoExpert.new("tovrin.msg.bad_len", "Payload length disagrees with the message", MAL, ERR),
    msg_type = ProtoExpert.new("tovrin.msg.unknown", "Unknown payload type", MAL, ERR),
    enc_shape = ProtoExpert.new("tovrin.msg.bad_enc", "Encrypted payload of impossible shape", MAL, ERR),
    retx = ProtoExpert.new("tovrin.retx", "Retransmission", SEQ, NOTE),
    repeat_ack = ProtoExpert.new("tovrin.ack.repeat", "Repeated acknowledgement", SEQ, NOTE),
    dir = ProtoExpert.new("tovrin.dir.unknown", "Direction not known yet", PROTO, CHAT),
    ack_none = ProtoExpert.new("tovrin.ack.none", "Acknowledges no message seen in this capture", SEQ, NOTE),
    unacked = ProtoExpert.new("tovrin.msg.unacked", "No acknowledgement in this capture", SEQ, WARN),
}
tovrin.experts = { ex.short, ex.version, ex.hdr_len, ex.magic, ex.length, ex.too_long, ex.captured,
    ex.ctrl_type, ex.ctrl_len, ex.ack_data, ex.frag_order, ex.too_big, ex.msg_len, ex.msg_type,
    ex.enc_shape, ex.retx, ex.repeat_ack, ex.dir, ex.ack_none, ex.unacked }

-- State of the first pass. The per-frame results are cached so that later
-- passes (and the GUI's clicks) show what the first pass found.
local aps        -- conversation key -> the AP's address:port
local asm        -- direction key .. message number -> fragments being put together
local done       -- direction key .. message number -> frame that completed the message last
local sent       -- direction key .. message number -> every frame that completed a transmission of it
local frames     -- frame number -> what the first pass found

local function reset()
    aps, asm, done, sent, frames = {}, {}, {}, {}, {}
end
reset()
tovrin.init = reset  -- a new capture file starts afresh

local function endpoint(addr, port) return tostring(addr) .. ":" .. tostring(port) end

-- The direction of a datagram: by the AP's address once it is known in this
-- conversation, else from what only one side sends (the AP's requests carry
-- the data flag, the controller's control packets do not; an AP's
-- acknowledgement has ap_trans 0), which then teaches the AP's address.
local function direction(pinfo, flags, ctlr_trans, ap_trans)
    local src, dst = endpoint(pinfo.src, pinfo.src_port), endpoint(pinfo.dst, pinfo.dst_port)
    local conv = src < dst and (src .. "|" .. dst) or (dst .. "|" .. src)
    local ap = aps[conv]
    if ap then return ap == src and DIR_UP or DIR_DOWN, src, dst end
    local d = DIR_UNKNOWN
    if band(flags, F_CTRL) ~= 0 then
        d = band(flags, F_DATA) ~= 0 and DIR_UP or DIR_DOWN
    elseif band(flags, F_ACK) ~= 0 then
        if ap_trans == 0 and ctlr_trans ~= 0 then d = DIR_UP elseif ap_trans ~= 0 then d = DIR_DOWN end
    end
    if d == DIR_UP then aps[conv] = src elseif d == DIR_DOWN then aps[conv] = dst end
    return d, src, dst
end

local function is_text(ba)
    for i = 0, ba:len() - 1 do
        local c = ba:get_index(i)
        if not ((c >= 0x20 and c < 0x7f) or c == 0x0a or c == 0x0d or c == 0x09) then return false end
    end
    return true
end

-- The whole message (a tvb of its own) with its inner header. Returns a short
-- description for the Info column.
local function dissect_message(m, tree)
    local n = m:len()
    local t = tree:add(tovrin, m(), "Message (" .. n .. " bytes)")
    if n < 4 then
        t:add_proto_expert_info(ex.msg_len, "Message of " .. n .. " bytes has no payload header")
        return "short message"
    end
    local typ = m(0, 1):uint()
    local len = m(2, 2):uint()
    t:add(pf.msg_type, m(0, 1))
    t:add(pf.msg_zero, m(1, 1))
    local lt = t:add(pf.msg_len, m(2, 2))
    if len ~= n then
        lt:add_proto_expert_info(ex.msg_len, "Payload length " .. len .. " but " .. n .. " bytes reassembled")
    end
    local hdr = typ == DATA_ENC and 48 or 12
    if typ ~= DATA_PLAIN and typ ~= DATA_ENC then
        t:add_proto_expert_info(ex.msg_type, string.format("Unknown payload type 0x%02x", typ))
        return string.format("type 0x%02x", typ)
    end
    if n < hdr then
        t:add_proto_expert_info(ex.msg_len, "Message of " .. n .. " bytes, its header needs " .. hdr)
        return "short message"
    end
    local src, dst = m(4, 4):uint(), m(8, 4):uint()
    t:add(pf.src_ep, m(4, 4))
    t:add(pf.dst_ep, m(8, 4))
    local what
    if typ == DATA_PLAIN then
        what = string.format("plain %u->%u %d bytes", src, dst, n - 12)
        if n > 12 then
            local r = m(12, n - 12)
            t:add(pf.data, r)
            local ba = r:bytes()
            if is_text(ba) then t:add(pf.text, r, r:string()) end
        end
    else
        local body = n - 48
        local pad = m(12, 4):uint()
        local pt = t:add(pf.pad, m(12, 4))
        t:add(pf.iv, m(16, 16))
        t:add(pf.md5, m(32, 16))
        if body > 0 then t:add(pf.ciphertext, m(48, body)) end
        if body % 16 ~= 0 then
            t:add_proto_expert_info(ex.enc_shape, "Encrypted part of " .. body .. " bytes is not whole blocks")
        end
        if pad > 15 or pad > body then
            pt:add_proto_expert_info(ex.enc_shape, "Pad " .. pad .. " for " .. body .. " encrypted bytes")
            pad = 0
        end
        what = string.format("encrypted %u->%u %d bytes", src, dst, body - pad)
    end
    t:append_text(": " .. what)
    return what
end

-- A fixed-size text field shown up to its first NUL.
local function add_str(tree, field, tvb, off, len)
    local r = tvb(off, len)
    tree:add(field, r, r:string():match("^([^%z]*)"))
end

-- A control packet's fields (payload p, its first byte the control type).
local function dissect_ctrl(p, tree, dir, pinfo)
    local n = p:len()
    local t = tree:add(tovrin, p(), "Control packet")
    if n < 4 then
        t:add_proto_expert_info(ex.ctrl_len, "Control packet of " .. n .. " bytes has no control header")
        return "Control packet without header"
    end
    local typ, len = p(0, 1):uint(), p(2, 2):uint()
    t:add(pf.ctrl_type, p(0, 1))
    t:add(pf.ctrl_zero, p(1, 1))
    local lt = t:add(pf.ctrl_len, p(2, 2))
    local min = CTRL_MIN[typ]
    if not min then
        t:add_proto_expert_info(ex.ctrl_type, string.format("Unknown control type 0x%02x", typ))
        return string.format("Unknown control packet type 0x%02x", typ)
    end
    local request = dir == DIR_UP
    local names = { [CTRL_REG] = "Registration", [CTRL_KA] = "Keepalive", [CTRL_DRAVIP] = "DRAV IP message" }
    local what = names[typ]
    if typ ~= CTRL_DRAVIP then what = what .. (request and " request" or " response") end
    t:set_text("Control packet: " .. what)
    if len < min then
        lt:add_proto_expert_info(ex.ctrl_len, "Control length " .. len .. " below the minimum " .. min)
        return what .. " (too short)"
    end
    if len > n then
        lt:add_proto_expert_info(ex.ctrl_len, "Control length " .. len .. " beyond the " .. n .. " bytes received")
        return what .. " (cut short)"
    end
    if typ == CTRL_DRAVIP then
        t:add(pf.dravip_unread, p(4, 4))
        t:add(pf.dravip_addr, p(8, 4))
        what = what .. " " .. tostring(p(8, 4):ipv4())
    elseif request then
        add_str(t, pf.serial, p, 4, 16)
        t:add(pf.uptime, p(20, 4))
        t:add(pf.mac, p(24, 6))
        if typ == CTRL_REG then
            t:add(pf.reg_param, p(30, 1))
            t:add(pf.name_len, p(31, 1))
            add_str(t, pf.name, p, 32, 64)
            t:add(pf.ka_rate, p(96, 4))
            t:add(pf.reg_extra, p(100, 4))
        else
            t:add(pf.ka_zero, p(30, 2))
            t:add(pf.ka_rate, p(32, 4))
        end
    elseif len > 4 then
        -- The AP reads nothing of a response but its type and length.
        t:add(pf.ctrl_body, p(4, len - 4))
    end
    if n > len then t:add(pf.ctrl_beyond, p(len, n - len)) end
    return what
end

-- First pass over a data fragment: keeps it with the others of its message
-- (per direction and transaction number) and records, for this frame and the
-- earlier ones, what the reassembly found.
local function track_fragment(fr, key, frame, flags, frag, payload)
    local a = asm[key]
    local first = frag == 0
    local retx = band(flags, F_RETX) ~= 0
    if first and retx and done[key] then fr.retx_of = done[key] end
    if first and not retx then sent[key] = {} end
    if first and (not a or not retx or a.complete) then
        a = { parts = {}, frames = {}, last = nil, complete = false }
        asm[key] = a
    end
    if not a then
        fr.order = "Fragment " .. frag .. " without the first fragment of its message"
        return
    end
    if not first and not a.parts[frag - 1] and not a.parts[frag] then
        fr.order = "Fragment " .. frag .. " but fragment " .. (frag - 1) .. " was not seen"
    end
    a.parts[frag] = payload
    a.frames[frag] = frame
    if band(flags, F_MORE) == 0 then a.last = frag end
    if not a.last or a.complete then return end
    local ba, frames_list = ByteArray.new(), {}
    for k = 0, a.last do
        if not a.parts[k] then return end
        ba:append(a.parts[k])
        frames_list[#frames_list + 1] = tostring(a.frames[k])
    end
    a.complete = true
    if ba:len() > MAX_PAYLOAD then
        fr.too_big = ba:len()
        return
    end
    fr.message = ba
    fr.frag_frames = table.concat(frames_list, ",")
    for k = 0, a.last do
        local other = frames[a.frames[k]]
        if other and a.frames[k] ~= frame then other.reassembled_in = frame end
    end
    done[key] = frame
    sent[key] = sent[key] or {}
    table.insert(sent[key], frame)
end

function tovrin.dissector(tvb, pinfo, tree)
    pinfo.cols.protocol = "TOVRIN"
    local n = tvb:len()
    local root = tree:add(tovrin, tvb())
    if n < HDR_LEN then
        if tvb:reported_len() >= HDR_LEN then
            root:add_proto_expert_info(ex.captured, "Captured " .. n .. " of " .. tvb:reported_len() .. " bytes")
            pinfo.cols.info = "Cut short by the capture: " .. n .. " of " .. tvb:reported_len() .. " bytes"
        else
            root:add_proto_expert_info(ex.short, "Datagram of " .. n .. " bytes")
            pinfo.cols.info = "Malformed: " .. n .. "-byte datagram"
        end
        return n
    end
    local version, hdr_len, data_len = tvb(0, 1):uint(), tvb(1, 1):uint(), tvb(2, 2):uint()
    local magic, flags, frag = tvb(4, 4):uint(), tvb(8, 1):uint(), tvb(9, 1):uint()
    local ctlr_trans, ap_trans = tvb(10, 1):uint(), tvb(11, 1):uint()

    local h = root:add(tovrin, tvb(0, HDR_LEN), "Frame header")
    local vt = h:add(pf.version, tvb(0, 1))
    local ht = h:add(pf.hdr_len, tvb(1, 1))
    local lt = h:add(pf.data_len, tvb(2, 2))
    local mt = h:add(pf.magic, tvb(4, 4))
    local ft = h:add(pf.flags, tvb(8, 1))
    ft:add(pf.f_ctrl, tvb(8, 1))
    ft:add(pf.f_unused, tvb(8, 1))
    ft:add(pf.f_data, tvb(8, 1))
    ft:add(pf.f_ack, tvb(8, 1))
    ft:add(pf.f_ack_req, tvb(8, 1))
    ft:add(pf.f_retx, tvb(8, 1))
    ft:add(pf.f_more, tvb(8, 1))
    h:add(pf.frag, tvb(9, 1))
    h:add(pf.ctlr_trans, tvb(10, 1))
    h:add(pf.ap_trans, tvb(11, 1))

    local bad = nil
    if version ~= 1 then
        vt:add_proto_expert_info(ex.version, "Version " .. version); bad = "version " .. version
    end
    if hdr_len ~= HDR_LEN then
        ht:add_proto_expert_info(ex.hdr_len, "Header length " .. hdr_len); bad = bad or ("header length " .. hdr_len)
    end
    if magic ~= MAGIC then
        mt:add_proto_expert_info(ex.magic, string.format("Magic 0x%08x", magic)); bad = bad or string.format("magic 0x%08x", magic)
    end
    local reported = tvb:reported_len()
    local avail = n - HDR_LEN
    if reported - HDR_LEN ~= data_len then
        lt:add_proto_expert_info(ex.length, "Data length " .. data_len .. " but " .. (reported - HDR_LEN) ..
            " bytes follow the header")
        bad = bad or ("data length " .. data_len .. ", " .. (reported - HDR_LEN) .. " bytes follow")
    elseif n < reported then
        root:add_proto_expert_info(ex.captured, "Captured " .. n .. " of " .. reported .. " bytes")
        bad = bad or "cut short by the capture"
    end
    if data_len > FRAG_SIZE then
        lt:add_proto_expert_info(ex.too_long, "Data length " .. data_len); bad = bad or ("data length " .. data_len .. " above 1024")
    end
    local plen = math.min(data_len, avail)

    local fr = frames[pinfo.number]
    if not fr then
        fr = {}
        fr.dir = direction(pinfo, flags, ctlr_trans, ap_trans)
        if not bad and band(flags, F_CTRL) == 0 and band(flags, F_ACK) == 0 and not pinfo.visited then
            local num = fr.dir == DIR_DOWN and ctlr_trans or ap_trans
            local src, dst = endpoint(pinfo.src, pinfo.src_port), endpoint(pinfo.dst, pinfo.dst_port)
            local key = src .. ">" .. dst .. "#" .. num
            local payload = plen > 0 and tvb(HDR_LEN, plen):bytes() or ByteArray.new()
            track_fragment(fr, key, pinfo.number, flags, frag, payload)
        elseif not bad and band(flags, F_CTRL) == 0 and not pinfo.visited then
            -- An acknowledgement names the message it answers in the other direction.
            local src, dst = endpoint(pinfo.src, pinfo.src_port), endpoint(pinfo.dst, pinfo.dst_port)
            local num = fr.dir == DIR_UP and ctlr_trans or ap_trans
            local key = dst .. ">" .. src .. "#" .. num
            local m = done[key]
            if m then
                fr.ack_of = m
                -- Every transmission of the message counts as answered.
                for _, t in ipairs(sent[key] or {}) do
                    if frames[t] then frames[t].acked_in = frames[t].acked_in or pinfo.number end
                end
            end
        end
        frames[pinfo.number] = fr
    end
    local dir = fr.dir
    root:add(pf.dir, dir):set_generated()
    if dir == DIR_UNKNOWN then root:add_proto_expert_info(ex.dir) end
    local prefix = dir_names[dir] .. " "

    local payload = plen > 0 and tvb(HDR_LEN, plen) or nil
    if bad then
        pinfo.cols.info = prefix .. "Malformed: " .. bad
        if payload then root:add(pf.frag_data, payload) end
        root:append_text(" (malformed)")
        return n
    end

    local info
    if band(flags, F_CTRL) ~= 0 then
        info = payload and dissect_ctrl(payload:tvb(), root, dir, pinfo) or "Control packet without payload"
        if not payload then root:add_proto_expert_info(ex.ctrl_len, "Control packet without payload") end
    elseif band(flags, F_ACK) ~= 0 then
        local num = dir == DIR_UP and ctlr_trans or ap_trans
        if band(flags, F_RETX) ~= 0 then
            info = "Repeated acknowledgement of message " .. num
            root:add_proto_expert_info(ex.repeat_ack)
        else
            info = "Acknowledgement of message " .. num
        end
        info = info .. ", last fragment " .. frag
        root:add(pf.msgno, num):set_generated()
        if fr.ack_of then
            root:add(pf.ack_of, fr.ack_of):set_generated()
        else
            root:add_proto_expert_info(ex.ack_none)
        end
        if payload then root:add_proto_expert_info(ex.ack_data, "Acknowledgement carries " .. plen .. " bytes") end
    else
        local num = dir == DIR_DOWN and ctlr_trans or ap_trans
        root:add(pf.msgno, num):set_generated()
        info = "Data fragment " .. frag .. " of message " .. num
        if band(flags, F_RETX) ~= 0 then
            info = info .. " (retransmission)"
            root:add_proto_expert_info(ex.retx)
        end
        if fr.retx_of then root:add(pf.retx_of, fr.retx_of):set_generated() end
        if fr.order then root:add_proto_expert_info(ex.frag_order, fr.order) end
        if fr.too_big then
            root:add_proto_expert_info(ex.too_big, "Message of " .. fr.too_big .. " bytes")
            info = info .. ": message of " .. fr.too_big .. " bytes, above 16384"
        end
        if fr.message then
            if fr.acked_in then
                root:add(pf.acked_in, fr.acked_in):set_generated()
            elseif pinfo.visited and band(flags, F_ACK_REQ) ~= 0 then
                -- Only a later pass knows that no acknowledgement followed.
                root:add_proto_expert_info(ex.unacked)
            end
            local m
            if band(flags, F_MORE) == 0 and frag == 0 and payload then
                m = payload:tvb()
            else
                if payload then root:add(pf.frag_data, payload) end
                root:add(pf.fragments, fr.frag_frames):set_generated()
                m = fr.message:tvb("Reassembled message")
            end
            info = info .. ": " .. dissect_message(m, root)
        else
            if payload then root:add(pf.frag_data, payload) end
            if fr.reassembled_in then root:add(pf.reassembled_in, fr.reassembled_in):set_generated() end
        end
    end
    pinfo.cols.info = prefix .. info
    root:append_text(", " .. info)
    return n
end

DissectorTable.get("udp.port"):add(PORT, tovrin)
