-- log:SyslogFormat: one driver record as a syslog message, native or CEF.
-- The message texts of the golden cases stand in tests/golden/syslog, one
-- file per case.
local support = require "support"
local norv = require "norv"
assert(require "vexil" == true)
local norvi = require "norvi"


local HEADER = "CEF:0|Norv|Agent|1.0|"

-- The configuration; name renames payload filter 4711.
local function config(name)
  local cfg = {
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
  cfg.payloadFilterMap[4711].name = name or cfg.payloadFilterMap[4711].name
  return cfg
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

  -- Every record in both forms and the three formats, against the baseline
  -- tests/golden/syslog/<name>.txt; a record may come with its data block as
  -- { record, data }. The form and the format change from one message to the
  -- next: the settings are read afresh for each.
  local function golden(name, records, cfg)
    local parts = {}
    for _, record in ipairs(records) do
      local data = ""
      if record[1] then record, data = record[1], record[2] end
      for _, cef in ipairs { false, true } do
        for fmt = 0, 2 do
          parts[#parts + 1] = string.format("cef=%s format=%d: %s", tostring(cef), fmt,
                                            format(record, cef, fmt, data, cfg))
        end
      end
    end
    local text = table.concat(parts, "\n") .. "\n"
    assert.are.equal(support.golden("syslog/" .. name .. ".txt", text), text)
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

  it("looks up a native MAC that reaches into trailing data of 100 to 200 bytes", function()
    local data = string.rep("\171", 150)
    local record = packet(ETHERNET, { interface_mac_len = 200, data_len = #data })
    local bytes = norvi.EncodeRecord(record):sub(45, 192) .. data:sub(1, 52)
    local key = bytes:gsub(".", function(c) return string.format("%02x", c:byte()) end)
    local cfg = config()
    cfg.interfaceMap = { [key] = { name = "long", id = 9 } }
    assert.matches(" IN=long OUT= ", format(record, false, 0, data, cfg), 1, true)
  end)

  it("appends packet data beyond the size of the message buffer", function()
    local message = format(payload { log_flags = 0x0A, data_len = 60000 }, true, 2,
                           string.rep("\255", 60000))
    assert.are.equal(80000, #message:match("VarnokPacketData=(.*)$"))
  end)

  it("keeps hostile names from forging fields or breaking the message", function()
    local forged = "x\n<13>CEF:0|v|p|1|9|forged|10| src=6.6.6.6\r\tSRC=6.6.6.6 cnt=9\194\133y"
    local cfg = config(forged)
    cfg.payloadFilterMap[4711].identifier = "id\n|" .. forged
    cfg.interfaceMap["0011223344550000"].name = forged
    dom:SetSetting("norv.syslog.cef.vendor", "V\n" .. forged)
    dom:SetSetting("norv.syslog.cef.product", "P\r\127")
    dom:SetSetting("norv.syslog.cef.version", "1\t\226\128\1680")
    dom:SetSetting("norv.syslog.hostname", "h\n7\tdvchost=evil")
    -- Every control character (C1 and the line separators too) is a blank in
    -- the CEF header, whose bars are escaped, and '_' in the native form.
    golden("hostile_names", { payload(ETHERNET, { flags = ETHERNET.flags + 2 }) }, cfg)
  end)

  it("cuts a message at its buffer on a character boundary", function()
    -- The buffer ends at byte 65535; k ASCII bytes in front of the name move
    -- that end over every byte of the name's multi-byte characters.
    for _, case in ipairs {
      { "\195\169", false }, { "\226\130\172", false }, { "\240\159\152\128", false },
      { "\226\130\172", true } } do
      local char, cef = case[1], case[2]
      for k = 0, #char - 1 do
        local name = string.rep("n", k) .. string.rep(char, math.ceil(70000 / #char))
        local cfg = config(cef and name)
        local head = HEADER .. "4711|"
        if not cef then
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

  it("gives an empty string for a record that is too short or a block too long", function()
    local record = norvi.EncodeRecord(packet())
    assert.are.equal("", log:SyslogFormat(record:sub(1, 191), "", config()))
    assert.are.equal("", log:SyslogFormat(nil, "", config()))
    assert.are.equal("", log:SyslogFormat(record, string.rep("x", 65345), config()))
    assert.are_not.equal("", log:SyslogFormat(record .. "extra", string.rep("x", 65344), config()))
  end)

  -- The cases of the golden messages: records in both forms and every format.
  local cases = {
    { "examples", packet(), payload() },
    { "reason_names", packet { id = 0, reason = 0 },
      payload { id = 0, reason = -500, flags = 0x50 }, payload { id = 0, reason = -500 } },
    -- Action 0 takes the rule's filterAction, whatever its number.
    { "actions", packet { action = 5 }, packet { action = 2 }, packet { action = 0, id = 1043 },
      packet { action = 0, id = 1044 }, packet { action = 0, id = 1045 } },
    -- An empty identifier gives 10.
    { "severities", payload { id = 4712 }, payload { id = 4713 }, payload { id = 4714 },
      payload { id = 4715 }, payload { id = 555 } },
    -- Printable notes, '~' included, are text of at most 16 bytes.
    { "notes", payload { note = "0123456789abcdef", note_len = 20 }, payload { note = "a~b" } },
    { "escaped_names", payload { id = 4716, note = "x=y\\" } },
    -- Data goes as base64 with format 2 and the trailing-data flag only; a
    -- block announced but not handed in reads as zero bytes.
    { "packet_data", { payload { log_flags = 0x02 + 0x08, data_len = 5 }, "hello" },
      { payload { data_len = 5 }, "hello" }, payload { log_flags = 0x0A, data_len = 0 },
      payload { log_flags = 0x0A, data_len = 3 } },
    { "name_beyond_ascii", payload(), cfg = config("Größe x") },
    { "name_no_utf8", payload(), cfg = config("ab\255") },
    { "no_configuration", packet(), cfg = false },
    { "configuration_not_a_table", payload(), cfg = "not a table" },
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
      golden(case[1], { table.unpack(case, 2) }, case.cfg)
    end)
  end
end)
