-- The class binder as scripts meet it through the host's class norv::Dom;
-- the binder's own cases are in Slb_test.
local norv = require "norv"

describe("the class binder", function()
    local Dom = SLB.norv.Dom

    it("places norv::Dom under SLB and makes instances that print their class", function()
        assert.equal("class norv::Dom: NorvCore::CDom: "
                     .. "the host's settings, conditions and agent events", tostring(Dom))
        local dom = Dom(":memory:")
        assert.truthy(tostring(dom):match("^norv::Dom: 0x%x+$"))
        assert.is_false(getmetatable(dom))
        assert.has_error(function() setmetatable(Dom, {}) end)
        local _, message = pcall(function() dom.GetSetting({}, "key") end)
        assert.truthy(message:find("bad argument #1 to 'GetSetting' (norv::Dom expected)", 1, true),
                      message)
    end)

    it("keeps one class table when the module is loaded again", function()
        package.loaded.norv = nil
        local again = require "norv"
        assert.not_equal(norv, again)
        assert.equal(Dom, SLB.norv.Dom)
        SLB.using(SLB.norv)
        assert.equal(1, _G.Dom(":memory:"):ConditionRaise("y"))
    end)
end)
