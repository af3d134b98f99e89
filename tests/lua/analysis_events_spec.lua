-- Probe events: one agent event per attacker and probe type within the
-- retention time, the block request to the driver, and the addresses that
-- are never blocked. The heartbeat is counted by AnalysisThreads_test; what a
-- fingerprint detection silences is checked by analysis_probes_spec.
local norv = require "norv"
local norvi = require "norvi"
local analysis = require "analysis_support"

local function xmas(source) return { tcph_flags = 0xFF, iph_src = source or "192.0.2.7" } end

-- Xmas probes block for seconds.
local function blocking(seconds)
  local probes = analysis.all_probes()
  probes[4] = { blockAttackerSeconds = seconds }
  return analysis.configuration(probes)
end

describe("probe events and blocking", function()
  local fixture

  before_each(function()
    fixture = analysis.fixture({ ["norvp.vexil.analysis.ScanningIpsRetentionMsec"] = "5000" })
  end)

  after_each(function()
    fixture:finish()
    norvi.SetBlacklistResult(0)
  end)

  it("keeps a detection for its block time or the retention, to the tick", function()
    local cases = {  -- block seconds, ticks at the start, detection kept for, block request
      { 600, analysis.START_TICKS, 600000, "\0\4\0\0\192\39\9\0\203\0\113\1" },
      { 1, 0xFFFFFF00, 1000, "\0\4\0\0\232\3\0\0\203\0\113\2" },  -- expires after the wrap
      { 0, analysis.START_TICKS, 5000 },
      { -5, analysis.START_TICKS, 5000 },  -- prints as it stands
    }
    for i, case in ipairs(cases) do
      local seconds, source = case[1], "203.0.113." .. i
      local event = "7004 XmasScan|" .. source .. "|6|" .. seconds
      local config = blocking(seconds)
      fixture.dom:ConditionRaise("app.configUpdated")
      norv.SetTicks(case[2])
      fixture:write(config, xmas(source))
      assert.are.same({ event }, fixture:events())
      local requests = norvi.BlacklistRequests()
      assert.are.equal(case[4], requests[1] and requests[1].bytes, event)
      assert.are.equal(seconds > 0 and 1 or 0, #requests, event)
      -- Silent while known, also across maintenance passes (the first with
      -- the expiry past the wrap and the clock not); expired at its tick, and
      -- forgotten by the next pass.
      fixture.log:CacheMaintenance(config)
      norv.AdvanceTicks(case[3] - 1)
      fixture.log:CacheMaintenance(config)
      fixture:write(config, xmas(source))
      norv.AdvanceTicks(1)
      fixture:write(config, xmas(source))
      assert.are.same({}, fixture:events(), event)
      assert.are.same({}, norvi.BlacklistRequests(), event)
      fixture.log:CacheMaintenance(config)
      fixture:write(config, xmas(source))
      assert.are.same({ event }, fixture:events())
      assert.are.equal(seconds > 0 and 1 or 0, #norvi.BlacklistRequests(), event)
    end
  end)

  it("blocks no local address, and states the seconds where it could not ask", function()
    local config = blocking(600)
    config.platformInterfaceMap["203.0.113.9"] = {}
    -- Only a table marks an interface as the host's own.
    config.platformInterfaceMap["203.0.113.10"] = "not a table"
    for _, source in ipairs { "127.0.0.1", "203.0.113.9", "203.0.113.10" } do
      fixture:write(config, xmas(source))
    end
    -- Without an interface map nothing can be told local: nothing is blocked.
    config.platformInterfaceMap = nil
    fixture:write(config, xmas("203.0.113.11"))
    -- Without a driver handle nothing is sent, and the event states the seconds.
    SLB.vexil.LogData(fixture.dom):WriteLogData(analysis.record(xmas("203.0.113.12")), "",
                                                blocking(600), "")
    assert.are.same({ "7004 XmasScan|127.0.0.1|6|0", "7004 XmasScan|203.0.113.9|6|0",
                      "7004 XmasScan|203.0.113.10|6|600", "7004 XmasScan|203.0.113.11|6|0",
                      "7004 XmasScan|203.0.113.12|6|600" }, fixture:events())
    local requests = norvi.BlacklistRequests()
    assert.are.equal(1, #requests)
    assert.are.equal("203.0.113.10", requests[1].address)

    -- A block that the driver refuses still leaves the probe's event.
    norvi.SetBlacklistResult(5)
    fixture:write(blocking(600), xmas())
    assert.are.same({ "1001 BLACKLIST_ADD|00000005 (Input/output error)",
                      "7004 XmasScan|192.0.2.7|6|600" }, fixture:events())
  end)
end)
