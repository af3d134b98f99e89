-- The family of log files: rotation at the size limit, the shift of old
-- copies, deletion beyond the number kept, read positions, rename failures.
local support = require "support"
local logpath = require "logpath"

describe("the log file store", function()
  local env, lineLength

  before_each(function()
    env = logpath.new()
    -- The length of one line of the default record, measured once.
    assert.is_true(logpath.write(env, {}, logpath.config({ cacheSize = 0 })))
    lineLength = #support.read(env.path)
    os.remove(env.path)
    env.dom:SetSetting("norvp.vexil.lastline.packet", 5)
    env.dom:SetSetting("norvp.vexil.lastline.payload", 6)
    env.dom:SetSetting("norvp.vexil.lastline.pcap", 7)
  end)
  after_each(function() logpath.finish(env) end)

  local function file(suffix) return env.path .. suffix end
  local function content(suffix) return support.read(file(suffix)) end

  -- Fills the live file so that the next line brings it to total bytes.
  local function fill(total)
    logpath.put(env.path, string.rep("x", total - lineLength))
  end

  -- Writes one record with the given packetFilterLog settings, read afresh.
  local function write(filterLog)
    filterLog.cacheSize = 0
    logpath.update(env)
    return logpath.write(env, {}, logpath.config(filterLog))
  end

  it("rotates a file of exactly the size limit, not one byte less, and shifts the copies", function()
    logpath.put(file(".1"), "one")
    logpath.put(file(".2"), "two")
    logpath.put(file(".bak"), "stray")
    fill(1023)
    assert.is_true(write({ size = 1, keep = 8 }))
    assert.are.equal(1023, #content(""))
    assert.are.equal("5", env.dom:GetSetting("norvp.vexil.lastline.packet"))

    fill(1024)
    assert.is_true(write({ size = 1, keep = 8 }))
    assert.is_false(logpath.exists(env.path))
    assert.are.equal(1024, #content(".1"))
    assert.are.same({ "one", "two", "stray" }, { content(".2"), content(".3"), content(".bak") })
    assert.are.equal("600", support.mode(file(".1")))
    -- Read positions count lines of the live file; the capture role's stays.
    assert.are.equal("0", env.dom:GetSetting("norvp.vexil.lastline.packet"))
    assert.are.equal("0", env.dom:GetSetting("norvp.vexil.lastline.payload"))
    assert.are.equal("7", env.dom:GetSetting("norvp.vexil.lastline.pcap"))
    -- The next line starts a new live file.
    assert.is_true(write({ size = 1, keep = 8 }))
    assert.are.equal(lineLength, #content(""))
    assert.are.same({}, env.dom:AgentEvents())
  end)

  it("deletes the live file itself and every copy when only one file is kept", function()
    logpath.put(file(".1"), "one")
    logpath.put(file(".bak"), "stray")
    fill(2048)
    assert.is_true(write({ size = 2, keep = 1 }))
    assert.are.equal(0, env.log:GetNumberOfOldCopies())
    for _, suffix in ipairs({ "", ".1", ".2", ".bak" }) do
      assert.is_false(logpath.exists(file(suffix)), suffix)
    end
  end)

  it("deletes all copies beyond a lowered limit in one rotation", function()
    for n = 1, 7 do
      logpath.put(file("." .. n), tostring(n))
    end
    fill(1024)
    assert.is_true(write({ size = 1, keep = 4 }))
    assert.are.equal(3, env.log:GetNumberOfOldCopies())
    assert.are.same({ 1024, "1", "2" }, { #content(".1"), content(".2"), content(".3") })
    for n = 4, 7 do
      assert.is_false(logpath.exists(file("." .. n)), n)
    end
  end)

  it("reports a copy that cannot be renamed as event 6007 and goes on", function()
    logpath.put(file(".1"), "one")
    os.execute("mkdir -p '" .. file(".2") .. "/inside'")
    fill(1024)
    assert.is_true(write({ size = 1, keep = 8 }))
    assert.are.same({ { number = 6007,
                        detail = file(".1") .. "|" .. file(".2") .. "|Is a directory" } },
                    env.dom:AgentEvents())
    -- The live file still moved, over the copy that stayed in place.
    assert.are.equal(1024, #content(".1"))
  end)

  it("puts the copy number in place of the name's own extension", function()
    env.log:SetLogFileName("fw.log")
    logpath.put(env.folder .. "/fw.log", string.rep("x", 1024 - lineLength))
    assert.is_true(write({ size = 1, keep = 8 }))
    assert.are.equal(1024, #support.read(env.folder .. "/fw.1"))
    assert.is_false(logpath.exists(env.folder .. "/fw.log"))
  end)
end)
