-- The class binder as scripts meet it, through the host's class norv::Dom:
-- class tables, constructor and method calls and their errors, instances,
-- SLB.using.
local norv = require "norv"

-- The message of the error that fn raises, without the position of the
-- failing call that Lua puts before it.
local function errorOf(fn)
    local ok, message = pcall(fn)
    assert.is_false(ok, "no error raised")
    return (tostring(message):gsub("^[^:]+:%d+: ", ""))
end

describe("the class binder", function()
    local Dom = SLB.norv.Dom

    it("places classes in nested tables under SLB", function()
        assert.is_table(Dom)
        assert.equal("class norv::Dom: NorvCore::CDom: "
                     .. "the host's settings, conditions and agent events", tostring(Dom))
        assert.is_function(Dom.SetSetting)
    end)

    it("counts constructor arguments without the class table", function()
        assert.equal("Error number of arguments (given 0 -> expected 1)",
                     errorOf(function() Dom() end))
        assert.equal("Error number of arguments (given 2 -> expected 1)",
                     errorOf(function() Dom(":memory:", 2) end))
        assert.equal("bad argument #1 to 'Dom' (string expected, got nil)",
                     errorOf(function() Dom(nil) end))
    end)

    it("makes instances that print their class and hide their metatable", function()
        local dom = Dom(":memory:")
        assert.is_userdata(dom)
        assert.truthy(tostring(dom):match("^norv::Dom: 0x%x+$"))
        assert.is_false(getmetatable(dom))
        assert.is_nil(dom.NoSuchMember)
        assert.has_error(function() setmetatable(Dom, {}) end)
    end)

    it("checks the argument count of bound methods, the object excluded", function()
        local dom = Dom(":memory:")
        assert.equal("Error number of arguments (given 1 -> expected 0)",
                     errorOf(function() dom:RequestExit(1) end))
        assert.equal("Error number of arguments (given 0 -> expected 1)",
                     errorOf(function() dom:ConditionRaise() end))
        assert.equal("Error number of arguments (given 2 -> expected 1)",
                     errorOf(function() dom:ConditionRaise("a", "b") end))
    end)

    it("refuses objects of the wrong kind", function()
        local dom = Dom(":memory:")
        assert.equal("Invalid object for this method", errorOf(function() Dom.RequestExit({}) end))
        assert.equal("Invalid object for this method",
                     errorOf(function() Dom.ConditionRaise(42, "x") end))
        assert.equal("bad argument #1 to 'GetSetting' (norv::Dom expected)",
                     errorOf(function() dom.GetSetting({}, "key") end))
        assert.equal("bad argument #1 to 'ConditionRaise' (string expected, got nil)",
                     errorOf(function() dom:ConditionRaise(nil) end))
    end)

    it("lets collected instances go and keeps the others working", function()
        local kept = Dom(":memory:")
        for _ = 1, 50 do
            Dom(":memory:"):SetSetting("scratch", 1)
        end
        collectgarbage()
        collectgarbage()
        assert.is_true(kept:SetSetting("k", "v"))
        assert.equal("v", kept:GetSetting("k"))
    end)

    it("makes the entries of a table reachable as globals with SLB.using", function()
        assert.is_nil(rawget(_G, "Dom"))
        SLB.using(SLB.norv)
        assert.equal(SLB.norv.Dom, _G.Dom)
        local dom = _G.Dom(":memory:")
        dom:ConditionRaise("x")
        assert.equal(1, dom:ConditionCount("x"))
        assert.equal("bad argument #1 to 'using' (table expected, got string)",
                     errorOf(function() SLB.using("norv") end))
    end)

    it("keeps one class table when the module is loaded again", function()
        package.loaded.norv = nil
        local again = require "norv"
        assert.is_function(again.Ticks)
        assert.equal(Dom, SLB.norv.Dom)
        assert.not_equal(norv, again)
        assert.equal(1, Dom(":memory:"):ConditionRaise("y"))
    end)
end)
