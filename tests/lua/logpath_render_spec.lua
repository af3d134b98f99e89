-- The text of a log line, as the file holds it: full lines of representative
-- records against a baseline (the packet details column, fragment texts, the
-- hex dumps of the trailing data and the packet bytes), and the interface id
-- memo.
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
      -- TCP flags come first with their trailing blank; ICMPv6 has no type
      -- and code.
      { { iph_proto = 6, tcph_flags = 0xFF, iph_frag_off = 0x4000 } },
      { { flags = 0x61, iph_proto = false, ipv6h_next = 58, reason = 108, ipv6h_src = "::1",
          ipv6h_dest = "::2", icmph_type = 1 } },
      -- The flag 0x04 alone shows data_index, not the data; packet bytes are
      -- clipped to what arrived.
      { { log_flags = 0x04, data_index = 6, data_len = 2 }, "\1\2" },
      { { packet_data_len = 10 }, "", "\1\2\3\4" },
      { { packet_data_len = 2 }, "", "\1\2\3\4" },
    }
    -- Fragment bits and offsets, shown by the reason and the flag word.
    for _, c in ipairs { { 100, 0x2005 }, { 100, 0x4000 }, { 100, 0x6000 }, { 100, 0x0000 },
                         { 107, 0x2005 }, { 113, 0x2005 }, { 108, 0x2005 }, { 112, 0x4000 },
                         { 110, 0x0001 }, { 109, 0x7fff } } do
      records[#records + 1] = { { reason = c[1], iph_frag_off = c[2], iph_total_len = 1500 } }
    end
    for _, r in ipairs(records) do
      assert.is_true(logpath.write(env, r[1], nil, r[2], r[3]))
    end
    local text = assert(support.read(env.path), "no log file written")
    assert.are.equal(support.golden("logpath_render.log", text), text)
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
end)
