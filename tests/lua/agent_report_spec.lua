-- What the agent's summary makes of the host store's agent events: the blocks
-- that probe events stand for (refused ones included).
package.path = os.getenv("VEXIL_SOURCE_DIR") .. "/agent/?.lua;" .. package.path
local report = require "vexil_agent.report"

local function event(number, detail) return { number = number, detail = detail } end

describe("agent summary", function()
  it("derives the blocks from the probe events", function()
    local config = { platformInterfaceMap = { ["10.0.0.1"] = {} } }
    local refused = event(1001, "BLACKLIST_ADD|00000001 (Operation not permitted)")
    local cases = {
      { "carried", true, { event(7004, "XmasScan|192.0.2.7|6|600"),
                           event(7001, "HostOrPortScan|192.0.2.9|6|3600|1|80") },
        { { address = "192.0.2.7", seconds = 600, ok = true },
          { address = "192.0.2.9", seconds = 3600, ok = true } } },
      { "refused, then the next one goes through", true,
        { refused, event(7002, "NullScan|192.0.2.7|6|600"), event(7003, "SynFinScan|192.0.2.8|6|600") },
        { { address = "192.0.2.7", seconds = 600, ok = false },
          { address = "192.0.2.8", seconds = 600, ok = true } } },
      { "no block asked for: 0 seconds", true, { event(7002, "NullScan|10.0.0.1|6|0") }, {} },
      { "other events are no blocks", true, { event(6001, "/var/log/x"), event(2019, "a|b|${ipList}") }, {} },
      { "only reported; own and loopback addresses spared", false,
        { event(7004, "XmasScan|192.0.2.7|6|600"), event(7004, "XmasScan|10.0.0.1|6|600"),
          event(7004, "XmasScan|127.0.0.2|6|600") },
        { { address = "192.0.2.7", seconds = 600, ok = false } } },
    }
    for _, case in ipairs(cases) do
      assert.are.same(case[4], setmetatable(report.blocks(case[3], config, case[2]), nil), case[1])
    end
  end)
end)
