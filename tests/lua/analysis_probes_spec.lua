-- The analysis gate: which records are analysed, how a single TCP packet is
-- recognised as a stealth probe, and what goes on to the flow tracking.
local norv = require "norv"
local analysis = require "analysis_support"

local ALL = analysis.all_probes()

describe("stealth probe recognition", function()
  local fixture

  before_each(function() fixture = analysis.fixture() end)
  after_each(function() fixture:finish() end)

  it("takes the first rule that holds, in the order of the table", function()
    local config = analysis.configuration(ALL)
    local cases = {
      { flags = 0x2B, df = false, event = "7000 FingerprintScan" },  -- URG PSH SYN FIN
      { flags = 0x00, df = true, event = "7000 FingerprintScan" },   -- DF and no flags
      { flags = 0x29, df = false, event = "7004 XmasScan" },         -- URG PSH FIN
      { flags = 0xFF, df = true, event = "7004 XmasScan" },          -- has SYN and FIN too
      { flags = 0x03, df = false, event = "7003 SynFinScan" },
      { flags = 0x1B, df = true, event = "7003 SynFinScan" },
      { flags = 0x00, df = false, event = "7002 NullScan" },
      { flags = 0x02, df = true },
      { flags = 0x01, df = false },
      { flags = 0x28, df = false },
    }
    for i, case in ipairs(cases) do
      local source = "203.0.113." .. i
      fixture:write(config, { iph_src = source, tcph_flags = case.flags,
                              iph_frag_off = case.df and 0x4000 or 0 })
      local expected = case.event and { case.event .. "|" .. source .. "|6|0" } or {}
      assert.are.same(expected, fixture:events(), string.format("flags 0x%02X", case.flags))
      -- A recognised probe is not counted as a flow; anything else is.
      assert.are.equal(case.event == nil, fixture.log:CacheMaintenance(config),
                       string.format("flags 0x%02X", case.flags))
      fixture:close_bin(config)
    end
  end)

  it("counts a stealth packet of a disabled type as a flow", function()
    local config = analysis.configuration({ [1] = { blockAttackerSeconds = 0 } })
    fixture:write(config, { tcph_flags = 0 })
    assert.are.same({}, fixture:events())
    assert.is_true(fixture.log:CacheMaintenance(config))

    -- Enabled: reported, not counted, and a suppressed repeat is not counted either.
    config = analysis.configuration(ALL)
    fixture.dom:ConditionRaise("app.configUpdated")
    fixture:close_bin(config)
    fixture:write(config, { tcph_flags = 0 })
    fixture:write(config, { tcph_flags = 0 })
    assert.are.same({ "7002 NullScan|192.0.2.7|6|0" }, fixture:events())
    assert.is_false(fixture.log:CacheMaintenance(config))
  end)

  it("analyses nothing at all while every type is disabled", function()
    local config = analysis.configuration({})
    for _, flags in ipairs({ 0x00, 0xFF, 0x02 }) do
      fixture:write(config, { tcph_flags = flags })
    end
    assert.are.same({}, fixture:events())
    assert.is_false(fixture.log:CacheMaintenance(config))
  end)

  it("drops what cannot be analysed and counts the rest as flows", function()
    local config = analysis.configuration({ [1] = { blockAttackerSeconds = 0 } })
    local cases = {
      { "a TCP SYN", {}, true },
      { "UDP", { iph_proto = 17, tcph_flags = 0 }, true },
      { "a payload record", { reason = -500 }, false },
      { "an outgoing packet", { flags = 0x51 }, false },
      { "ICMP", { iph_proto = 1 }, false },
      { "no transport header", { flags = 0x10 }, false },
      { "two zero ports", { th_sport = 0, th_dport = 0 }, false },
      { "one zero port", { th_sport = 0 }, true },
      { "two zero addresses", { iph_src = "0.0.0.0", iph_dest = "0.0.0.0" }, false },
      { "a zero source", { iph_src = "0.0.0.0" }, true },
      { "a normal close", { reason = 10000 }, false },
      { "the other close", { reason = 10001 }, true },
      { "the action Log", { action = 6 }, false },
      { "Log, detect only", { action = 0x86 }, false },
      { "another detect-only action", { action = 0x81 }, true },
      { "a dropped retransmit", { reason = 139 }, false },
      { "a source in the history list", { flags = 0x150 }, false },
    }
    for _, case in ipairs(cases) do
      fixture:write(config, case[2])
      assert.are.equal(case[3], fixture.log:CacheMaintenance(config), case[1])
      fixture:close_bin(config)
    end
    assert.are.same({}, fixture:events())
  end)

  it("classifies no close notification of the other kind, but counts it", function()
    local config = analysis.configuration(ALL)
    fixture:write(config, { reason = 10001, tcph_flags = 0 })
    assert.are.same({}, fixture:events())
    assert.is_true(fixture.log:CacheMaintenance(config))
  end)

  it("never counts or classifies IPv6", function()
    local config = analysis.configuration(ALL)
    for _, flags in ipairs({ 0x00, 0xFF, 0x2B, 0x02 }) do
      fixture:write(config, { flags = 0x60, ipv6h_next = 6, ipv6h_src = "2001:db8::7",
                              ipv6h_dest = "2001:db8::1", tcph_flags = flags })
      fixture:write(config, { flags = 0x60, ipv6h_next = 17, ipv6h_src = "::",
                              ipv6h_dest = "2001:db8::1", tcph_flags = flags })
    end
    assert.are.same({}, fixture:events())
    assert.is_false(fixture.log:CacheMaintenance(config))
  end)

  it("analyses no whitelisted source and only listed destinations", function()
    local config = analysis.configuration(ALL, {
      whitelistIpList = { items = "192.0.2.0/24", name = "trusted" },
      destIpList = { items = "198.51.100.2, 198.51.100.9", name = "servers" },
    })
    -- A whitelisted source is dropped even towards a listed destination.
    fixture:write(config, { tcph_flags = 0 })
    fixture:write(config, {})
    assert.are.same({}, fixture:events())
    assert.is_false(fixture.log:CacheMaintenance(config))
    -- Another source: only the listed destinations are analysed.
    fixture:write(config, { iph_src = "203.0.113.5", iph_dest = "198.51.100.3", tcph_flags = 0 })
    fixture:write(config, { iph_src = "203.0.113.5", iph_dest = "198.51.100.3" })
    assert.are.same({}, fixture:events())
    assert.is_false(fixture.log:CacheMaintenance(config))
    fixture:write(config, { iph_src = "203.0.113.5", iph_dest = "198.51.100.9", tcph_flags = 0 })
    fixture:write(config, { iph_src = "203.0.113.5", iph_dest = "198.51.100.9" })
    assert.are.same({ "7002 NullScan|203.0.113.5|6|0" }, fixture:events())
    assert.is_true(fixture.log:CacheMaintenance(config))
  end)

  it("analyses no destination at all with an empty destination list", function()
    local config = analysis.configuration(ALL, { destIpList = { items = "", name = "none" } })
    fixture:write(config, { tcph_flags = 0 })
    fixture:write(config, {})
    assert.are.same({}, fixture:events())
    assert.is_false(fixture.log:CacheMaintenance(config))
  end)
end)

describe("the IgnoreTcpFlags setting", function()
  it("silences only flag bytes that no stealth rule matched", function()
    local fixture = analysis.fixture({ ["norvp.vexil.analysis.IgnoreTcpFlags"] = "0x10, 0;3" })
    local config = analysis.configuration(ALL)
    fixture:write(config, { tcph_flags = 0x10 })
    assert.is_false(fixture.log:CacheMaintenance(config))
    fixture:write(config, { tcph_flags = 0x00 })
    fixture:write(config, { tcph_flags = 0x03 })
    assert.are.same({ "7002 NullScan|192.0.2.7|6|0", "7003 SynFinScan|192.0.2.7|6|0" },
                    fixture:events())
    fixture:write(config, { tcph_flags = 0x12 })
    assert.is_true(fixture.log:CacheMaintenance(config))
    fixture:finish()
  end)

  it("traces the ignored byte when the category is on", function()
    norv.SetTrace("LogScan")
    local fixture = analysis.fixture({ ["norvp.vexil.analysis.IgnoreTcpFlags"] = "18" })
    norv.TraceLines()
    fixture:write(analysis.configuration(ALL), { tcph_flags = 0x12 })
    assert.are.same({ "Ignoring packet with TCP flags of 0x12." },
                    analysis.scan_traces("Ignoring packet"))
    norv.SetTrace("")
    fixture:finish()
  end)
end)
