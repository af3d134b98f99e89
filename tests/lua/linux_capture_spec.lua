-- The record sources from a script, against the Linux library: the bundled
-- capture replayed through norvi.open{pcap = ...}, and the argument checks of
-- norvi.open. (The key exchange through the key service is the agent's, in
-- agent_replay_spec.)
local norv = require "norv"
assert(require "vexil" == true)
local norvi = require "norvi"

local sample = (os.getenv("VEXIL_SOURCE_DIR") or ".") .. "/examples/capture/sample.pcapng"

local function replay(options)
  local base = { pcap = sample, host = { "10.77.0.1", "fd77::1" },
                 services = "tcp:80,tcp:443,udp:53", interface = 4 }
  for key, value in pairs(options or {}) do base[key] = value end
  return norvi.open(base)
end

describe("norvi replay", function()
  it("gives records with their data and packet, then the end, read by the syslog text", function()
    -- No rule is known to the configuration: the record's own action decides.
    local log = SLB.vexil.LogData(SLB.norv.Dom(":memory:"))
    local config = { agentConfiguration = { hostID = 1 } }
    local h = assert(replay())
    local seen, count, record, data, packet = {}, 0, h:next(100)
    while record do
      count = count + 1
      assert.same({ 192, data, #data }, { #record, packet, record:byte(77) + 256 * record:byte(78) })
      local id = record:byte(25) + 256 * record:byte(26)  -- the rule id
      local act = log:SyslogFormat(record, "", config):match(" act=(%a+)")
      seen[id] = seen[id] or act
      assert.equal(seen[id], act)
      record, data, packet = h:next(100)
    end
    assert.same({ "end", nil, "end" }, { data, h:next() })
    assert.same({ records = count, lost = 0, gaps = 0, dropped = 0 }, h:counters())
    assert.same({ {}, 0 }, { h:keylog() })
    h:close()
    assert.equal("Log", seen[30])                  -- an allowed service, let through
    for _, denied in ipairs { 11, 12, 13, 40 } do  -- NULL, Xmas, SYN-FIN, other TCP
      assert.equal("Deny", seen[denied], "rule " .. denied)
    end
  end)

  it("refuses wrong options as argument errors, and sources that cannot start with a reason", function()
    local wrong = {
      { { pcap = 1 }, "'pcap' must be a string" },
      { { pcap = sample, nflog = 1 }, "either 'nflog' %(live%) or 'pcap'" },
      { { pcap = sample, install = true }, "options of the live source" },
      { { nflog = 1, host = "10.0.0.1" }, "options of a replay" },
      { { pcap = sample, colour = "red" }, "unknown option 'colour'" },
      { { pcap = sample, interface = 1.5 }, "'interface' must be an integer" },
      { { pcap = sample, ssl_hosts = { { address = "10.0.0.1" } } }, "needs an 'id'" },
      { { pcap = sample, ssl_hosts = { { id = 1, port = 443 } } }, "only 'address' and 'id'" },
      { { nflog = 70000 }, "'nflog' out of range" },
    }
    for _, case in ipairs(wrong) do
      local ok, message = pcall(norvi.open, case[1])
      assert.is_false(ok, case[2])
      assert.truthy(message:find("bad argument #1") and message:find(case[2]), message)
    end
    local h, reason = replay { pcap = "/nonexistent.pcap" }
    assert.truthy(h == nil and reason:find("cannot be read"), reason)
    local plain = norvi.open()
    assert.has_error(function() plain:counters() end, "calling 'counters' on bad self (the handle has no record source)")
    plain:close()
    assert.has_error(function() plain:next() end)
  end)
end)
