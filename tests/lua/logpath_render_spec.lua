-- The text of a log line, as the file holds it: full lines of representative
-- records against a baseline, the packet details column, the interface id
-- memo and the hex dumps of the trailing data and the packet bytes.
local support = require "support"
local logpath = require "logpath"


describe("log line rendering", function()
  local env
  before_each(function() env = logpath.new() end)
  after_each(function() logpath.finish(env) end)

  it("writes representative records exactly as the baseline holds them", function()
    local records = {
      -- TCP over Ethernet, detect-only action, a rule id with the top bit.
      { { flags = 0x5B, eth_type = 0x0800, eth_src = "\1\2\3\4\5\6", eth_dest = "\10\11\12\13\14\15",
          interface_mac = "\170\187\204\221\238\255", iph_proto = 6, tcph_flags = 0x12,
          iph_frag_off = 0x4000, th_sport = 49152, th_dport = 443, action = 0x81, reason = 3,
          id = 0x80000001, packet_len = 60 } },
      -- UDP with printed-only log flags and positions.
      { { action = 2, id = 7, log_flags = 0x39, aux_count = 4, packet_pos = 12, stream_pos = 99 } },
      -- ICMP: type and code run straight into the DF text.
      { { flags = 0x50, iph_proto = 1, icmph_type = 3, icmph_code = 1, iph_frag_off = 0x4000,
          th_sport = false, th_dport = false } },
      -- IPv6 TCP: groups in full, no fragment text.
      { { flags = 0x61, iph_src = false, iph_dest = false, iph_proto = false, ipv6h_next = 6,
          ipv6h_src = "2001:db8::1", ipv6h_dest = "fe80::a:b", tcph_flags = 0x11, reason = 108,
          th_sport = 80, th_dport = 50000 } },
      -- A payload record with a binary note, trailing data and packet bytes.
      { { reason = -3, action = 1, id = 4711, note = "GET /\0\1", log_flags = 0x06,
          data_index = 9, data_len = 3, packet_data_len = 4 },
        "\1\2\255", "\222\173\190\239\0\0" },
    }
    for _, r in ipairs(records) do
      assert.is_true(logpath.write(env, r[1], nil, r[2], r[3]))
    end
    local text = assert(support.read(env.path), "no log file written")
    assert.are.equal(support.golden("logpath_render.log", text), text)
  end)

  it("shows fragment bits and offsets by the reason and the flag word", function()
    local cases = {
      { 100, 0x2005, "MF=1" }, { 100, 0x4000, "DF=1" }, { 100, 0x6000, "DF=1 MF=1" },
      { 100, 0x0000, "" }, { 107, 0x2005, "MF=1" }, { 113, 0x2005, "MF=1" },
      { 108, 0x2005, "DF=0 MF=1 FragOffs=40 IPTotalLen=1500" },
      { 112, 0x4000, "DF=1 MF=0 FragOffs=0 IPTotalLen=1500" },
      { 110, 0x0001, "DF=0 MF=0 FragOffs=8 IPTotalLen=1500" },
      { 109, 0x7fff, "DF=1 MF=1 FragOffs=65528 IPTotalLen=1500" },
    }
    for _, c in ipairs(cases) do
      logpath.write(env, { reason = c[1], iph_frag_off = c[2], iph_total_len = 1500 })
    end
    -- TCP flags come first with their trailing blank; IPv6 has no fragment
    -- text and ICMPv6 no type and code.
    logpath.write(env, { iph_proto = 6, tcph_flags = 0xFF, iph_frag_off = 0x4000 })
    logpath.write(env, { flags = 0x61, iph_proto = false, ipv6h_next = 58, reason = 108,
                         ipv6h_src = "::1", ipv6h_dest = "::2", icmph_type = 1 })
    local details = logpath.column(env, 11)
    for i, c in ipairs(cases) do
      assert.are.equal(c[3], details[i], "reason " .. c[1])
    end
    assert.are.equal("CWR ECE URG ACK PSH RST SYN FIN DF=1", details[#cases + 1])
    assert.are.equal("", details[#cases + 2])
    assert.are.equal("ICMPv6", logpath.column(env, 10)[#cases + 2])
  end)

  it("looks the interface id up only when the index changes", function()
    local config = logpath.config()
    logpath.write(env, { interface_index = 5 }, config)
    config.interfaceMap["001122334455"].id = 9
    logpath.write(env, { interface_index = 5 }, config)
    -- An index with no entry leaves the last id in place.
    logpath.write(env, { interface_index = 6 }, config)
    logpath.write(env, { interface_index = 5 }, config)
    assert.are.same({ "3", "3", "3", "9" }, logpath.column(env, 20))
  end)

  it("dumps the trailing block only with its flag, and clips packet bytes to what arrived", function()
    -- The flag 0x04 alone shows data_index, not the data.
    logpath.write(env, { log_flags = 0x04, data_index = 6, data_len = 2 }, nil, "\1\2")
    -- More packet bytes announced than arrived, and fewer.
    logpath.write(env, { packet_data_len = 10 }, nil, "", "\1\2\3\4")
    logpath.write(env, { packet_data_len = 2 }, nil, "", "\1\2\3\4")
    local c = logpath.columns(logpath.lines(env)[1])
    assert.are.same({ "16", "0", "6", "", "" }, { c[24], c[25], c[26], c[27], c[28] })
    assert.are.same({ "", "01020304", "0102" }, logpath.column(env, 28))
  end)
end)
