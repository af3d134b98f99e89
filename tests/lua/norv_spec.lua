-- The host module norv end to end: the store class norv::Dom, trace lines,
-- the operator log and the tick clock.
local norv = require "norv"

-- The message of the error that fn raises, without the position of the
-- failing call that Lua puts before it.
local function errorOf(fn)
    local ok, message = pcall(fn)
    assert.is_false(ok, "no error raised")
    return (tostring(message):gsub("^[^:]+:%d+: ", ""))
end

local function reload()
    package.loaded.norv = nil
    return require "norv"
end

-- Spins for at least msec of processor time.
local function spin(msec)
    local stop = os.clock() + msec / 1000
    while os.clock() < stop do end
end

describe("norv", function()
    it("returns its host functions and registers norv::Dom", function()
        for _, name in ipairs({"AdvanceTicks", "OperatorLog", "RealTicks", "SetTicks", "SetTrace",
                               "Ticks", "TraceLines"}) do
            assert.is_function(norv[name], name)
        end
        assert.is_table(SLB.norv.Dom)
    end)

    describe("Dom", function()
        local path

        before_each(function()
            path = os.tmpname()
        end)

        after_each(function()
            collectgarbage()
            os.remove(path)
        end)

        it("keeps settings in the store file, seen by a second Dom", function()
            local first = SLB.norv.Dom(path)
            assert.is_true(first:SetSetting("a.text", "h\195\169llo"))
            assert.is_true(first:SetSetting("a.number", -42))
            assert.is_true(first:SetSetting("a.flag", true))
            assert.is_true(first:SetSetting("a.off", false))
            assert.is_true(first:SetSetting("a.zero", "with\0zero"))
            local second = SLB.norv.Dom(path)
            assert.equal("h\195\169llo", second:GetSetting("a.text"))
            assert.equal("-42", second:GetSetting("a.number"))
            assert.equal("1", second:GetSetting("a.flag"))
            assert.equal("0", second:GetSetting("a.off"))
            assert.equal("with\0zero", second:GetSetting("a.zero"))
            assert.is_nil(second:GetSetting("a.absent"))
            second:SetSetting("a.text", "changed")
            assert.equal("changed", first:GetSetting("a.text"))
        end)

        it("refuses setting values of other types", function()
            local dom = SLB.norv.Dom(":memory:")
            assert.equal("bad argument #2 to 'SetSetting' (integer expected)",
                         errorOf(function() dom:SetSetting("k", 1.5) end))
            assert.equal("bad argument #2 to 'SetSetting' (string, integer or boolean expected)",
                         errorOf(function() dom:SetSetting("k", {}) end))
            assert.equal("bad argument #2 to 'SetSetting' (string, integer or boolean expected)",
                         errorOf(function() dom:SetSetting("k") end))
            assert.equal("bad argument #1 to 'SetSetting' (string expected, got nil)",
                         errorOf(function() dom:SetSetting(nil, 1) end))
            assert.equal("bad argument #1 to 'GetSetting' (string expected, got table)",
                         errorOf(function() dom:GetSetting({}) end))
            assert.is_nil(dom:GetSetting("k"))
        end)

        it("counts raised conditions by name", function()
            local dom = SLB.norv.Dom(":memory:")
            assert.equal(0, dom:ConditionCount("app.configUpdated"))
            assert.equal(1, dom:ConditionRaise("app.configUpdated"))
            assert.equal(2, dom:ConditionRaise("app.configUpdated"))
            dom:ConditionRaise("norv.HeartbeatNow")
            assert.equal(2, dom:ConditionCount("app.configUpdated"))
            assert.equal(1, dom:ConditionCount("norv.HeartbeatNow"))
            assert.equal(0, SLB.norv.Dom(":memory:"):ConditionCount("app.configUpdated"))
            assert.equal("bad argument #1 to 'ConditionCount' (string expected, got no value)",
                         errorOf(function() dom:ConditionCount() end))
        end)

        it("lists no agent events for a new store and after clearing", function()
            local dom = SLB.norv.Dom(path)
            assert.same({}, dom:AgentEvents())
            dom:ClearAgentEvents()
            assert.same({}, dom:AgentEvents())
        end)

        it("takes the configuration document as text", function()
            local dom = SLB.norv.Dom(":memory:")
            assert.is_boolean(dom:SetConfigXml("<SecurityConfiguration/>"))
            assert.equal("bad argument #1 to 'SetConfigXml' (string expected, got nil)",
                         errorOf(function() dom:SetConfigXml(nil) end))
        end)

        it("reports a store that cannot be opened in the operator log", function()
            norv.OperatorLog()
            local dom = SLB.norv.Dom("/nonexistent/folder/store.db")
            local lines = norv.OperatorLog()
            assert.truthy(#lines >= 1)
            local store = "/nonexistent/folder/store%.db"
            assert.truthy(lines[1]:match("^Error: Can't open the host store " .. store))
            assert.same({}, norv.OperatorLog())
            assert.is_false(dom:SetSetting("k", "v"))
            assert.is_nil(dom:GetSetting("k"))
        end)

        it("accepts an exit request", function()
            local dom = SLB.norv.Dom(":memory:")
            assert.equal(0, select("#", dom:RequestExit()))
            assert.equal("Error number of arguments (given 1 -> expected 0)",
                         errorOf(function() dom:RequestExit(true) end))
        end)
    end)

    describe("trace", function()
        after_each(function()
            norv.SetTrace("")
            norv.TraceLines()
        end)

        it("keeps lines of switched-on categories until they are taken", function()
            norv.SetTrace("other, norv")
            norv.TraceLines()
            reload()
            local lines = norv.TraceLines()
            assert.equal(1, #lines)
            local expected = "^norv NorvModule%.cpp:%d+ .*luaopen_norv.*: luaopen_norv$"
            assert.truthy(lines[1]:match(expected), lines[1])
            assert.same({}, norv.TraceLines())
        end)

        it("keeps nothing when switched off or for other categories", function()
            norv.SetTrace("")
            reload()
            assert.same({}, norv.TraceLines())
            norv.SetTrace("vexil")
            reload()
            assert.same({}, norv.TraceLines())
            norv.SetTrace("*")
            reload()
            assert.equal(1, #norv.TraceLines())
        end)

        it("wants a string", function()
            assert.equal("bad argument #1 to 'SetTrace' (string expected, got no value)",
                         errorOf(function() norv.SetTrace() end))
        end)
    end)

    describe("ticks", function()
        after_each(function()
            norv.RealTicks()
        end)

        it("stand still on the manual clock until advanced", function()
            norv.SetTicks(100)
            spin(20)
            assert.equal(100, norv.Ticks())
            norv.AdvanceTicks(50)
            assert.equal(150, norv.Ticks())
        end)

        it("wrap at 32 bits", function()
            norv.SetTicks(4294967290)
            norv.AdvanceTicks(10)
            assert.equal(4, norv.Ticks())
            norv.SetTicks(-1)
            assert.equal(4294967295, norv.Ticks())
        end)

        it("run again on the real clock", function()
            norv.SetTicks(7)
            norv.RealTicks()
            local before = norv.Ticks()
            spin(30)
            local elapsed = (norv.Ticks() - before) % 4294967296
            assert.truthy(elapsed >= 20 and elapsed < 10000, tostring(elapsed))
        end)

        it("want numbers", function()
            assert.equal("bad argument #1 to 'SetTicks' (number expected, got string)",
                         errorOf(function() norv.SetTicks("soon") end))
            assert.equal("bad argument #1 to 'AdvanceTicks' (number expected, got no value)",
                         errorOf(function() norv.AdvanceTicks() end))
        end)
    end)
end)
