-- The record entry and intake: arguments as the script gives them, the
-- configuration read again on "app.configUpdated", records that are not
-- logged, protection reports, and SetNorvi.
local norv = require "norv"
local norvi = require "norvi"
local logpath = require "logpath"

describe("log:WriteLogData", function()
  local env
  before_each(function() env = logpath.new() end)
  after_each(function() logpath.finish(env) end)

  it("takes a record of 192 bytes or more, and refuses a shorter one", function()
    local record = logpath.record({})
    assert.is_true(env.log:WriteLogData(record .. "extra", "", logpath.config()))
    assert.is_false(env.log:WriteLogData(record:sub(1, 191), "", logpath.config()))
    assert.is_false(env.log:WriteLogData(nil, "", logpath.config()))
    assert.are.equal(1, #logpath.lines(env))
  end)

  it("counts data and packet arguments that are no strings as empty", function()
    local record = logpath.record({ log_flags = 0x02, data_len = 2, packet_data_len = 3 })
    assert.is_true(env.log:WriteLogData(record, 12, logpath.config(), 345))
    assert.is_true(env.log:WriteLogData(record, {}, logpath.config()))
    local c = logpath.columns(logpath.lines(env)[1])
    assert.are.same({ "0000", "" }, { c[27], c[28] })
  end)

  it("raises an argument error for anything but a log object", function()
    local ok, err = pcall(env.log.WriteLogData, env.dom, logpath.record({}), "", {})
    assert.is_false(ok)
    assert.matches("bad argument #1 .*LogData object expected", err)
  end)

  it("raises Lua's index error for a configuration that is no table, and works on", function()
    local ok, err = pcall(env.log.WriteLogData, env.log, logpath.record({}), "", 42)
    assert.is_false(ok)
    assert.matches("attempt to index", err)
    assert.is_false(logpath.exists(env.path))
    -- The same interface index needs no lookup now: the id stays as it was.
    assert.is_true(logpath.write(env, {}))
    assert.is_true(logpath.write(env, { interface_index = 6 }))
    assert.are.same({ "-1", "-1" }, logpath.column(env, 20))
  end)

  it("drops close notifications and records marked not to be logged", function()
    norv.SetTrace("vexil")
    for _, fields in ipairs({ { reason = 10000 }, { reason = 10001 }, { log_flags = 0x40 },
                              { reason = -2, id = 31, log_flags = 0x40 } }) do
      assert.is_false(logpath.write(env, fields))
    end
    assert.is_false(logpath.exists(env.path))
    local traces = table.concat(norv.TraceLines(), "\n")
    local _, count = traces:gsub("Ignoring payload log id=", "")
    assert.are.equal(1, count)
    assert.matches("Ignoring payload log id=31", traces)
  end)

  it("reports a change of the protection state once, and never logs the report", function()
    local function report(reason)
      assert.is_false(logpath.write(env, { reason = reason }))
      return env.dom:GetSetting("VmProtection"), env.dom:ConditionCount("norv.HeartbeatNow")
    end
    assert.are.same({ "1", 1 }, { report(-5000) })
    assert.are.same({ "1", 1 }, { report(-5000) })
    assert.are.same({ "2", 2 }, { report(-5010) })
    assert.are.same({ "1", 3 }, { report(-5000) })
    assert.is_false(logpath.exists(env.path))
  end)
end)

describe("the configuration read on app.configUpdated", function()
  local env, config
  before_each(function()
    norv.SetTrace("vexil")
    env = logpath.new()
    config = logpath.config({ cacheSize = 0, size = 5, keep = 3 })
  end)
  after_each(function() logpath.finish(env) end)

  it("is read by the first record and then only when the count moves", function()
    assert.is_true(logpath.write(env, {}, config))
    assert.are.same({ 5, 2 }, { env.log:GetLogFileSizeKB(), env.log:GetNumberOfOldCopies() })
    config.packetFilterLog = { cacheSize = 0, size = 9, keep = 1 }
    logpath.write(env, {}, config)
    assert.are.equal(5, env.log:GetLogFileSizeKB())
    logpath.update(env)
    logpath.write(env, {}, config)
    assert.are.same({ 9, 0 }, { env.log:GetLogFileSizeKB(), env.log:GetNumberOfOldCopies() })
    -- Zero and negative values leave the fields alone.
    config.packetFilterLog = { cacheSize = 0, size = 0, keep = -1 }
    logpath.update(env)
    logpath.write(env, {}, config)
    assert.are.same({ 9, 0 }, { env.log:GetLogFileSizeKB(), env.log:GetNumberOfOldCopies() })
  end)

  it("clamps the idle time to at least 10 s and at most the life time", function()
    config.packetFilterLog = { cacheSize = 10, cacheLifetime = 5, cacheStaletime = 5 }
    logpath.write(env, {}, config)
    norv.AdvanceTicks(9999)
    env.log:FlushBufferedData(false)
    assert.is_false(logpath.exists(env.path))
    norv.AdvanceTicks(1)
    env.log:FlushBufferedData(false)
    assert.are.equal(1, #logpath.lines(env))
    -- A life time of 5 is 60 s, and the idle time above it is cut to it.
    config.packetFilterLog.cacheStaletime = 999999
    logpath.update(env)
    logpath.write(env, {}, config)
    norv.AdvanceTicks(59999)
    env.log:FlushBufferedData(false)
    assert.are.equal(1, #logpath.lines(env))
    norv.AdvanceTicks(1)
    env.log:FlushBufferedData(false)
    assert.are.equal(2, #logpath.lines(env))
  end)

  it("caps the cache at 1024 records and flushes it all at size 0", function()
    config.packetFilterLog = { cacheSize = 2000, cacheLifetime = 600000, cacheStaletime = 600000 }
    for length = 1, 1024 do
      logpath.write(env, { packet_len = length }, config)
    end
    assert.is_false(logpath.exists(env.path))
    logpath.write(env, { packet_len = 2000 }, config)
    assert.are.equal(1, #logpath.lines(env))
    config.packetFilterLog.cacheSize = 0
    logpath.update(env)
    -- This record is dropped, but the update it brings empties the cache.
    assert.is_false(logpath.write(env, { log_flags = 0x40 }, config))
    assert.are.equal(1025, #logpath.lines(env))
  end)

  it("skips sources of the ignore list, for IPv6 by the middle of the address", function()
    config.packetFilterLog.ignoreIpList = { items = "10.0.0.0/8", name = "quiet" }
    assert.is_false(logpath.write(env, { iph_src = "10.200.0.1" }, config))
    assert.is_true(logpath.write(env, { iph_src = "11.0.0.1" }, config))
    local ipv6 = { flags = 0x61, iph_src = false, iph_dest = false, iph_proto = false,
                   ipv6h_next = 17, ipv6h_dest = "::1" }
    ipv6.ipv6h_src = "2001:db8:a00:1::1"
    assert.is_false(logpath.write(env, ipv6, config))
    ipv6.ipv6h_src = "2001:db8:b00:1::1"
    assert.is_true(logpath.write(env, ipv6, config))
    assert.matches("Ignoring log from 10%.200%.0%.1", table.concat(norv.TraceLines(), "\n"))
  end)

  it("reads the analysis lists only for packet records", function()
    config.trafficAnalysisConfiguration.destIpList = { items = "1.2.3.4 1.2.3.0/33", name = "dests" }
    assert.is_true(logpath.write(env, { reason = -4 }, config))
    assert.are.same({}, env.dom:AgentEvents())
    -- No further update: the packet record leaves the lists alone too.
    assert.is_true(logpath.write(env, {}, config))
    assert.are.same({}, env.dom:AgentEvents())
    logpath.update(env)
    assert.is_true(logpath.write(env, {}, config))
    assert.are.equal(2019, env.dom:AgentEvents()[1].number)
    -- Without the analysis group a payload record passes, a packet record not.
    config.trafficAnalysisConfiguration = nil
    logpath.update(env)
    assert.is_true(logpath.write(env, { reason = -4 }, config))
    logpath.update(env)
    assert.is_false(logpath.write(env, {}, config))
    assert.matches("Could not get trafficAnalysisConfiguration map",
                   table.concat(norv.TraceLines(), "\n"))
  end)
end)

describe("log:SetNorvi", function()
  local env
  before_each(function() env = logpath.new() end)
  after_each(function() logpath.finish(env) end)

  it("takes an open handle and returns the integer 1", function()
    local handle = assert(norvi.open())
    local result = env.log:SetNorvi(handle)
    assert.are.equal("number", type(result))
    assert.are.equal(1, result)
    handle:close()
  end)

  it("refuses a closed handle and anything else, tracing why", function()
    norv.SetTrace("vexil")
    local handle = assert(norvi.open())
    handle:close()
    local cases = { { handle, "norvi handle already closed" }, { io.stdout, "norvi handle expected" },
                    { nil, "norvi handle expected" } }
    for _, case in ipairs(cases) do
      local ok, err = pcall(env.log.SetNorvi, env.log, case[1])
      assert.is_false(ok)
      assert.matches("bad argument #2 .*" .. case[2], err)
    end
    local ok, err = pcall(env.log.SetNorvi, env.dom, handle)
    assert.is_false(ok)
    assert.matches("bad argument #1 .*LogData object expected", err)
    local traces = table.concat(norv.TraceLines(), "\n")
    for _, case in ipairs(cases) do
      assert.matches(case[2], traces)
    end
  end)
end)
