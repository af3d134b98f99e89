-- The host module norv: how values cross between Lua and norv::Dom, and the
-- argument checks of its functions.
local norv = require "norv"

-- The message of the error that fn raises, without the position of the
-- failing call that Lua puts before it.
local function errorOf(fn)
    local ok, message = pcall(fn)
    assert.is_false(ok, "no error raised")
    return (tostring(message):gsub("^[^:]+:%d+: ", ""))
end

describe("norv", function()
    it("keeps Dom settings in the store file, seen by a second Dom", function()
        local path = os.tmpname()
        local first = SLB.norv.Dom(path)
        assert.is_true(first:SetSetting("a.text", "h\195\169llo"))
        assert.is_true(first:SetSetting("a.number", -42))
        assert.is_true(first:SetSetting("a.flag", true))
        assert.is_true(first:SetSetting("a.zero", "with\0zero"))
        local second = SLB.norv.Dom(path)
        assert.equal("h\195\169llo", second:GetSetting("a.text"))
        assert.equal("-42", second:GetSetting("a.number"))
        assert.equal("1", second:GetSetting("a.flag"))
        assert.equal("with\0zero", second:GetSetting("a.zero"))
        assert.is_nil(second:GetSetting("a.absent"))
        first, second = nil, nil
        collectgarbage()
        os.remove(path)
    end)

    it("raises argument errors for values of other types", function()
        local dom = SLB.norv.Dom(":memory:")
        local cases = {
            {function() dom:SetSetting("k", 1.5) end, "#2 to 'SetSetting' (integer expected)"},
            {function() dom:SetSetting("k", {}) end,
             "#2 to 'SetSetting' (string, integer or boolean expected)"},
            {function() dom:SetSetting("k") end,
             "#2 to 'SetSetting' (string, integer or boolean expected)"},
            {function() dom:GetSetting({}) end, "#1 to 'GetSetting' (string expected, got table)"},
            {function() norv.SetTicks("soon") end,
             "#1 to 'SetTicks' (number expected, got string)"},
        }
        for index, case in ipairs(cases) do
            assert.equal("bad argument " .. case[2], errorOf(case[1]), "case " .. index)
        end
        assert.is_nil(dom:GetSetting("k"))
    end)
end)
