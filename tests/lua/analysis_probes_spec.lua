-- The analysis gate: which records are analysed, how a single TCP packet is
-- recognised as a stealth probe, and what goes on to the flow tracking.
local analysis = require "analysis_support"

local ALL = analysis.all_probes()

-- Each case { name, record fields, counted as a flow, event } is written in a
-- bin of its own, from a source of its own unless it names one. A case with a
-- config brings that configuration in, for itself and the cases after it.
local function check(fixture, config, cases)
  for i, case in ipairs(cases) do
    if case.config then
      config = case.config
      fixture.dom:ConditionRaise("app.configUpdated")
    end
    local fields = case[2]
    if not fields.ipv6h_src then fields.iph_src = fields.iph_src or "203.0.113." .. i end
    fixture:write(config, fields)
    local expected = case[4] and { case[4] .. "|" .. fields.iph_src .. "|6|0" } or {}
    assert.are.same(expected, fixture:events(), case[1])
    assert.are.equal(case[3], fixture.log:CacheMaintenance(config), case[1])
    fixture:close_bin(config)
  end
end

describe("the analysis gate", function()
  local fixture

  before_each(function() fixture = analysis.fixture() end)
  after_each(function() fixture:finish() end)

  -- The first rule that holds decides; DF is read from the record, and a
  -- probe is not counted as a flow. Bytes no rule matches go on as flows.
  it("takes the first stealth rule that holds; a probe is not counted as a flow", function()
    check(fixture, analysis.configuration(ALL), {
      { "URG PSH SYN FIN", { tcph_flags = 0x2B }, false, "7000 FingerprintScan" },
      { "DF and no flags", { tcph_flags = 0x00, iph_frag_off = 0x4000 }, false,
        "7000 FingerprintScan" },
      { "URG PSH FIN", { tcph_flags = 0x29 }, false, "7004 XmasScan" },
      { "all flags, DF", { tcph_flags = 0xFF, iph_frag_off = 0x4000 }, false, "7004 XmasScan" },
      { "SYN FIN", { tcph_flags = 0x03 }, false, "7003 SynFinScan" },
      { "SYN FIN with URG PSH RST", { tcph_flags = 0x2F }, false, "7003 SynFinScan" },
      { "no flags", { tcph_flags = 0x00 }, false, "7002 NullScan" },
      { "SYN with DF", { tcph_flags = 0x02, iph_frag_off = 0x4000 }, true },
      { "URG PSH FIN with CWR", { tcph_flags = 0xA9 }, true },
      { "FIN", { tcph_flags = 0x01 }, true },
    })
  end)

  it("drops what cannot be analysed and counts the rest as flows", function()
    local lists = {
      whitelistIpList = { items = "192.0.2.0/24", name = "trusted" },
      destIpList = { items = "198.51.100.2, 198.51.100.9", name = "servers" },
    }
    check(fixture, analysis.configuration(ALL), {
      { "UDP, never classified", { iph_proto = 17, tcph_flags = 0 }, true },
      { "a payload record", { reason = -500, tcph_flags = 0 }, false },
      { "an outgoing packet", { flags = 0x51, tcph_flags = 0 }, false },
      { "ICMP", { iph_proto = 1 }, false },
      { "no transport header", { flags = 0x10 }, false },
      { "two zero ports", { th_sport = 0, th_dport = 0 }, false },
      { "one zero port", { th_sport = 0 }, true },
      { "two zero addresses", { iph_src = "0.0.0.0", iph_dest = "0.0.0.0" }, false },
      { "a zero source", { iph_src = "0.0.0.0" }, true },
      { "a normal close", { reason = 10000, tcph_flags = 0 }, false },
      { "the other close, never classified", { reason = 10001, tcph_flags = 0 }, true },
      { "Log, detect only", { action = 0x86 }, false },
      { "another detect-only action", { action = 0x81 }, true },
      { "a dropped retransmit", { reason = 139 }, false },
      { "a source in the history list", { flags = 0x150 }, false },
      { "IPv6 NULL", { flags = 0x60, ipv6h_next = 6, ipv6h_src = "2001:db8::7",
                       ipv6h_dest = "2001:db8::1", tcph_flags = 0 }, false },
      -- A stealth packet of a disabled type goes on as a flow; a repeat of
      -- an enabled one is silent and not counted either.
      { "NULL, only scanners enabled", { tcph_flags = 0, iph_src = "192.0.2.1" }, true,
        config = analysis.configuration({ [1] = { blockAttackerSeconds = 0 } }) },
      { "NULL, all enabled", { tcph_flags = 0, iph_src = "192.0.2.1" }, false, "7002 NullScan",
        config = analysis.configuration(ALL) },
      { "the same NULL again", { tcph_flags = 0, iph_src = "192.0.2.1" }, false },
      -- A fingerprint detection silences NULL and Xmas of its source, not the
      -- other way round.
      { "fingerprint after a NULL", { tcph_flags = 0x2B, iph_src = "192.0.2.1" }, false,
        "7000 FingerprintScan" },
      { "fingerprint", { tcph_flags = 0x2B, iph_src = "192.0.2.2" }, false,
        "7000 FingerprintScan" },
      { "NULL after a fingerprint", { tcph_flags = 0, iph_src = "192.0.2.2" }, false },
      { "Xmas after a fingerprint", { tcph_flags = 0xFF, iph_src = "192.0.2.2" }, false },
      { "SYN FIN after a fingerprint", { tcph_flags = 0x03, iph_src = "192.0.2.2" }, false,
        "7003 SynFinScan" },
      { "SYN, no type enabled", {}, false, config = analysis.configuration({}) },
      -- No whitelisted source, and only listed destinations; an empty list
      -- lets nothing through.
      { "whitelisted, to a listed server", { iph_src = "192.0.2.7", tcph_flags = 0 }, false,
        config = analysis.configuration(ALL, lists) },
      { "SYN to an unlisted destination", { iph_dest = "198.51.100.3" }, false },
      { "a listed destination", { iph_dest = "198.51.100.9", tcph_flags = 0 }, false,
        "7002 NullScan" },
      { "SYN to a listed destination", { iph_dest = "198.51.100.9" }, true },
      { "SYN, no destination listed", {}, false,
        config = analysis.configuration(ALL, { destIpList = { items = "", name = "none" } }) },
    })
  end)

  it("ignores the IgnoreTcpFlags bytes only where no stealth rule matched", function()
    fixture:finish()
    fixture = analysis.fixture({ ["norvp.vexil.analysis.IgnoreTcpFlags"] = "0x10, 0;3" })
    check(fixture, analysis.configuration(ALL), {
      { "ignored ACK", { tcph_flags = 0x10 }, false },
      { "NULL", { tcph_flags = 0x00 }, false, "7002 NullScan" },
      { "SYN FIN", { tcph_flags = 0x03 }, false, "7003 SynFinScan" },
      { "SYN ACK", { tcph_flags = 0x12 }, true },
    })
  end)
end)
