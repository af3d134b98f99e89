-- log:SyslogFormat: one driver record as a syslog message, native or CEF.
-- The message texts of the golden cases stand in tests/golden/syslog, one
-- file per case.
local support = require "support"
local norv = require "norv"
assert(require "vexil" == true)
local norvi = require "norvi"


local HEADER = "CEF:0|Norv|Agent|1.0|"
local IDENTITY = " dvchost=host-7 deviceExternalId=7"

local function config()
  return {
    packetFilterMap = {
      [1042] = { name = "Block telnet", filterAction = 0 },
      [1043] = { name = "Allow forced", filterAction = 3 },
      [1044] = { name = "Logged", filterAction = 0 },
      [1045] = { name = "odd action", filterAction = 77 },
    },
    payloadFilterMap = {
      [4711] = { name = "Web Attack", severity = 2, identifier = "4711", incoming = true },
      [4712] = { name = "Outbound leak", severity = 1, identifier = "", incoming = false },
      [4713] = { name = "Sev three", severity = 3, identifier = "S-3", incoming = true },
      [4714] = { name = "Sev four", severity = 4, identifier = "S-4", incoming = true },
      [4715] = { name = "Sev seven", severity = 7, identifier = "S-7", incoming = true },
      [4716] = { name = "a|b\\c=d\nx", severity = 2, identifier = "id|\\=", incoming = true },
    },
    agentConfiguration = { hostID = 7, hostname = "host-7" },
    interfaceMap = { ["0011223344550000"] = { name = "eth 0", id = 3 } },
  }
end

-- Copies the tables into one, later ones winning; false removes a field.
local function merged(...)
  local record = {}
  for _, fields in ipairs { ... } do
    for k, v in pairs(fields) do record[k] = v ~= false and v or nil end
  end
  return record
end

-- The record of the examples: a TCP SYN from 192.0.2.7 to port 23, denied.
local PACKET = {
  time_sec = 1700000000, end_time_sec = 1700000000, count = 1,
  flags = 0x10 + 0x40, iph_proto = 6, iph_src = "192.0.2.7", iph_dest = "198.51.100.2",
  iph_total_len = 60, iph_frag_off = 0x4000, packet_len = 60,
  th_sport = 40123, th_dport = 23, tcph_flags = 0x02, action = 1, id = 1042,
}
local function packet(fields, more) return merged(PACKET, fields or {}, more or {}) end

-- The payload record of the examples: filter 4711 on a web request.
local PAYLOAD = {
  reason = -1, id = 4711, action = 0x82, flags = 0x10 + 0x40 + 0x02, packet_len = 400,
  th_dport = 80, tcph_flags = 0x18, iph_frag_off = 0, note = "abc", log_flags = 0x08,
  packet_pos = 120, stream_pos = 4096,
}
local function payload(fields, more) return merged(PACKET, PAYLOAD, fields or {}, more or {}) end

local IPV6 = {
  flags = 0x20 + 0x40, ipv6h_next = 6, ipv6h_src = "2001:db8::7", ipv6h_dest = "fe80::1:2:0:ab",
  th_sport = 443, th_dport = 51000, tcph_flags = 0x12, packet_len = 80, iph_src = false,
  iph_dest = false, iph_proto = false, iph_frag_off = false, iph_total_len = false,
}
local function ipv6(fields) return merged(PACKET, IPV6, fields or {}) end

local ETHERNET = { flags = 0x08 + 0x10 + 0x40, eth_dest = "\0\1\2\3\4\5", eth_type = 0x0800,
                   eth_src = "\10\11\12\13\14\15", interface_mac = "\0\17\34\51\68\85\0\0" }

describe("log:SyslogFormat", function()
  local dom, log

  local function format(record, cef, fmt, data, cfg)
    dom:SetSetting("norv.syslog.cef", cef)
    dom:SetSetting("norv.syslog.format", fmt)
    if cfg == nil then cfg = config() end
    return log:SyslogFormat(norvi.EncodeRecord(record), data or "", cfg)
  end

  before_each(function()
    dom = SLB.norv.Dom(":memory:")
    dom:SetSetting("norv.syslog.hostname", "host-7")
    log = SLB.vexil.LogData(dom)
  end)

  after_each(function()
    log = nil
    collectgarbage()
  end)

  -- The form and the format change between the messages: the settings are
  -- read afresh for each.
  it("reproduces the four example messages", function()
    assert.are.equal("REASON=PKT:1042 HOSTID=7 act=Deny SRC=192.0.2.7 DST=198.51.100.2 " ..
                     "LEN=60 DF FRAG=0 PROTO=TCP SPT=40123 DPT=23 RES=0x00 SYN CNT=1",
                     format(packet(), false, 0))
    assert.are.equal("REASON=PLD:Web_Attack FWD HOSTID=7 SRC=192.0.2.7 DST=198.51.100.2 " ..
                     "LEN=400 PROTO=TCP SPT=40123 DPT=80 RES=0x00 ACK PSH CNT=1 " ..
                     "act=IDS:Reset POS=120 SPOS=4096 NOTE=abc FLAGS=1",
                     format(payload(), false, 0))
    assert.are.equal(HEADER .. "21|1042|5|" .. IDENTITY .. " act=Deny src=192.0.2.7 " ..
                     "dst=198.51.100.2 in=60 cs3=DF 0 cs3Label=Fragmentation Bits proto=TCP " ..
                     "spt=40123 dpt=23 cs2=0x00 SYN cs2Label=TCP Flags cnt=1",
                     format(packet(), true, 2))
    assert.are.equal(HEADER .. "4711|Web Attack|6|" .. IDENTITY .. " src=192.0.2.7 " ..
                     "dst=198.51.100.2 in=400 proto=TCP spt=40123 dpt=80 cs2=0x00 ACK PSH " ..
                     "cs2Label=TCP Flags cnt=1 act=IDS:Reset cn3=120 cn3Label=DPI Packet " ..
                     "Position cs5=4096 cs5Label=DPI Stream Position cs1=abc cs1Label=DPI Note " ..
                     "cs6=1 cs6Label=DPI Flags",
                     format(payload(), true, 2))
  end)

  it("names the event by the reason, or leaves the name empty", function()
    assert.matches("^REASON= HOSTID=7 act=Deny ", format(packet { id = 0, reason = 0 }, false, 0))
    assert.matches("^REASON=URI_Path_Depth_Exceeded REV HOSTID=7 ",
                   format(payload { id = 0, reason = -500, flags = 0x50 }, false, 0))
    assert.matches("^" .. HEADER .. "500|URI Path Depth Exceeded|5|",
                   format(payload { id = 0, reason = -500 }, true, 0))
  end)

  it("derives act from the record's action or the rule's", function()
    -- action 0 takes the rule's filterAction, whatever its number; 1 is
    -- Deny, any other Log; format 2 escapes rather than joins the words.
    local cases = { { 1, 1042, 0, "Deny" }, { 5, 1042, 0, "Log" }, { 2, 1042, 0, "Log" },
                    { 0, 1043, 0, "Force_Allow" }, { 0, 1044, 0, "Log" }, { 0, 1045, 0, "77" },
                    { 0, 1043, 2, "Force Allow" } }
    for _, c in ipairs(cases) do
      local message = format(packet { action = c[1], id = c[2] }, false, c[3])
      assert.are.equal(c[4], message:match(" act=(.-) [sS][rR][cC]="), c[1] .. " " .. c[2])
    end
    -- The CEF signature and severity follow the same action.
    assert.matches("|20|1044|0|", format(packet { action = 0, id = 1044 }, true, 2), 1, true)
    assert.matches("|21|1043|5|", format(packet { action = 0, id = 1043 }, true, 2), 1, true)
  end)

  it("maps a payload filter's severity, and an empty identifier to 10", function()
    local heads = {}
    for _, id in ipairs { 4712, 4713, 4714, 4715, 555 } do
      local message = format(payload { id = id }, true, 0)
      heads[#heads + 1] = message:sub(#HEADER + 1):match("^[^|]*|[^|]*|%d+|")
    end
    assert.are.same({ "10|Outbound leak|3|", "S-3|Sev three|8|", "S-4|Sev four|10|",
                      "S-7|Sev seven|9|", "10|555|9|" }, heads)
  end)

  it("writes a printable note, '~' included, as text of at most 16 bytes", function()
    assert.matches(" NOTE=0123456789abcdef FLAGS=",
                   format(payload { note = "0123456789abcdef", note_len = 20 }, false, 0))
    assert.matches(" NOTE=a~b FLAGS=", format(payload { note = "a~b" }, false, 0), 1, true)
  end)

  it("looks up a native MAC that reaches into trailing data of 100 to 200 bytes", function()
    local data = string.rep("\171", 150)
    local record = packet(ETHERNET, { interface_mac_len = 200, data_len = #data })
    local bytes = norvi.EncodeRecord(record):sub(45, 192) .. data:sub(1, 52)
    local key = bytes:gsub(".", function(c) return string.format("%02x", c:byte()) end)
    local cfg = config()
    cfg.interfaceMap = { [key] = { name = "long", id = 9 } }
    assert.matches(" IN=long OUT= ", format(record, false, 0, data, cfg), 1, true)
  end)

  it("escapes the header fields and the extension values of CEF", function()
    local message = format(payload { id = 4716, note = "x=y\\" }, true, 2)
    local head = HEADER .. "id\\|\\\\=|a\\|b\\\\c=d x|6|" .. IDENTITY .. " src="
    assert.are.equal(head, message:sub(1, #head))
    assert.matches(" cs1=x\\=y\\\\ cs1Label=DPI Note ", message, 1, true)
    -- The native form joins the blanks and line breaks of the name only.
    assert.matches("^REASON=PLD:a|b\\c=d_x FWD HOSTID=7 ",
                   format(payload { id = 4716 }, false, 0))
  end)

  it("appends the packet data as base64 with format 2 only", function()
    local record = payload { log_flags = 0x02 + 0x08, data_len = 5 }
    assert.matches(" cs6=9 cs6Label=DPI Flags VarnokPacketData=aGVsbG8\\=$",
                   format(record, true, 2, "hello"))
    assert.matches(" FLAGS=9 cs6Label=DPI Flags VarnokPacketData=aGVsbG8\\=$",
                   format(record, false, 2, "hello"))
    assert.matches(" FLAGS=9$", format(record, false, 1, "hello"))
    -- Without the trailing-data flag, or with no data, there is nothing.
    assert.matches(" cs6=1 cs6Label=DPI Flags$",
                   format(payload { data_len = 5 }, true, 2, "hello"))
    assert.matches(" cs6=9 cs6Label=DPI Flags$",
                   format(payload { log_flags = 0x0A, data_len = 0 }, true, 2, ""))
    -- A block announced but not handed in reads as zero bytes.
    assert.matches(" VarnokPacketData=AAAA$",
                   format(payload { log_flags = 0x0A, data_len = 3 }, true, 2, ""))
    -- The data is not bounded by the message buffer.
    local big = string.rep("\255", 60000)
    local message = format(payload { log_flags = 0x0A, data_len = 60000 }, true, 2, big)
    assert.are.equal(80000, #message:match("VarnokPacketData=(.*)$"))
  end)

  it("keeps hostile names from forging fields or breaking the message", function()
    local forged = "x\n<13>CEF:0|v|p|1|9|forged|10| src=6.6.6.6\r\tSRC=6.6.6.6 cnt=9\194\133y"
    local cfg = config()
    cfg.payloadFilterMap[4711].name = forged
    cfg.payloadFilterMap[4711].identifier = "id\n|" .. forged
    cfg.interfaceMap["0011223344550000"].name = forged
    dom:SetSetting("norv.syslog.cef.vendor", "V\n" .. forged)
    dom:SetSetting("norv.syslog.cef.product", "P\r\127")
    dom:SetSetting("norv.syslog.cef.version", "1\t\226\128\1680")
    dom:SetSetting("norv.syslog.hostname", "h\n7\tdvchost=evil")
    local record = payload(ETHERNET, { flags = ETHERNET.flags + 2 })
    -- Every control character (C1 and the line separators too) is a blank in
    -- the CEF header, whose bars are escaped, and '_' in the native form.
    local cefName = "x <13>CEF:0\\|v\\|p\\|1\\|9\\|forged\\|10\\| src=6.6.6.6  SRC=6.6.6.6 cnt=9 y"
    assert.are.equal("CEF:0|V " .. cefName .. "|P  |1  0|id \\|" .. cefName .. "|" .. cefName ..
                     "|6| dvchost=h\\n7 dvchost\\=evil deviceExternalId=7 dmac=000102030405 " ..
                     "smac=0a0b0c0d0e0f VarnokFrameType=IP src=192.0.2.7 dst=198.51.100.2 in=400 " ..
                     "proto=TCP spt=40123 dpt=80 cs2=0x00 ACK PSH cs2Label=TCP Flags cnt=1 " ..
                     "act=IDS:Reset cn3=120 cn3Label=DPI Packet Position cs5=4096 " ..
                     "cs5Label=DPI Stream Position cs1=abc cs1Label=DPI Note cs6=1 cs6Label=DPI Flags",
                     format(record, true, 2, "", cfg))
    local nativeName = "x_<13>CEF:0|v|p|1|9|forged|10|_src=6.6.6.6__SRC=6.6.6.6_cnt=9_y"
    assert.are.equal("REASON=PLD:" .. nativeName .. " FWD HOSTID=7 IN=" .. nativeName ..
                     " OUT= MAC=000102030405:0a0b0c0d0e0f:08:00 SRC=192.0.2.7 DST=198.51.100.2 " ..
                     "LEN=400 PROTO=TCP SPT=40123 DPT=80 RES=0x00 ACK PSH CNT=1 act=IDS:Reset " ..
                     "POS=120 SPOS=4096 NOTE=abc FLAGS=1", format(record, false, 0, "", cfg))
  end)

  it("writes a name beyond ASCII as UTF-8 in CEF, as '_' per character in the native head",
     function()
    -- A name that is no UTF-8 reads as empty.
    for _, case in ipairs { { "Größe x", "Gr__e_x", "Größe x" }, { "ab\255", "", "" } } do
      local cfg = config()
      cfg.payloadFilterMap[4711].name = case[1]
      assert.matches("^REASON=PLD:" .. case[2] .. " FWD ", format(payload(), false, 0, "", cfg))
      assert.matches(HEADER .. "4711|" .. case[3] .. "|6|", format(payload(), true, 0, "", cfg),
                     1, true)
    end
  end)

  it("cuts a message at its buffer on a character boundary", function()
    -- The buffer ends at byte 65535; k ASCII bytes in front of the name move
    -- that end over every byte of the name's multi-byte characters.
    local cefHead = HEADER .. "4711|"
    for _, case in ipairs {
      { "\195\169", false }, { "\226\130\172", false }, { "\240\159\152\128", false },
      { "\226\130\172", true } } do
      local char, cef = case[1], case[2]
      for k = 0, #char - 1 do
        local cfg = config()
        local name = string.rep("n", k) .. string.rep(char, math.ceil(70000 / #char))
        local head
        if cef then
          cfg.payloadFilterMap[4711].name = name
          head = cefHead
        else
          cfg.interfaceMap["0011223344550000"].name = name
          head = "REASON=PKT:1042 HOSTID=7 act=Deny IN= OUT="
        end
        local record = cef and payload() or packet(ETHERNET, { flags = ETHERNET.flags + 1 })
        local message = format(record, cef, 0, "", cfg)
        local whole = head .. name
        local cut = (65535 - #head - k) % #char
        local label = #char .. "-byte character, " .. k .. " in front"
        assert.are.equal(65535 - cut, #message, label)
        assert.are.equal(whole:sub(1, #message), message, label)
      end
    end
  end)

  it("still makes the message without a configuration table", function()
    assert.are.equal("REASON=PKT: HOSTID=0 act=Deny SRC=192.0.2.7 DST=198.51.100.2 LEN=60 " ..
                     "DF FRAG=0 PROTO=TCP SPT=40123 DPT=23 RES=0x00 SYN CNT=1",
                     format(packet(), false, 0, "", false))
    assert.matches("^" .. HEADER .. "10|4711|9| dvchost=host%-7 deviceExternalId=0 ",
                   format(payload(), true, 0, "", "not a table"))
  end)

  it("gives an empty string for a record that is too short or a block too long", function()
    local record = norvi.EncodeRecord(packet())
    assert.are.equal("", log:SyslogFormat(record:sub(1, 191), "", config()))
    assert.are.equal("", log:SyslogFormat(nil, "", config()))
    assert.are.equal("", log:SyslogFormat(record, string.rep("x", 65345), config()))
    assert.are_not.equal("", log:SyslogFormat(record .. "extra", string.rep("x", 65344), config()))
  end)

  -- Golden messages: each case in the forms and formats named.
  local cases = {
    { "ipv6_tcp", ipv6() },
    { "ipv6_payload", ipv6 { reason = -504, id = 4711, action = 2, log_flags = 0x01 } },
    { "icmp_echo", packet { iph_proto = 1, icmph_type = 8, icmph_code = 0, iph_frag_off = 0,
                            id = 0, reason = 122 } },
    { "icmpv6", ipv6 { ipv6h_next = 58, icmph_type = 128, icmph_code = 0 } },
    { "fragment_more", packet { iph_frag_off = 0x2005, reason = 108, id = 0, action = 2 } },
    { "fragment_both", packet { iph_frag_off = 0x6000, tcph_flags = 0xFF } },
    { "udp_no_transport", packet { iph_proto = 17, flags = 0x10, count = 42 } },
    { "no_ip", packet { flags = 0, id = 0, reason = 127 } },
    { "ethernet_out", packet(ETHERNET, { flags = ETHERNET.flags + 1, eth_type = 0x86DD }) },
    { "ethernet_unknown_type", packet(ETHERNET, { eth_type = 0x1234 }) },
    { "ethernet_payload_out", payload(ETHERNET, { id = 4712, flags = ETHERNET.flags + 2 }) },
    { "note_binary", payload { note = "\0\1\2\3\4\5\6\7\8\9\10\11\12\13\14\15" } },
    { "unknown_rule", packet { id = 999, action = 0 } },
    { "detect_only_packet", packet { action = 0x81, id = 1043 } },
    { "payload_all_flags", payload { log_flags = 0x3F, action = 0x05, reason = -207 } },
  }

  for _, case in ipairs(cases) do
    it("renders the golden messages of " .. case[1], function()
      local parts = {}
      for _, cef in ipairs { false, true } do
        for fmt = 0, 2 do
          parts[#parts + 1] = string.format("cef=%s format=%d: %s", tostring(cef), fmt,
                                            format(case[2], cef, fmt))
        end
      end
      local text = table.concat(parts, "\n") .. "\n"
      assert.are.equal(support.golden("syslog/" .. case[1] .. ".txt", text), text)
    end)
  end
end)
