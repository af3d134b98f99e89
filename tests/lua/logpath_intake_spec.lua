-- The record entry and intake: arguments as the script gives them, the
-- configuration read again on "app.configUpdated", records that are not
-- logged, protection reports, and the coalescing cache on the manual clock
-- (merging of counts and time spans, life time and idle time, also across the
-- wrap of the tick, and eviction when the cache is full).
local norv = require "norv"
local norvi = require "norvi"
local logpath = require "logpath"

describe("log:WriteLogData", function()
  local env, config
  before_each(function()
    env = logpath.new()
    config = logpath.config({ cacheSize = 2, cacheLifetime = 60000, cacheStaletime = 10000,
                              size = 5, keep = 3 })
  end)
  after_each(function() logpath.finish(env) end)

  -- The records of a case go through config; logpath.write alone takes the
  -- default configuration, without a cache.
  local function write(fields) return logpath.write(env, fields or {}, config) end
  local function flush() assert.is_true(env.log:FlushBufferedData(false)) end
  local function files() return { env.log:GetLogFileSizeKB(), env.log:GetNumberOfOldCopies() } end
  local function flushAfter(msec)
    norv.AdvanceTicks(msec)
    env.log:FlushBufferedData(false)
    return #logpath.lines(env)
  end

  it("takes records of 192 bytes or more, and non-string data and packets as empty", function()
    local record = logpath.record({ log_flags = 0x02, data_len = 2, packet_data_len = 3 })
    assert.is_true(env.log:WriteLogData(record .. "extra", 12, logpath.config(), 345))
    assert.is_false(env.log:WriteLogData(record:sub(1, 191), "", logpath.config()))
    assert.is_false(env.log:WriteLogData(nil, "", logpath.config()))
    assert.are.same({ "0000" }, logpath.column(env, 27))
    assert.are.same({ "" }, logpath.column(env, 28))
  end)

  it("raises an argument error in every entry for anything but a log object", function()
    local handle = assert(norvi.open())
    local calls = {
      { env.log.WriteLogData, logpath.record({}), "", {} },
      { env.log.SyslogFormat, logpath.record({}), "", {} },
      { env.log.GetLogData, 0, 0, 0, 10 },
      { env.log.SetNorvi, handle },
    }
    for _, call in ipairs(calls) do
      assert.error_matches(function() call[1](env.dom, table.unpack(call, 2)) end,
                           "bad argument #1 .*LogData object expected")
    end
    -- SetNorvi's own argument: an open handle only.
    handle:close()
    for _, case in ipairs { { handle, "norvi handle already closed" },
                            { io.stdout, "norvi handle expected" }, { nil, "norvi handle expected" } } do
      assert.error_matches(function() env.log.SetNorvi(env.log, case[1]) end,
                           "bad argument #2 .*" .. case[2])
    end
  end)

  it("raises Lua's index error for a configuration that is no table, and works on", function()
    assert.error_matches(function() env.log:WriteLogData(logpath.record({}), "", 42) end,
                         "attempt to index")
    assert.is_false(logpath.exists(env.path))
    -- The same interface index needs no lookup now: the id stays as it was.
    assert.is_true(logpath.write(env, {}))
    assert.is_true(logpath.write(env, { interface_index = 6 }))
    assert.are.same({ "-1", "-1" }, logpath.column(env, 20))
  end)

  it("drops close notifications and records marked not to be logged, and protection reports",
     function()
    for _, fields in ipairs({ { reason = 10000 }, { reason = 10001 }, { log_flags = 0x40 },
                              { reason = -2, id = 31, log_flags = 0x40 } }) do
      assert.is_false(logpath.write(env, fields))
    end
    -- A change of the protection state is reported once.
    -- Each row: the reason, then the state and the heartbeat count after it.
    local rows = { { -5000, "1", 1 }, { -5000, "1", 1 }, { -5010, "2", 2 }, { -5000, "1", 3 } }
    for _, c in ipairs(rows) do
      assert.is_false(logpath.write(env, { reason = c[1] }))
      assert.are.same({ c[2], c[3] }, { env.dom:GetSetting("VmProtection"),
                                        env.dom:ConditionCount("norv.HeartbeatNow") })
    end
    assert.is_false(logpath.exists(env.path))
  end)

  it("reads the configuration with the first record, then only when the count moves", function()
    assert.is_true(write())
    assert.are.same({ 5, 2 }, files())
    config.packetFilterLog = { cacheSize = 0, size = 9, keep = 1 }
    write()
    assert.are.same({ 5, 2 }, files())
    logpath.update(env)
    write()
    assert.are.same({ 9, 0 }, files())
    -- Zero and negative values leave the fields alone.
    config.packetFilterLog = { cacheSize = 0, size = 0, keep = -1 }
    logpath.update(env)
    write()
    assert.are.same({ 9, 0 }, files())
  end)

  it("clamps the idle time to at least 10 s and at most the life time", function()
    config.packetFilterLog = { cacheSize = 10, cacheLifetime = 5, cacheStaletime = 5 }
    write()
    assert.are.same({ 0, 1 }, { flushAfter(9999), flushAfter(1) })
    -- A life time of 5 is 60 s, and the idle time above it is cut to it.
    config.packetFilterLog.cacheStaletime = 999999
    logpath.update(env)
    write()
    assert.are.same({ 1, 2 }, { flushAfter(59999), flushAfter(1) })
  end)

  it("caps the cache at 1024 records and flushes it all at size 0", function()
    config.packetFilterLog = { cacheSize = 2000, cacheLifetime = 600000, cacheStaletime = 600000 }
    for length = 1, 1024 do write({ packet_len = length }) end
    assert.is_false(logpath.exists(env.path))
    write({ packet_len = 2000 })
    assert.are.equal(1, #logpath.lines(env))
    config.packetFilterLog.cacheSize = 0
    logpath.update(env)
    -- This record is dropped, but the update it brings empties the cache.
    assert.is_false(write({ log_flags = 0x40 }))
    assert.are.equal(1025, #logpath.lines(env))
  end)

  it("skips sources of the ignore list, for IPv6 by the middle of the address", function()
    config.packetFilterLog.ignoreIpList = { items = "10.0.0.0/8", name = "quiet" }
    assert.is_false(write({ iph_src = "10.200.0.1" }))
    assert.is_true(write({ iph_src = "11.0.0.1" }))
    local ipv6 = { flags = 0x61, iph_src = false, iph_dest = false, iph_proto = false,
                   ipv6h_next = 17, ipv6h_dest = "::1", ipv6h_src = "2001:db8:a00:1::1" }
    assert.is_false(write(ipv6))
    ipv6.ipv6h_src = "2001:db8:b00:1::1"
    assert.is_true(write(ipv6))
  end)

  it("reads the analysis lists only for packet records", function()
    config.trafficAnalysisConfiguration.destIpList = { items = "1.2.3.4 1.2.3.0/33", name = "d" }
    assert.is_true(write({ reason = -4 }))
    -- No further update: the packet record leaves the lists alone too.
    assert.is_true(write())
    assert.are.same({}, env.dom:AgentEvents())
    logpath.update(env)
    assert.is_true(write())
    assert.are.equal(2019, env.dom:AgentEvents()[1].number)
    -- Without the analysis group a payload record passes, a packet record not.
    config.trafficAnalysisConfiguration = nil
    logpath.update(env)
    assert.is_true(write({ reason = -4 }))
    logpath.update(env)
    assert.is_false(write())
  end)

  it("merges equal texts into one line with the summed count and the widest span", function()
    assert.is_true(write({ time_sec = 200, time_usec = 5, end_time_sec = 210, count = 2 }))
    assert.is_true(write({ time_sec = 100, time_usec = 1, end_time_sec = 150, count = 0 }))
    assert.is_true(write({ time_sec = 300, end_time_sec = 400, end_time_usec = 9, count = 5 }))
    assert.is_true(write({ packet_len = 81, time_sec = 7, end_time_sec = 8 }))
    assert.is_false(logpath.exists(env.path))
    assert.is_true(env.log:FlushBufferedData(true))
    -- Key order: the packet length 80 sorts before 81. An empty cache
    -- flushes to nothing, successfully.
    assert.is_true(env.log:FlushBufferedData(true))
    local lines = logpath.lines(env)
    assert.are.equal(2, #lines)
    assert.matches("^1970/01/01, 00:01:40, f, .*, 80, .*, 7, 400000009, 100000001$", lines[1])
    assert.matches("^1970/01/01, 00:00:07, f, .*, 81, .*, 1, 8000750, 7000250$", lines[2])
  end)

  it("writes a record once its life time has passed, though it never went quiet", function()
    -- The tick wraps before the younger record beside it comes.
    norv.SetTicks(0xFFFFFFFF - 20000)
    for i = 1, 12 do
      write({})
      if i > 5 then write({ packet_len = 81 }) end
      norv.AdvanceTicks(5000)
    end
    assert.is_false(logpath.exists(env.path)) -- 55000 msec old at the last write
    write({}) -- merged, then due at 60000
    assert.are.same({ "13" }, logpath.column(env, 29))
    write({}) -- starts a new record
    assert.are.equal(1, #logpath.lines(env))
  end)

  it("writes a record idle for the stale time, across the wrap of the tick", function()
    norv.SetTicks(0xFFFFFF00 - 9000)
    write({ count = 4 })
    norv.AdvanceTicks(9000)
    write({ count = 0 }) -- keeps it alive, adds nothing
    norv.AdvanceTicks(9999) -- past the wrap
    flush()
    assert.is_false(logpath.exists(env.path))
    norv.AdvanceTicks(1)
    flush()
    assert.are.same({ "4" }, logpath.column(env, 29))
  end)

  it("evicts the oldest record when full, the greater text on a tie, across the wrap", function()
    norv.SetTicks(0xFFFFFFFF - 2)
    write({ packet_len = 10 })
    norv.AdvanceTicks(5)
    write({ packet_len = 30 })
    assert.is_false(logpath.exists(env.path)) -- two records fit
    write({ packet_len = 20 })
    assert.are.same({ "10" }, logpath.column(env, 16)) -- age wins over key order
    -- 30, 20 and the new one have the same age and idle time: the text
    -- greatest in byte order goes ("9" > "3" > "2").
    write({ packet_len = 9 })
    assert.is_true(env.log:FlushBufferedData(true))
    assert.are.same({ "10", "9", "20", "30" }, logpath.column(env, 16))
  end)

  it("evicts the greater of equals when shrinking, whether the due record sorts first or last",
     function()
    -- The due record is written first; when it was the oldest, no record is
    -- left to evict in that pass (a warning) and the next pass evicts.
    for _, due in ipairs { 90, 1 } do
      logpath.finish(env)
      env = logpath.new()
      config.packetFilterLog.cacheSize = 4
      write({ packet_len = due })
      norv.AdvanceTicks(9000)
      write({ packet_len = 10 })
      write({ packet_len = 20 })
      norv.AdvanceTicks(1000) -- the first record is idle for the stale time
      config.packetFilterLog.cacheSize = 1
      logpath.update(env)
      assert.is_false(write({ log_flags = 0x40 }))
      assert.are.same({ tostring(due), "20" }, logpath.column(env, 16))
      local warned = table.concat(norv.OperatorLog()):find("didn't locate the oldest", 1, true)
      assert.are.equal(due == 90, warned ~= nil)
    end
  end)
end)
