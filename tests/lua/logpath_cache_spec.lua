-- The coalescing cache on the manual clock: merging of counts and time
-- spans, life time and idle time (also across the wrap of the tick), and
-- eviction when the cache is full.
local norv = require "norv"
local logpath = require "logpath"

describe("the record cache", function()
  local env, config
  before_each(function()
    env = logpath.new()
    config = logpath.config({ cacheSize = 2, cacheLifetime = 60000, cacheStaletime = 10000 })
  end)
  after_each(function() logpath.finish(env) end)

  local function write(fields) return logpath.write(env, fields, config) end
  local function flush() assert.is_true(env.log:FlushBufferedData(false)) end

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
