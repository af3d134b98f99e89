-- The Lua module "norvi" on the stand-in: handles, the record encoder and the
-- argument checks of the driver-side controls.
local norvi = require "norvi"

describe("norvi", function()
    it("has no record sources or SSL socket on the stand-in; handles check self", function()
        local handle = norvi.open()
        for _, call in ipairs {
            function() return norvi.open { pcap = "x.pcap", host = "10.0.0.1" } end,
            function() return norvi.listen_ssl("/tmp/none.sock") end,
            function() return handle:next() end,
        } do
            local ok, message = pcall(call)
            assert.is_false(ok)
            assert.truthy(message:find("this driver library has no record sources"), message)
        end
        assert.has_error(function() handle.close(io.stdout) end)
        handle:close()
        handle:close()
        assert.equal("norvi handle (closed)", tostring(handle))
    end)

    it("controls take integer result codes and SSL requests of the right shape", function()
        norvi.SubmitSslRequest(string.rep("h", 80), string.rep("d", 65456))
        local ok, message = pcall(norvi.SubmitSslRequest, string.rep("h", 79), "data")
        assert.truthy(not ok and message:find("bad argument #1 .*header must be 80 bytes"), message)
        ok, message = pcall(norvi.SubmitSslRequest, string.rep("h", 80), string.rep("d", 65457))
        assert.truthy(not ok and message:find("bad argument #2 .*longer than 65456"), message)
        assert.has_error(function() norvi.SetBlacklistResult(1.5) end)
    end)

    it("EncodeRecord writes numbers little-endian or in network order, addresses and byte strings", function()
        -- Fields, and the bytes expected by offset (from 0, as in the layout);
        -- every other byte is zero.
        local cases = {
            { {}, {} },
            { { action = -2, reason = -32768, id = 0x01020304, aux_count = 65535, th_sport = 443,
                iph_src = "10.1.2.3", ipv6h_dest = "::ffff:1.2.3.4", note = "abc\0d",
                interface_mac = "\1\2" },
              { [20] = {0xfe, 0xff, 0x00, 0x80}, [24] = {4, 3, 2, 1}, [100] = {255, 255},
                [160] = {0x01, 0xbb}, [132] = {10, 1, 2, 3}, [154] = {0xff, 0xff, 1, 2, 3, 4},
                [56] = {5}, [60] = {97, 98, 99, 0, 100}, [40] = {2}, [44] = {1, 2} } },
            -- A length given wins over the string's own.
            { { interface_mac = "\1\2", interface_mac_len = 40, note = "x", note_len = 0 },
              { [40] = {40}, [44] = {1, 2}, [60] = {120} } },
        }
        for number, case in ipairs(cases) do
            local want = {}
            for offset, bytes in pairs(case[2]) do
                for index, byte in ipairs(bytes) do want[offset + index] = byte end
            end
            for position = 1, 192 do want[position] = want[position] or 0 end
            assert.same(want, {norvi.EncodeRecord(case[1]):byte(1, -1)}, "case " .. number)
        end
    end)

    it("EncodeRecord raises argument errors for caller mistakes", function()
        local cases = {
            {{bogus = 1}, "unknown field 'bogus'"},
            {{[1] = 5}, "field names must be strings"},
            {{action = 32768}, "field 'action' out of range"},
            {{reason = -32769}, "field 'reason' out of range"},
            {{count = 0 / 0}, "field 'count' out of range"},
            {{count = 1.5}, "field 'count' must be an integer"},
            {{note = string.rep("n", 17)}, "field 'note' longer than 16 bytes"},
            {{eth_src = 1234567}, "field 'eth_src' must be a string"},
            {{iph_dest = "10.1.2.3\0junk"}, "field 'iph_dest' is not an IPv4 address"},
            {{ipv6h_src = "10.1.2.3"}, "field 'ipv6h_src' is not an IPv6 address"},
        }
        for _, case in ipairs(cases) do
            local ok, message = pcall(norvi.EncodeRecord, case[1])
            assert.truthy(not ok and message:find("bad argument #1", 1, true), message)
            assert.truthy(message:find(case[2], 1, true), message)
        end
        assert.has_error(function() norvi.EncodeRecord() end)
    end)
end)
