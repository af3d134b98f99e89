-- Probe events: one agent event per attacker and probe type within the
-- retention time, the block request to the driver, the addresses that are
-- never blocked, and the immediate heartbeat.
local norv = require "norv"
local norvi = require "norvi"
local analysis = require "analysis_support"

local XMAS = { tcph_flags = 0xFF }
local NULL = { tcph_flags = 0x00 }
local FINGERPRINT = { tcph_flags = 0x2B }
local SYNFIN = { tcph_flags = 0x03 }

local function le32(value)
  return string.char(value % 256, math.floor(value / 256) % 256,
                     math.floor(value / 65536) % 256, math.floor(value / 16777216) % 256)
end

local function blocking(seconds, notify)
  local probes = analysis.all_probes()
  probes[4] = { blockAttackerSeconds = seconds, notifyImmediately = notify }
  return analysis.configuration(probes)
end

describe("probe events and blocking", function()
  local fixture, driver

  before_each(function()
    fixture = analysis.fixture()
    driver = norvi.open()
    fixture.log:SetNorvi(driver)
  end)

  after_each(function()
    fixture:finish()
    driver:close()
    norvi.SetBlacklistResult(0)
  end)

  it("blocks the source for the configured time and keeps it for as long", function()
    local config = blocking(600)
    fixture:write(config, XMAS)
    assert.are.same({ "7004 XmasScan|192.0.2.7|6|600" }, fixture:events())
    local requests = norvi.BlacklistRequests()
    assert.are.equal(1, #requests)
    assert.are.equal("\0\4\0\0" .. le32(600000) .. "\192\0\2\7", requests[1].bytes)

    -- Known for 600 s: silent, also across a maintenance pass.
    norv.AdvanceTicks(599999)
    fixture.log:CacheMaintenance(config)
    fixture:write(config, XMAS)
    assert.are.same({}, fixture:events())
    assert.are.same({}, norvi.BlacklistRequests())

    -- Expired at exactly its tick, and forgotten by the next pass.
    norv.AdvanceTicks(1)
    fixture:write(config, XMAS)
    assert.are.same({}, fixture:events())
    fixture.log:CacheMaintenance(config)
    fixture:write(config, XMAS)
    assert.are.same({ "7004 XmasScan|192.0.2.7|6|600" }, fixture:events())
    assert.are.equal(1, #norvi.BlacklistRequests())
  end)

  it("keeps a non-blocking detection for the retention setting", function()
    fixture:finish()
    fixture = analysis.fixture({ ["norvp.vexil.analysis.ScanningIpsRetentionMsec"] = "5000" })
    fixture.log:SetNorvi(driver)
    local config = blocking(0)
    fixture:write(config, XMAS)
    assert.are.same({ "7004 XmasScan|192.0.2.7|6|0" }, fixture:events())
    norv.AdvanceTicks(4999)
    fixture.log:CacheMaintenance(config)
    fixture:write(config, XMAS)
    assert.are.same({}, fixture:events())
    norv.AdvanceTicks(1)
    fixture.log:CacheMaintenance(config)
    fixture:write(config, XMAS)
    assert.are.same({ "7004 XmasScan|192.0.2.7|6|0" }, fixture:events())
    assert.are.same({}, norvi.BlacklistRequests())
  end)

  it("compares expiry ticks as a signed difference, across the wrap", function()
    -- A one-second block that expires after the tick count has wrapped.
    norv.SetTicks(0xFFFFFF00)
    local config = blocking(1)
    fixture:write(config, XMAS)
    assert.are.same({ "7004 XmasScan|192.0.2.7|6|1" }, fixture:events())
    norv.AdvanceTicks(999)
    fixture.log:CacheMaintenance(config)
    fixture:write(config, XMAS)
    assert.are.same({}, fixture:events())
    norv.AdvanceTicks(1)
    fixture.log:CacheMaintenance(config)
    fixture:write(config, XMAS)
    assert.are.same({ "7004 XmasScan|192.0.2.7|6|1" }, fixture:events())

    -- An expiry more than 2^31 ms ahead reads as past at the next pass.
    config = blocking(2147484)
    fixture.dom:ConditionRaise("app.configUpdated")
    fixture:write(config, { tcph_flags = 0xFF, iph_src = "203.0.113.1" })
    fixture:write(config, { tcph_flags = 0xFF, iph_src = "203.0.113.1" })
    assert.are.same({ "7004 XmasScan|203.0.113.1|6|2147484" }, fixture:events())
    fixture.log:CacheMaintenance(config)
    fixture:write(config, { tcph_flags = 0xFF, iph_src = "203.0.113.1" })
    assert.are.same({ "7004 XmasScan|203.0.113.1|6|2147484" }, fixture:events())
    assert.are.equal(4, #norvi.BlacklistRequests())
  end)

  it("prints a negative block time as it stands and blocks nothing", function()
    fixture:write(blocking(-5), XMAS)
    assert.are.same({ "7004 XmasScan|192.0.2.7|6|-5" }, fixture:events())
    assert.are.same({}, norvi.BlacklistRequests())
  end)

  it("never blocks 127.x.x.x nor one of the host's own interfaces", function()
    local config = blocking(600)
    fixture:write(config, { tcph_flags = 0xFF, iph_src = "127.0.0.1" })
    config.platformInterfaceMap["203.0.113.9"] = {}
    -- Only a table marks an interface as the host's own.
    config.platformInterfaceMap["203.0.113.10"] = "not a table"
    fixture:write(config, { tcph_flags = 0xFF, iph_src = "203.0.113.9" })
    fixture:write(config, { tcph_flags = 0xFF, iph_src = "203.0.113.10" })
    assert.are.same({ "7004 XmasScan|127.0.0.1|6|0", "7004 XmasScan|203.0.113.9|6|0",
                      "7004 XmasScan|203.0.113.10|6|600" }, fixture:events())
    local requests = norvi.BlacklistRequests()
    assert.are.equal(1, #requests)
    assert.are.equal("203.0.113.10", requests[1].address)
  end)

  it("blocks nothing when the interface map cannot be read", function()
    local config = blocking(600)
    config.platformInterfaceMap = nil
    fixture:write(config, XMAS)
    assert.are.same({ "7004 XmasScan|192.0.2.7|6|0" }, fixture:events())
    assert.are.same({}, norvi.BlacklistRequests())
  end)

  it("states the seconds when there is no driver handle to block with", function()
    local other = SLB.vexil.LogData(fixture.dom)
    other:WriteLogData(analysis.record(XMAS), "", blocking(600), "")
    assert.are.same({ "7004 XmasScan|192.0.2.7|6|600" }, fixture:events())
    assert.are.same({}, norvi.BlacklistRequests())
  end)

  it("still reports a probe whose block the driver refused", function()
    norvi.SetBlacklistResult(5)
    fixture:write(blocking(600), XMAS)
    local events = fixture:events()
    assert.are.equal(2, #events)
    assert.matches("^1001 BLACKLIST_ADD|00000005 ", events[1])
    assert.are.equal("7004 XmasScan|192.0.2.7|6|600", events[2])
  end)

  it("lets a fingerprint detection silence NULL and Xmas only", function()
    local config = analysis.configuration(analysis.all_probes())
    fixture:write(config, FINGERPRINT)
    fixture:write(config, NULL)
    fixture:write(config, XMAS)
    fixture:write(config, SYNFIN)
    assert.are.same({ "7000 FingerprintScan|192.0.2.7|6|0", "7003 SynFinScan|192.0.2.7|6|0" },
                    fixture:events())
    -- The other way round, nothing is silenced.
    fixture:write(config, { tcph_flags = 0, iph_src = "203.0.113.1" })
    fixture:write(config, { tcph_flags = 0x2B, iph_src = "203.0.113.1" })
    assert.are.same({ "7002 NullScan|203.0.113.1|6|0", "7000 FingerprintScan|203.0.113.1|6|0" },
                    fixture:events())
  end)

  it("raises the heartbeat once per event of a type that asks for it", function()
    local config = blocking(0, true)
    local before = fixture.dom:ConditionCount("norv.HeartbeatNow")
    fixture:write(config, XMAS)
    assert.are.equal(before + 1, fixture.dom:ConditionCount("norv.HeartbeatNow"))
    fixture:write(config, XMAS)
    fixture:write(config, NULL)
    assert.are.equal(before + 1, fixture.dom:ConditionCount("norv.HeartbeatNow"))
    fixture:write(config, { tcph_flags = 0xFF, iph_src = "203.0.113.1" })
    assert.are.equal(before + 2, fixture.dom:ConditionCount("norv.HeartbeatNow"))
  end)
end)
