-- Host and port scanners: flows counted per time bin, bins closed by
-- CacheMaintenance on the manual clock, the likelihood ratio walk, the
-- immediate flag, and the script entry.
local norv = require "norv"
local norvi = require "norvi"
local analysis = require "analysis_support"

local SCANNER = "192.0.2.7"

-- Only HostOrPortScan enabled, blocking for seconds.
local function scanning(seconds)
  return analysis.configuration({ [1] = { blockAttackerSeconds = seconds or 0 } })
end

-- Flows from source to each of the addresses, on each of the ports.
local function touch(fixture, config, source, addresses, ports, protocol)
  for _, address in ipairs(addresses) do
    for _, port in ipairs(ports) do
      fixture:write(config, { iph_src = source, iph_dest = address, th_dport = port,
                              iph_proto = protocol or 6 })
    end
  end
end

local function range(first, count)
  local list = {}
  for i = 1, count do list[i] = first + i - 1 end
  return list
end

-- The ratios traced for source, from the given trace messages or from the
-- lines traced since the last look.
local function ratios(source, messages)
  local found = {}
  for _, message in ipairs(messages or analysis.scan_traces()) do
    if message:find("Likelihood ratio for IP " .. source .. " ", 1, true) then
      found[#found + 1] = message:match("is currently (%S+)$")
    end
  end
  return found
end

local function removals(messages)
  local found = {}
  for _, message in ipairs(messages) do
    if message:find("from consideration", 1, true) then found[#found + 1] = message end
  end
  return found
end

describe("scanner scoring", function()
  local fixture

  before_each(function()
    norv.SetTrace("LogScan")
    fixture = analysis.fixture()
    norv.TraceLines()
  end)

  after_each(function()
    fixture:finish()
    norv.SetTrace("")
  end)

  it("flags a port scanner at its fourth suspect bin with the accumulated counts", function()
    local config = scanning()
    local server = { "198.51.100.2" }
    for bin = 1, 3 do
      touch(fixture, config, SCANNER, server, range(100 * bin, 4))
      assert.is_true(fixture.log:CacheMaintenance(config))
      assert.is_false(fixture:close_bin(config))
    end
    -- The first suspect bin makes the candidate at 4; the others multiply.
    assert.are.same({ "16.000000", "64.000000" }, ratios(SCANNER))
    assert.are.same({}, fixture:events())
    touch(fixture, config, SCANNER, server, range(400, 4))
    fixture:close_bin(config)
    assert.are.same({ "256.000000" }, ratios(SCANNER))
    assert.are.same({ "7001 HostOrPortScan|192.0.2.7|6|0|1|16" }, fixture:events())

    -- Known now: further bins are not scored until the entry expires...
    touch(fixture, config, SCANNER, server, range(500, 4))
    fixture:close_bin(config)
    fixture:close_bin(config)
    assert.are.same({}, ratios(SCANNER))
    -- ...and then the walk starts afresh.
    norv.AdvanceTicks(300000)
    fixture.log:CacheMaintenance(config)
    for bin = 6, 8 do
      touch(fixture, config, SCANNER, server, range(100 * bin, 4))
      fixture:close_bin(config)
    end
    assert.are.same({}, fixture:events())
    touch(fixture, config, SCANNER, server, range(900, 4))
    fixture:close_bin(config)
    assert.are.same({ "7001 HostOrPortScan|192.0.2.7|6|0|1|16" }, fixture:events())
  end)

  it("finds a host scanner and leaves a clean source alone", function()
    local config = scanning()
    local hosts = { "198.51.100.1", "198.51.100.2", "198.51.100.3", "198.51.100.4" }
    for _ = 1, 4 do
      touch(fixture, config, "203.0.113.1", hosts, { 445 })
      touch(fixture, config, "203.0.113.2", { "198.51.100.9" }, { 22, 80, 443 })
      -- The same address and port again count once.
      touch(fixture, config, "203.0.113.2", { "198.51.100.9" }, { 22 })
      fixture:close_bin(config)
    end
    assert.are.same({ "7001 HostOrPortScan|203.0.113.1|6|0|4|1" }, fixture:events())
    assert.are.same({}, ratios("203.0.113.2"))
  end)

  it("clears a candidate after five bins in which nobody was active", function()
    local config = scanning()
    touch(fixture, config, SCANNER, { "198.51.100.2" }, range(1, 4))
    fixture:close_bin(config)
    for _ = 1, 4 do fixture:close_bin(config) end
    local messages = analysis.scan_traces()
    assert.are.same({ "1.000000", "0.250000", "0.062500", "0.015625" }, ratios(SCANNER, messages))
    assert.are.same({}, removals(messages))
    fixture:close_bin(config)
    messages = analysis.scan_traces()
    assert.are.same({ "0.003906" }, ratios(SCANNER, messages))
    assert.are.same({ "Removed IP 192.0.2.7 protocol 6 from consideration as a host/port scanner" },
                    removals(messages))
    -- Gone: three more suspect bins only bring a new candidate to 64.
    for bin = 1, 3 do
      touch(fixture, config, SCANNER, { "198.51.100.2" }, range(100 * bin, 4))
      fixture:close_bin(config)
    end
    assert.are.same({}, fixture:events())
  end)

  it("keeps a silent candidate's ratio while other sources are active", function()
    local config = scanning()
    touch(fixture, config, SCANNER, { "198.51.100.2" }, range(1, 4))
    fixture:close_bin(config)
    touch(fixture, config, "203.0.113.50", { "198.51.100.2" }, { 80 })
    fixture:close_bin(config)
    assert.are.same({}, ratios(SCANNER))
    for bin = 1, 3 do
      touch(fixture, config, SCANNER, { "198.51.100.2" }, range(100 * bin, 4))
      fixture:close_bin(config)
    end
    assert.are.same({ "7001 HostOrPortScan|192.0.2.7|6|0|1|16" }, fixture:events())
  end)

  it("flags more than 64 ports per address at once, with the bin's own counts", function()
    local config = scanning()
    touch(fixture, config, "203.0.113.1", { "198.51.100.2" }, range(1000, 64))
    touch(fixture, config, "203.0.113.2", { "198.51.100.2" }, range(1000, 65))
    touch(fixture, config, "203.0.113.3", { "198.51.100.2", "198.51.100.3" }, range(1000, 130))
    fixture:close_bin(config)
    assert.are.same({ "7001 HostOrPortScan|203.0.113.2|6|0|1|65",
                      "7001 HostOrPortScan|203.0.113.3|6|0|2|130" }, fixture:events())
    -- The candidate of 64 ports is dropped when its source is flagged at once.
    touch(fixture, config, "203.0.113.1", { "198.51.100.2" }, range(2000, 70))
    fixture:close_bin(config)
    assert.are.same({ "7001 HostOrPortScan|203.0.113.1|6|0|1|70" }, fixture:events())
    fixture:close_bin(config)
    assert.are.same({}, ratios("203.0.113.1"))
  end)

  it("stops scoring a source on every protocol once it is flagged on one", function()
    local config = scanning()
    for bin = 1, 4 do
      touch(fixture, config, SCANNER, { "198.51.100.2" }, range(100 * bin, 4), 6)
      touch(fixture, config, SCANNER, { "198.51.100.2" }, range(100 * bin, 4), 17)
      fixture:close_bin(config)
    end
    assert.are.same({ "7001 HostOrPortScan|192.0.2.7|6|0|1|16" }, fixture:events())
  end)

  it("drops every candidate when scanner detection is switched off", function()
    local config = scanning()
    touch(fixture, config, SCANNER, { "198.51.100.2" }, range(1, 4))
    fixture:close_bin(config)
    local off = analysis.configuration({ [2] = { blockAttackerSeconds = 0 } })
    fixture.dom:ConditionRaise("app.configUpdated")
    touch(fixture, off, "203.0.113.9", { "198.51.100.2" }, { 80 })
    fixture:close_bin(off)
    fixture.dom:ConditionRaise("app.configUpdated")
    for bin = 1, 3 do
      touch(fixture, config, SCANNER, { "198.51.100.2" }, range(100 * bin, 4))
      fixture:close_bin(config)
    end
    assert.are.same({}, fixture:events())
    assert.are.same({ "16.000000", "64.000000" }, ratios(SCANNER))
  end)

  it("leaves a ratio exactly at the ceiling or at the floor in place", function()
    fixture:finish()
    -- Two suspect bins reach 16.000000000000007; two clean bins from the
    -- first suspect bin reach 0.25000000000000006.
    fixture = analysis.fixture({
      ["norvp.vexil.analysis.ScanLikelihoodRatioCeiling"] = "16.000000000000007",
      ["norvp.vexil.analysis.ScanLikelihoodRatioFloor"] = "0.25000000000000006",
    })
    local config = scanning()
    for bin = 1, 2 do
      touch(fixture, config, SCANNER, { "198.51.100.2" }, range(100 * bin, 4))
      fixture:close_bin(config)
    end
    assert.are.same({}, fixture:events())
    touch(fixture, config, SCANNER, { "198.51.100.2" }, range(300, 4))
    fixture:close_bin(config)
    assert.are.same({ "7001 HostOrPortScan|192.0.2.7|6|0|1|12" }, fixture:events())

    touch(fixture, config, "203.0.113.1", { "198.51.100.2" }, range(1, 4))
    fixture:close_bin(config)
    fixture:close_bin(config)
    fixture:close_bin(config)
    local messages = analysis.scan_traces()
    assert.are.same({ "1.000000", "0.250000" }, ratios("203.0.113.1", messages))
    assert.are.same({}, removals(messages))
    fixture:close_bin(config)
    assert.are.equal(1, #removals(analysis.scan_traces()))
  end)

  it("does not test the ceiling when a candidate is made", function()
    fixture:finish()
    fixture = analysis.fixture({ ["norvp.vexil.analysis.ScanLikelihoodRatioCeiling"] = "3.5" })
    local config = scanning()
    touch(fixture, config, SCANNER, { "198.51.100.2" }, range(1, 4))
    fixture:close_bin(config)
    assert.are.same({}, fixture:events())
    touch(fixture, config, SCANNER, { "198.51.100.2" }, range(1, 4))
    fixture:close_bin(config)
    assert.are.same({ "7001 HostOrPortScan|192.0.2.7|6|0|1|4" }, fixture:events())
  end)
end)

describe("time bins", function()
  local fixture

  before_each(function() fixture = analysis.fixture() end)
  after_each(function() fixture:finish() end)

  it("close only once more than the bin length has passed, across the wrap", function()
    local config = scanning()
    norv.SetTicks(0xFFFFF000)
    assert.is_false(fixture.log:CacheMaintenance(config))
    touch(fixture, config, SCANNER, { "198.51.100.2" }, { 80 })
    norv.AdvanceTicks(analysis.BIN)
    assert.is_true(fixture.log:CacheMaintenance(config))
    norv.AdvanceTicks(1)
    assert.is_false(fixture.log:CacheMaintenance(config))
  end)

  it("follow the ScanTimeBinMillisec setting, the first opening with the object", function()
    fixture:finish()
    fixture = analysis.fixture({ ["norvp.vexil.analysis.ScanTimeBinMillisec"] = "500" })
    local config = scanning()
    touch(fixture, config, SCANNER, { "198.51.100.2" }, { 80 })
    norv.AdvanceTicks(500)
    assert.is_true(fixture.log:CacheMaintenance(config))
    norv.AdvanceTicks(1)
    assert.is_false(fixture.log:CacheMaintenance(config))
  end)
end)

describe("log:CacheMaintenance", function()
  local fixture, driver

  before_each(function()
    fixture = analysis.fixture()
    driver = norvi.open()
    fixture.log:SetNorvi(driver)
  end)

  after_each(function()
    fixture:finish()
    driver:close()
  end)

  it("raises argument errors for a missing table or object", function()
    local ok, message = pcall(fixture.log.CacheMaintenance, fixture.log)
    assert.is_false(ok)
    assert.matches("bad argument #2 .*lua table expected", message)
    ok, message = pcall(fixture.log.CacheMaintenance, fixture.log, "config")
    assert.matches("lua table expected", message)
    ok, message = pcall(fixture.log.CacheMaintenance, fixture.dom, {})
    assert.matches("bad argument #1 .*LogData object expected", message)
  end)

  it("blocks a flagged scanner through the table it is given", function()
    local config = scanning(60)
    touch(fixture, config, SCANNER, { "198.51.100.2" }, range(1, 65))
    config.platformInterfaceMap["198.51.100.2"] = {}
    fixture:close_bin(config)
    assert.are.same({ "7001 HostOrPortScan|192.0.2.7|6|60|1|65" }, fixture:events())
    local requests = norvi.BlacklistRequests()
    assert.are.equal(1, #requests)
    assert.are.equal(SCANNER, requests[1].address)
    assert.are.equal(60000, requests[1].milliseconds)
  end)

  it("raises the table's own error once the pass is done", function()
    local config = scanning(60)
    touch(fixture, config, SCANNER, { "198.51.100.2" }, range(1, 65))
    touch(fixture, config, "203.0.113.4", { "198.51.100.2" }, range(1, 65))
    local broken = setmetatable({}, { __index = function() error("broken table") end })
    norv.AdvanceTicks(analysis.BIN + 1)
    local ok, message = pcall(fixture.log.CacheMaintenance, fixture.log, broken)
    assert.is_false(ok)
    assert.matches("broken table", message)
    -- Both detections are reported (in the order of the raw address words);
    -- nothing more is read from the table, so neither source is blocked.
    assert.are.same({ "7001 HostOrPortScan|203.0.113.4|6|0|1|65",
                      "7001 HostOrPortScan|192.0.2.7|6|0|1|65" }, fixture:events())
    assert.are.same({}, norvi.BlacklistRequests())
    assert.is_false(fixture.log:CacheMaintenance(config))
  end)
end)
