-- The Lua module "norvi": handle boxes, the record encoder and the argument
-- checks of the driver-side controls.
local norvi = require "norvi"

-- Little helpers to read the encoded record (offsets from 0, as in the layout).
local function byteAt(record, offset)
    return record:byte(offset + 1)
end
local function le(record, offset, width)
    local value = 0
    for index = width - 1, 0, -1 do
        value = value * 256 + byteAt(record, offset + index)
    end
    return value
end
local function be(record, offset, width)
    local value = 0
    for index = 0, width - 1 do
        value = value * 256 + byteAt(record, offset + index)
    end
    return value
end
local function zeroes(record, from, to)
    for offset = from, to do
        if byteAt(record, offset) ~= 0 then
            return false
        end
    end
    return true
end

describe("norvi handles", function()
    it("open gives a box of the driver handle metatable, and close is idempotent", function()
        local handle, reason = norvi.open()
        assert.is_nil(reason)
        assert.equal("userdata", type(handle))
        assert.equal(debug.getregistry()["norvi_handle_t*"], getmetatable(handle))
        assert.truthy(tostring(handle):find("norvi handle %(0?x?%x+%)"))
        handle:close()
        assert.equal("norvi handle (closed)", tostring(handle))
        handle:close()
        assert.equal("norvi handle (closed)", tostring(handle))
    end)

    it("close refuses anything but a box", function()
        local handle = norvi.open()
        assert.has_error(function() handle.close({}) end)
        assert.has_error(function() handle.close(io.stdout) end)
        handle:close()
    end)
end)

describe("norvi driver-side controls", function()
    it("start with nothing recorded", function()
        assert.same({}, norvi.BlacklistRequests())
        assert.same({}, norvi.SslResponses())
    end)

    it("take integer result codes only", function()
        norvi.SetBlacklistResult(13)
        norvi.SetBlacklistResult(0)
        norvi.SetSslResponseResult(-5)
        norvi.SetSslResponseResult(0)
        for _, bad in ipairs({"13", 1.5, 2 ^ 40, -(2 ^ 40), true}) do
            assert.has_error(function() norvi.SetBlacklistResult(bad) end)
            assert.has_error(function() norvi.SetSslResponseResult(bad) end)
        end
        assert.has_error(function() norvi.SetBlacklistResult() end)
    end)

    it("check the shape of a submitted SSL request", function()
        local header = string.rep("h", 80)
        norvi.SubmitSslRequest(header, "data")
        norvi.SubmitSslRequest(header)
        local ok, message = pcall(norvi.SubmitSslRequest, header:sub(2), "data")
        assert.is_false(ok)
        assert.truthy(message:find("bad argument #1 .*header must be 80 bytes"), message)
        assert.has_error(function() norvi.SubmitSslRequest(header .. "x") end)
        assert.has_error(function() norvi.SubmitSslRequest(nil, "data") end)
        assert.has_error(function() norvi.SubmitSslRequest(header, {}) end)
        assert.has_error(function() norvi.SubmitSslRequest(header, string.rep("d", 65457)) end)
        norvi.SubmitSslRequest(header, string.rep("d", 65456))
    end)
end)

describe("norvi.EncodeRecord", function()
    it("gives 192 zero bytes for no fields", function()
        local record = norvi.EncodeRecord({})
        assert.equal(192, #record)
        assert.is_true(zeroes(record, 0, 191))
    end)

    it("writes host-order numbers little-endian and signed fields in two's complement", function()
        local record = norvi.EncodeRecord({
            time_sec = 0x01020304, time_usec = 999999, action = -2, reason = -32768,
            id = 4294967295, interface_index = 7, packet_pos = 0xbeef, flags = 0x58,
            packet_len = 1500, data_len = 12, log_flags = 0x42, end_time_sec = 1700000000,
            count = 3, aux_count = 65535,
        })
        assert.equal(192, #record)
        assert.same({4, 3, 2, 1}, {record:byte(1, 4)})
        assert.equal(999999, le(record, 4, 4))
        assert.same({0xfe, 0xff}, {record:byte(21, 22)})
        assert.same({0x00, 0x80}, {record:byte(23, 24)})
        assert.equal(4294967295, le(record, 24, 4))
        assert.equal(7, le(record, 28, 4))
        assert.equal(0xbeef, le(record, 36, 2))
        assert.equal(0x58, le(record, 38, 2))
        assert.equal(1500, le(record, 52, 4))
        assert.equal(12, le(record, 76, 2))
        assert.equal(0x42, le(record, 84, 2))
        assert.equal(1700000000, le(record, 88, 4))
        assert.equal(3, le(record, 96, 4))
        assert.equal(65535, le(record, 100, 2))
        assert.is_true(zeroes(record, 8, 19))
        assert.is_true(zeroes(record, 102, 191))
    end)

    it("writes headers in network order and addresses from text", function()
        local record = norvi.EncodeRecord({
            eth_type = 0x0800, iph_total_len = 0x1234, iph_frag_off = 0x4000, iph_proto = 6,
            iph_src = "10.1.2.3", iph_dest = "192.168.200.1", th_sport = 443, th_dport = 0xabcd,
            tcph_flags = 0x12,
        })
        assert.same({0x08, 0x00}, {record:byte(115, 116)})
        assert.equal(0x1234, be(record, 122, 2))
        assert.same({0x40, 0x00}, {record:byte(127, 128)})
        assert.equal(6, byteAt(record, 129))
        assert.same({10, 1, 2, 3}, {record:byte(133, 136)})
        assert.same({192, 168, 200, 1}, {record:byte(137, 140)})
        assert.same({0x01, 0xbb}, {record:byte(161, 162)})
        assert.same({0xab, 0xcd}, {record:byte(163, 164)})
        assert.equal(0x12, byteAt(record, 173))
        assert.is_true(zeroes(record, 0, 113))
        assert.is_true(zeroes(record, 174, 191))
    end)

    it("writes IPv6 addresses and ICMP fields", function()
        local record = norvi.EncodeRecord({
            ipv6h_next = 58, ipv6h_src = "2001:db8::1", ipv6h_dest = "::ffff:1.2.3.4",
            icmph_type = 8, icmph_code = 255,
        })
        assert.equal(58, byteAt(record, 126))
        assert.same({0x20, 0x01, 0x0d, 0xb8}, {record:byte(129, 132)})
        assert.is_true(zeroes(record, 132, 142))
        assert.equal(1, byteAt(record, 143))
        assert.is_true(zeroes(record, 144, 153))
        assert.same({0xff, 0xff, 1, 2, 3, 4}, {record:byte(155, 160)})
        assert.equal(8, byteAt(record, 160))
        assert.equal(255, byteAt(record, 161))
    end)

    it("copies byte strings and takes their lengths unless told otherwise", function()
        local record = norvi.EncodeRecord({
            interface_mac = "\1\2\3\4\5\6", note = "abc\0def", eth_dest = "\170\187\204\221\238\255",
            eth_src = "\1\0\1",
        })
        assert.equal(6, le(record, 40, 4))
        assert.same({1, 2, 3, 4, 5, 6, 0, 0}, {record:byte(45, 52)})
        assert.equal(7, le(record, 56, 2))
        assert.equal("abc\0def", record:sub(61, 67))
        assert.is_true(zeroes(record, 67, 75))
        assert.same({0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}, {record:byte(103, 108)})
        assert.same({1, 0, 1, 0, 0, 0}, {record:byte(109, 114)})

        local told = norvi.EncodeRecord({interface_mac = "\1\2", interface_mac_len = 40,
                                         note = "x", note_len = 0})
        assert.equal(40, le(told, 40, 4))
        assert.equal(0, le(told, 56, 2))
        assert.equal(string.byte("x"), byteAt(told, 60))
    end)

    it("raises argument errors for caller mistakes", function()
        local cases = {
            {{bogus = 1}, "unknown field 'bogus'"},
            {{[1] = 5}, "field names must be strings"},
            {{action = 32768}, "field 'action' out of range"},
            {{action = -32769}, "field 'action' out of range"},
            {{th_sport = 65536}, "field 'th_sport' out of range"},
            {{time_sec = -1}, "field 'time_sec' out of range"},
            {{time_sec = 2 ^ 32}, "field 'time_sec' out of range"},
            {{iph_proto = 256}, "field 'iph_proto' out of range"},
            {{count = 1.5}, "field 'count' must be an integer"},
            {{count = "3"}, "field 'count' must be an integer"},
            {{count = 0 / 0}, "field 'count' out of range"},
            {{note = string.rep("n", 17)}, "field 'note' longer than 16 bytes"},
            {{interface_mac = string.rep("m", 9)}, "field 'interface_mac' longer than 8 bytes"},
            {{eth_src = 1234567}, "field 'eth_src' must be a string"},
            {{iph_src = "10.1.2"}, "field 'iph_src' is not an IPv4 address"},
            {{iph_dest = "10.1.2.3\0junk"}, "field 'iph_dest' is not an IPv4 address"},
            {{ipv6h_src = "10.1.2.3"}, "field 'ipv6h_src' is not an IPv6 address"},
            {{note = string.rep("n", 16), note_len = 65536}, "field 'note_len' out of range"},
        }
        for _, case in ipairs(cases) do
            local ok, message = pcall(norvi.EncodeRecord, case[1])
            assert.is_false(ok)
            assert.truthy(message:find("bad argument #1", 1, true), message)
            assert.truthy(message:find(case[2], 1, true), message)
        end
        assert.has_error(function() norvi.EncodeRecord("record") end)
        assert.has_error(function() norvi.EncodeRecord() end)
    end)
end)
