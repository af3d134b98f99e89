-- The log file: the text of its lines (representative records as whole lines
-- against a baseline: packet details, fragment texts, the hex dumps of the
-- trailing data and the packet bytes; the interface id memo) and the family
-- of files (rotation at the size limit, the shift of old copies, deletion
-- beyond the number kept, read positions, rename failures).
local support = require "support"
local logpath = require "logpath"

describe("the log file", function()
  local env, lineLength

  before_each(function()
    env = logpath.new()
    -- The length of one line of the default record, measured once.
    assert.is_true(logpath.write(env, {}))
    lineLength = #support.read(env.path)
    os.remove(env.path)
    env.dom:SetSetting("norvp.vexil.lastline.packet", 5)
    env.dom:SetSetting("norvp.vexil.lastline.payload", 6)
    env.dom:SetSetting("norvp.vexil.lastline.pcap", 7)
  end)
  after_each(function() logpath.finish(env) end)

  local function file(suffix) return env.path .. suffix end
  local function content(suffix) return support.read(file(suffix)) end
  local function positions()
    return { env.dom:GetSetting("norvp.vexil.lastline.packet"),
             env.dom:GetSetting("norvp.vexil.lastline.payload"),
             env.dom:GetSetting("norvp.vexil.lastline.pcap") }
  end

  -- Puts the copies, fills the live file so that the next line brings it to
  -- total bytes, and writes that line with packetFilterLog read afresh.
  local function write(total, filterLog, copies)
    for suffix, text in pairs(copies or {}) do support.put(file(suffix), text) end
    support.put(env.path, string.rep("x", total - lineLength))
    filterLog.cacheSize = 0
    logpath.update(env)
    return logpath.write(env, {}, logpath.config(filterLog))
  end

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

  it("rotates a file of exactly the size limit, not a byte less, and shifts the copies", function()
    assert.is_true(write(1023, { size = 1, keep = 8 }, { [".1"] = "one", [".2"] = "two",
                                                          [".bak"] = "stray" }))
    assert.are.same({ 1023, "5" }, { #content(""), positions()[1] })
    assert.is_true(write(1024, { size = 1, keep = 8 }))
    assert.is_false(logpath.exists(env.path))
    assert.are.same({ 1024, "one", "two", "stray" },
                    { #content(".1"), content(".2"), content(".3"), content(".bak") })
    assert.are.equal("600", support.mode(file(".1")))
    -- Read positions count lines of the live file; the capture role's stays.
    assert.are.same({ "0", "0", "7" }, positions())
    -- The next line starts a new live file.
    assert.is_true(logpath.write(env, {}, logpath.config({ cacheSize = 0, size = 1, keep = 8 })))
    assert.are.equal(lineLength, #content(""))
    assert.are.same({}, env.dom:AgentEvents())
  end)

  it("deletes all copies beyond a lowered limit in one rotation, and the live file too at one",
     function()
    local copies = { [".bak"] = "stray" }
    for n = 1, 7 do copies["." .. n] = tostring(n) end
    assert.is_true(write(1024, { size = 1, keep = 4 }, copies))
    assert.are.same({ 1024, "1", "2" }, { #content(".1"), content(".2"), content(".3") })
    for n = 4, 7 do assert.is_false(logpath.exists(file("." .. n)), n) end
    -- With only one file kept, the live file itself goes at the limit, and
    -- every copy, stray ones included.
    assert.is_true(write(2048, { size = 2, keep = 1 }))
    assert.are.equal(0, env.log:GetNumberOfOldCopies())
    for _, suffix in ipairs({ "", ".1", ".2", ".3", ".bak" }) do
      assert.is_false(logpath.exists(file(suffix)), suffix)
    end
  end)

  it("reports a copy that cannot be renamed as event 6007 and goes on", function()
    os.execute("mkdir -p '" .. file(".2") .. "/inside'")
    assert.is_true(write(1024, { size = 1, keep = 8 }, { [".1"] = "one" }))
    local detail = file(".1") .. "|" .. file(".2") .. "|Is a directory"
    assert.are.same({ { number = 6007, detail = detail } }, env.dom:AgentEvents())
    -- The live file still moved, over the copy that stayed in place.
    assert.are.equal(1024, #content(".1"))
  end)

  it("puts the copy number in place of the name's own extension", function()
    env.log:SetLogFileName("fw.log")
    env.path = env.folder .. "/fw.log"
    assert.is_true(write(1024, { size = 1, keep = 8 }))
    assert.are.equal(1024, #support.read(env.folder .. "/fw.1"))
    assert.is_false(logpath.exists(env.path))
  end)
end)
