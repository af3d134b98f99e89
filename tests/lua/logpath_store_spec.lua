-- The family of log files: rotation at the size limit, the shift of old
-- copies, deletion beyond the number kept, read positions, rename failures.
local support = require "support"
local logpath = require "logpath"

describe("the log file store", function()
  local env, lineLength

  before_each(function()
    env = logpath.new()
    -- The length of one line of the default record, measured once.
    assert.is_true(logpath.write(env, {}))
    lineLength = #support.read(env.path)
    os.remove(env.path)
    env.dom:SetSetting("norvp.vexil.lastline.packet", 5)
    env.dom:SetSetting("norvp.vexil.lastline.payload", 6)
    env.dom:SetSetting("norvp.vexil.lastline.pcap", 7)
  end)
  after_each(function() logpath.finish(env) end)

  local function file(suffix) return env.path .. suffix end
  local function content(suffix) return support.read(file(suffix)) end
  local function positions()
    return { env.dom:GetSetting("norvp.vexil.lastline.packet"),
             env.dom:GetSetting("norvp.vexil.lastline.payload"),
             env.dom:GetSetting("norvp.vexil.lastline.pcap") }
  end

  -- Puts the copies, fills the live file so that the next line brings it to
  -- total bytes, and writes that line with packetFilterLog read afresh.
  local function write(total, filterLog, copies)
    for suffix, text in pairs(copies or {}) do support.put(file(suffix), text) end
    support.put(env.path, string.rep("x", total - lineLength))
    filterLog.cacheSize = 0
    logpath.update(env)
    return logpath.write(env, {}, logpath.config(filterLog))
  end

  it("rotates a file of exactly the size limit, not a byte less, and shifts the copies", function()
    assert.is_true(write(1023, { size = 1, keep = 8 }, { [".1"] = "one", [".2"] = "two",
                                                          [".bak"] = "stray" }))
    assert.are.same({ 1023, "5" }, { #content(""), positions()[1] })
    assert.is_true(write(1024, { size = 1, keep = 8 }))
    assert.is_false(logpath.exists(env.path))
    assert.are.same({ 1024, "one", "two", "stray" },
                    { #content(".1"), content(".2"), content(".3"), content(".bak") })
    assert.are.equal("600", support.mode(file(".1")))
    -- Read positions count lines of the live file; the capture role's stays.
    assert.are.same({ "0", "0", "7" }, positions())
    -- The next line starts a new live file.
    assert.is_true(logpath.write(env, {}, logpath.config({ cacheSize = 0, size = 1, keep = 8 })))
    assert.are.equal(lineLength, #content(""))
    assert.are.same({}, env.dom:AgentEvents())
  end)

  it("deletes the live file itself and every copy when only one file is kept", function()
    assert.is_true(write(2048, { size = 2, keep = 1 }, { [".1"] = "one", [".bak"] = "stray" }))
    assert.are.equal(0, env.log:GetNumberOfOldCopies())
    for _, suffix in ipairs({ "", ".1", ".2", ".bak" }) do
      assert.is_false(logpath.exists(file(suffix)), suffix)
    end
  end)

  it("deletes all copies beyond a lowered limit in one rotation", function()
    local copies = {}
    for n = 1, 7 do copies["." .. n] = tostring(n) end
    assert.is_true(write(1024, { size = 1, keep = 4 }, copies))
    assert.are.same({ 1024, "1", "2" }, { #content(".1"), content(".2"), content(".3") })
    for n = 4, 7 do assert.is_false(logpath.exists(file("." .. n)), n) end
  end)

  it("reports a copy that cannot be renamed as event 6007 and goes on", function()
    os.execute("mkdir -p '" .. file(".2") .. "/inside'")
    assert.is_true(write(1024, { size = 1, keep = 8 }, { [".1"] = "one" }))
    local detail = file(".1") .. "|" .. file(".2") .. "|Is a directory"
    assert.are.same({ { number = 6007, detail = detail } }, env.dom:AgentEvents())
    -- The live file still moved, over the copy that stayed in place.
    assert.are.equal(1024, #content(".1"))
  end)

  it("puts the copy number in place of the name's own extension", function()
    env.log:SetLogFileName("fw.log")
    env.path = env.folder .. "/fw.log"
    assert.is_true(write(1024, { size = 1, keep = 8 }))
    assert.are.equal(1024, #support.read(env.folder .. "/fw.1"))
    assert.is_false(logpath.exists(env.path))
  end)
end)
