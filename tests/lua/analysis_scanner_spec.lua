-- Host and port scanners: flows counted per time bin, bins closed by
-- CacheMaintenance on the manual clock, the likelihood ratio walk, the
-- immediate flag, and the script entry.
local norv = require "norv"
local norvi = require "norvi"
local analysis = require "analysis_support"

local SCANNER = "192.0.2.7"
local SERVER = { "198.51.100.2" }
local FLAGGED = "7001 HostOrPortScan|192.0.2.7|6|0|1|16"  -- four bins of four ports

-- Only HostOrPortScan enabled, blocking for seconds.
local function scanning(seconds)
  return analysis.configuration({ [1] = { blockAttackerSeconds = seconds or 0 } })
end

-- Flows from source to each of the addresses on ports first to first+count-1.
local function touch(fixture, config, source, addresses, first, count, protocol)
  for _, address in ipairs(addresses) do
    for port = first, first + count - 1 do
      fixture:write(config, { iph_src = source, iph_dest = address, th_dport = port,
                              iph_proto = protocol or 6 })
    end
  end
end

-- count suspect bins of source: in each it touches four new ports of the
-- server on each of the protocols (TCP alone by default), then the bin closes.
local next_port = 1000
local function suspect_bins(fixture, config, source, count, protocols)
  for _ = 1, count do
    for _, protocol in ipairs(protocols or { 6 }) do
      touch(fixture, config, source, SERVER, next_port, 4, protocol)
    end
    next_port = next_port + 4
    fixture:close_bin(config)
  end
end

describe("scanner scoring", function()
  local fixture

  local function restart(settings)
    fixture:finish()
    fixture = analysis.fixture(settings)
  end

  before_each(function() fixture = analysis.fixture() end)
  after_each(function() fixture:finish() end)

  it("flags a port scanner at its fourth suspect bin, on one protocol only", function()
    local config = scanning()
    suspect_bins(fixture, config, SCANNER, 3, { 6, 17 })
    assert.are.same({}, fixture:events())
    -- Flagged on TCP, the source is known as a scanner on UDP as well.
    suspect_bins(fixture, config, SCANNER, 1, { 6, 17 })
    assert.are.same({ FLAGGED }, fixture:events())
    -- Known now: no bin of it is scored, on either protocol, until the entry
    -- expires. Then the TCP walk starts afresh, while the UDP candidate, left
    -- as it stood but for the empty bin, flags the source at its second bin.
    suspect_bins(fixture, config, SCANNER, 2, { 6, 17 })
    norv.AdvanceTicks(300000)
    fixture.log:CacheMaintenance(config)
    suspect_bins(fixture, config, SCANNER, 1, { 6, 17 })
    assert.are.same({}, fixture:events())
    suspect_bins(fixture, config, SCANNER, 1, { 6, 17 })
    assert.are.same({ "7001 HostOrPortScan|192.0.2.7|17|0|1|20" }, fixture:events())
  end)

  it("finds a host scanner and leaves a clean source alone", function()
    local config = scanning()
    local hosts = { "198.51.100.1", "198.51.100.2", "198.51.100.3", "198.51.100.4" }
    for _ = 1, 4 do
      touch(fixture, config, "203.0.113.1", hosts, 445, 1)
      -- Three ports, one of them twice: counted once.
      touch(fixture, config, "203.0.113.2", SERVER, 22, 3)
      touch(fixture, config, "203.0.113.2", SERVER, 22, 1)
      fixture:close_bin(config)
    end
    assert.are.same({ "7001 HostOrPortScan|203.0.113.1|6|0|4|1" }, fixture:events())
  end)

  it("decays a candidate only in bins in which nobody was active, down to the floor", function()
    local config = scanning()
    -- 4, kept over an active bin, then 1 to 0.015625 in four empty bins:
    -- four suspect bins bring it back to 4 only.
    suspect_bins(fixture, config, SCANNER, 1)
    touch(fixture, config, "203.0.113.50", SERVER, 80, 1)
    fixture:close_bin(config)
    for _ = 1, 4 do fixture:close_bin(config) end
    suspect_bins(fixture, config, SCANNER, 4)
    assert.are.same({}, fixture:events())
    -- Below the floor after five empty bins: gone, and a new candidate
    -- reaches the ceiling in four suspect bins.
    for _ = 1, 5 do fixture:close_bin(config) end
    suspect_bins(fixture, config, SCANNER, 4)
    assert.are.same({ FLAGGED }, fixture:events())
  end)

  it("flags more than 64 ports per address at once and blocks through the given table",
     function()
    local config = scanning(60)
    touch(fixture, config, "203.0.113.1", SERVER, 1000, 64)
    touch(fixture, config, "203.0.113.2", SERVER, 1000, 65)
    touch(fixture, config, "203.0.113.3", { "198.51.100.2", "198.51.100.3" }, 1000, 130)
    -- Only the source's own entry would spare it.
    config.platformInterfaceMap["198.51.100.2"] = {}
    fixture:close_bin(config)
    assert.are.same({ "7001 HostOrPortScan|203.0.113.2|6|60|1|65",
                      "7001 HostOrPortScan|203.0.113.3|6|60|2|130" }, fixture:events())
    local requests = norvi.BlacklistRequests()
    assert.are.same({ "203.0.113.2", 60000, "203.0.113.3" },
                    { requests[1].address, requests[1].milliseconds, requests[2].address })
    -- The candidate of 64 ports is dropped when its source is flagged at once:
    -- once the block is over, a new one counts only its own ports.
    touch(fixture, config, "203.0.113.1", SERVER, 2000, 70)
    fixture:close_bin(config)
    assert.are.same({ "7001 HostOrPortScan|203.0.113.1|6|60|1|70" }, fixture:events())
    norv.AdvanceTicks(60000)
    fixture.log:CacheMaintenance(config)
    suspect_bins(fixture, config, "203.0.113.1", 4)
    assert.are.same({ "7001 HostOrPortScan|203.0.113.1|6|60|1|16" }, fixture:events())
  end)

  it("drops every candidate when scanner detection is switched off", function()
    local config = scanning()
    suspect_bins(fixture, config, SCANNER, 1)
    fixture.dom:ConditionRaise("app.configUpdated")
    local off = analysis.configuration({ [2] = { blockAttackerSeconds = 0 } })
    touch(fixture, off, "203.0.113.9", SERVER, 80, 1)
    fixture:close_bin(off)
    fixture.dom:ConditionRaise("app.configUpdated")
    suspect_bins(fixture, config, SCANNER, 3)
    assert.are.same({}, fixture:events())
  end)

  it("leaves a ratio exactly at the ceiling or at the floor, or just made, in place", function()
    -- Two suspect bins reach 16.000000000000007; two clean bins after the
    -- first suspect bin reach 0.25000000000000006.
    restart({ ["norvp.vexil.analysis.ScanLikelihoodRatioCeiling"] = "16.000000000000007",
              ["norvp.vexil.analysis.ScanLikelihoodRatioFloor"] = "0.25000000000000006" })
    local config = scanning()
    suspect_bins(fixture, config, SCANNER, 2)
    assert.are.same({}, fixture:events())
    suspect_bins(fixture, config, SCANNER, 1)
    assert.are.same({ "7001 HostOrPortScan|192.0.2.7|6|0|1|12" }, fixture:events())
    -- Kept at the floor, the candidate reports the ports of its first bin too.
    suspect_bins(fixture, config, "203.0.113.1", 1)
    for _ = 1, 2 do fixture:close_bin(config) end
    suspect_bins(fixture, config, "203.0.113.1", 3)
    assert.are.same({ "7001 HostOrPortScan|203.0.113.1|6|0|1|16" }, fixture:events())

    -- The ceiling is first tested one bin after a candidate is made.
    restart({ ["norvp.vexil.analysis.ScanLikelihoodRatioCeiling"] = "3.5" })
    suspect_bins(fixture, config, SCANNER, 1)
    assert.are.same({}, fixture:events())
    suspect_bins(fixture, config, SCANNER, 1)
    assert.are.same({ "7001 HostOrPortScan|192.0.2.7|6|0|1|8" }, fixture:events())
  end)

  -- The bin length setting is read by LogData_test.
  it("closes a bin only once more than its length has passed, across the wrap", function()
    norv.SetTicks(0xFFFFF000)
    assert.is_false(fixture.log:CacheMaintenance(scanning()))
    touch(fixture, scanning(), SCANNER, SERVER, 80, 1)
    norv.AdvanceTicks(analysis.BIN)
    assert.is_true(fixture.log:CacheMaintenance(scanning()))
    norv.AdvanceTicks(1)
    assert.is_false(fixture.log:CacheMaintenance(scanning()))
  end)

  it("raises argument errors, and the table's own error once the pass is done", function()
    for _, case in ipairs { { fixture.log, "config", "#2 .*lua table expected" },
                            { fixture.dom, {}, "#1 .*LogData object expected" } } do
      assert.error_matches(function() fixture.log.CacheMaintenance(case[1], case[2]) end,
                           "bad argument " .. case[3])
    end

    local config = scanning(60)
    touch(fixture, config, SCANNER, SERVER, 1, 65)
    touch(fixture, config, "203.0.113.4", SERVER, 1, 65)
    local reads = 0
    local broken = setmetatable({}, { __index = function()
      reads = reads + 1
      error("broken table")
    end })
    norv.AdvanceTicks(analysis.BIN + 1)
    assert.error_matches(function() fixture.log:CacheMaintenance(broken) end, "broken table")
    -- Both detections are reported (in the order of the raw address words);
    -- nothing more is read from the table, so neither source is blocked.
    assert.are.same({ "7001 HostOrPortScan|203.0.113.4|6|0|1|65",
                      "7001 HostOrPortScan|192.0.2.7|6|0|1|65" }, fixture:events())
    assert.are.same({}, norvi.BlacklistRequests())
    assert.are.equal(1, reads)
    assert.is_false(fixture.log:CacheMaintenance(config))
  end)
end)
