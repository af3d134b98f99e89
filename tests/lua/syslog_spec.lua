-- log:SyslogFormat: one driver record as a syslog message, native or CEF.
-- The message texts of the golden cases stand in tests/golden/syslog, one
-- file per case; VEXIL_WRITE_GOLDEN=1 writes them anew (review the diff).
local support = require "support"
local norv = require "norv"
assert(require "vexil" == true)
local norvi = require "norvi"

local golden = (os.getenv("VEXIL_SOURCE_DIR") or ".") .. "/tests/golden/syslog/"
local writeGolden = os.getenv("VEXIL_WRITE_GOLDEN") == "1"

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

-- The record of the examples: a TCP SYN from 192.0.2.7 to port 23, denied.
local function packet(fields)
  local record = {
    time_sec = 1700000000, end_time_sec = 1700000000, count = 1,
    flags = 0x10 + 0x40, iph_proto = 6, iph_src = "192.0.2.7", iph_dest = "198.51.100.2",
    iph_total_len = 60, iph_frag_off = 0x4000, packet_len = 60,
    th_sport = 40123, th_dport = 23, tcph_flags = 0x02, action = 1, id = 1042,
  }
  for k, v in pairs(fields or {}) do record[k] = v end
  return record
end

-- The payload record of the examples: filter 4711 on a web request.
local function payload(fields)
  local record = packet {
    reason = -1, id = 4711, action = 0x82, flags = 0x10 + 0x40 + 0x02, packet_len = 400,
    th_dport = 80, tcph_flags = 0x18, iph_frag_off = 0, note = "abc", log_flags = 0x08,
    packet_pos = 120, stream_pos = 4096,
  }
  for k, v in pairs(fields or {}) do record[k] = v end
  return record
end

local function ipv6(fields)
  local record = packet {
    flags = 0x20 + 0x40, ipv6h_next = 6, ipv6h_src = "2001:db8::7",
    ipv6h_dest = "fe80::1:2:0:ab", th_sport = 443, th_dport = 51000, tcph_flags = 0x12,
    packet_len = 80,
  }
  record.iph_src, record.iph_dest, record.iph_proto, record.iph_frag_off = nil, nil, nil, nil
  record.iph_total_len = nil
  for k, v in pairs(fields or {}) do record[k] = v end
  return record
end

local ethernet = { flags = 0x08 + 0x10 + 0x40, eth_dest = "\0\1\2\3\4\5", eth_src = "\10\11\12\13\14\15",
                   eth_type = 0x0800, interface_mac = "\0\17\34\51\68\85\0\0" }

local function with(base, extra)
  local fields = {}
  for k, v in pairs(base) do fields[k] = v end
  for k, v in pairs(extra) do fields[k] = v end
  return fields
end

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

  it("takes the form and the format afresh for every message", function()
    local native = format(packet(), false, 0)
    dom:SetSetting("norv.syslog.cef.vendor", "Ven|dor")
    local cef = format(packet(), true, 0)
    local head = "CEF:0|Ven\\|dor|Agent|1.0|21|1042|5|"
    assert.are.equal(head, cef:sub(1, #head))
    assert.are.equal(native, format(packet(), false, 0))
  end)

  it("names the event by the reason, or leaves the name empty", function()
    assert.matches("^REASON= HOSTID=7 act=Deny ", format(packet { id = 0, reason = 0 }, false, 0))
    assert.matches("^REASON=Fragmented HOSTID=7 ",
                   format(packet { id = 0, reason = 108 }, false, 0))
    assert.matches("^REASON=0x63 HOSTID=7 ", format(packet { id = 0, reason = 99 }, false, 0))
    assert.matches("^" .. HEADER .. "108|Fragmented|5|",
                   format(packet { id = 0, reason = 108 }, true, 0))
    assert.matches("^REASON=URI_Path_Depth_Exceeded REV HOSTID=7 ",
                   format(payload { id = 0, reason = -500, flags = 0x50 }, false, 0))
    assert.matches("^" .. HEADER .. "500|URI Path Depth Exceeded|5|",
                   format(payload { id = 0, reason = -500 }, true, 0))
  end)

  it("derives act from the record's action or the rule's", function()
    local function act(fields, fmt)
      return format(packet(fields), false, fmt or 0):match(" act=(%S+)")
    end
    assert.are.equal("Deny", act { action = 1 })
    assert.are.equal("IDS:Deny", act { action = 0x81 })
    assert.are.equal("Log", act { action = 5 })
    assert.are.equal("Log", act { action = 2 })
    -- action 0: the rule's filterAction, whatever its number.
    assert.are.equal("Force_Allow", act { action = 0, id = 1043 })
    assert.are.equal("Log", act { action = 0, id = 1044 })
    assert.are.equal("77", act { action = 0, id = 1045 })
    assert.are.equal("Deny", act { action = 0, id = 9999 })
    -- Format 1 has no act in packet records; format 2 escapes rather
    -- than joins the words.
    assert.is_nil(act({ action = 0, id = 1043 }, 1))
    assert.are.equal("Force Allow", format(packet { action = 0, id = 1043 }, false, 2)
                                      :match(" act=(.-) src="))
    -- The CEF signature and severity follow the same action.
    assert.matches("|20|1044|0|", format(packet { action = 0, id = 1044 }, true, 2), 1, true)
    assert.matches("|21|1043|5|", format(packet { action = 0, id = 1043 }, true, 2), 1, true)
  end)

  it("maps a payload filter's severity, and an empty identifier to 10", function()
    local function head(id)
      return format(payload { id = id }, true, 0):sub(#HEADER + 1):match("^[^|]*|[^|]*|%d+|")
    end
    assert.are.equal("10|Outbound leak|3|", head(4712))
    assert.are.equal("S-3|Sev three|8|", head(4713))
    assert.are.equal("S-4|Sev four|10|", head(4714))
    assert.are.equal("S-7|Sev seven|9|", head(4715))
    assert.are.equal("10|555|9|", head(555))
  end)

  it("shows STATUS only for reasons below -1, with the label by format", function()
    assert.is_nil(format(payload { reason = -1 }, false, 0):find("STATUS", 1, true))
    assert.matches(" act=IDS:Reset STATUS=%-2 POS=", format(payload { reason = -2 }, false, 0))
    assert.matches(" STATUS=%-500 cn2Label=DPI Reason POS=120 cn3Label=DPI Packet Position ",
                   format(payload { reason = -500 }, false, 2))
    assert.matches(" cn2=%-500 cn3=120 cs5=4096 cs1=abc cs6=1$",
                   format(payload { reason = -500 }, true, 1))
  end)

  it("writes the note as text when printable, else as base64", function()
    local function note(fields, cef)
      return format(payload(fields), cef, 0):match(cef and " cs1=(.-) cs6=" or " NOTE=(.-) FLAGS=")
    end
    assert.are.equal("a_b=c|d\\e", note({ note = "a b=c|d\\e" }, false))
    assert.are.equal("a b\\=c|d\\\\e", note({ note = "a b=c|d\\e" }, true))
    assert.are.equal("0123456789abcdef", note({ note = "0123456789abcdef", note_len = 20 }, false))
    assert.are.equal("AQIDYWJj", note({ note = "\1\2\3abc" }, false))
    assert.are.equal("AQIDYWJj", note({ note = "\1\2\3abc" }, true))
    assert.are.equal("YQpi", note({ note = "a\nb" }, false))
    assert.are.equal("YWJjAA\\=\\=", note({ note = "abc\0" }, true))
    assert.is_nil(format(payload { note = "", note_len = 0 }, false, 0):find("NOTE", 1, true))
  end)

  it("escapes the header fields and the extension values of CEF", function()
    local message = format(payload { id = 4716, note = "x=y\\" }, true, 2)
    local head = HEADER .. "id\\|\\\\=|a\\|b\\\\c=d\nx|6|" .. IDENTITY .. " src="
    assert.are.equal(head, message:sub(1, #head))
    assert.matches(" cs1=x\\=y\\\\ cs1Label=DPI Note ", message, 1, true)
    -- The native form joins the blanks of the name only.
    assert.matches("^REASON=PLD:a|b\\c=d\nx FWD HOSTID=7 ",
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

  it("cuts a message at its buffer and reports that for payload records", function()
    local cfg = config()
    cfg.interfaceMap["0011223344550000"].name = string.rep("n", 70000)
    local fields = with(ethernet, { flags = ethernet.flags + 1 })
    norv.OperatorLog()
    local message = format(packet(fields), false, 0, "", cfg)
    assert.are.equal(65535, #message)
    assert.matches("^REASON=PKT:1042 HOSTID=7 act=Deny IN= OUT=nnnn", message)
    assert.are.same({}, norv.OperatorLog())
    message = format(payload(fields), false, 0, "", cfg)
    assert.are.equal(65535, #message)
    local log = table.concat(norv.OperatorLog(), "\n")
    assert.matches("strlen(LogBuf) < sizeof(LogBuf) - 1", log, 1, true)
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

  it("refuses anything but a log object at position 1", function()
    local ok, err = pcall(log.SyslogFormat, dom, norvi.EncodeRecord(packet()), "", config())
    assert.is_false(ok)
    assert.matches("LogData object expected", err)
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
    { "ethernet_in", packet(ethernet) },
    { "ethernet_out", packet(with(ethernet, { flags = ethernet.flags + 1, eth_type = 0x86DD })) },
    { "ethernet_unknown_type", packet(with(ethernet, { eth_type = 0x1234 })) },
    { "ethernet_no_interface", packet(with(ethernet, { interface_mac = "\1" })) },
    { "ethernet_payload_out", payload(with(ethernet, { id = 4712, flags = ethernet.flags + 2 })) },
    { "note_text", payload { note = "GET /a b=c|d", reason = -502 } },
    { "note_binary", payload { note = "\0\1\2\3\4\5\6\7\8\9\10\11\12\13\14\15" } },
    { "unknown_rule", packet { id = 999, action = 0 } },
    { "unknown_filter", payload { id = 555, action = 0x01, flags = 0x50 } },
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
      local path = golden .. case[1] .. ".txt"
      if writeGolden then
        local file = assert(io.open(path, "wb"))
        file:write(text)
        file:close()
      end
      assert.are.equal(support.read(path), text)
    end)
  end
end)
