-- The Lua module "norvi": handle boxes, the record encoder and the argument
-- checks of the driver-side controls.
local norvi = require "norvi"

-- The bytes of value, least significant first.
local function le(value, width)
    local bytes = {}
    for index = 1, width do
        bytes[index] = value % 256
        value = math.floor(value / 256)
    end
    return bytes
end

local function bytesOf(text)
    return {text:byte(1, -1)}
end

-- Encodes fields and compares the whole record with expected, a table of
-- byte lists by offset (from 0, as in the layout); every other byte is zero.
local function expectRecord(fields, expected)
    local record = norvi.EncodeRecord(fields)
    assert.equal(192, #record)
    local want = {}
    for offset, bytes in pairs(expected) do
        for index, byte in ipairs(bytes) do
            want[offset + index] = byte
        end
    end
    for position = 1, 192 do
        assert.equal(want[position] or 0, record:byte(position), "offset " .. (position - 1))
    end
end

describe("norvi", function()
    it("open gives a box of the driver handle metatable; close is idempotent", function()
        local handle, reason = norvi.open()
        assert.is_nil(reason)
        assert.equal(debug.getregistry()["norvi_handle_t*"], getmetatable(handle))
        assert.truthy(tostring(handle):find("norvi handle %(0?x?%x+%)"))
        assert.has_error(function() handle.close({}) end)
        assert.has_error(function() handle.close(io.stdout) end)
        handle:close()
        handle:close()
        assert.equal("norvi handle (closed)", tostring(handle))
    end)

    it("says that the stand-in has no record sources and no SSL socket", function()
        local handle = norvi.open()
        for _, call in ipairs {
            function() return norvi.open { pcap = "x.pcap", host = "10.0.0.1" } end,
            function() return norvi.listen_ssl("/tmp/none.sock") end,
            function() return handle:next() end,
            function() return handle:keylog() end,
        } do
            local ok, message = pcall(call)
            assert.is_false(ok)
            assert.truthy(message:find("this driver library has no record sources"), message)
        end
        handle:close()
    end)

    it("controls take integer result codes and SSL requests of the right shape", function()
        norvi.SetBlacklistResult(0)
        norvi.SubmitSslRequest(string.rep("h", 80), string.rep("d", 65456))
        local ok, message = pcall(norvi.SubmitSslRequest, string.rep("h", 79), "data")
        assert.is_false(ok)
        assert.truthy(message:find("bad argument #1 .*header must be 80 bytes"), message)
        local header, tooLong = string.rep("h", 80), string.rep("d", 65457)
        assert.has_error(function() norvi.SubmitSslRequest(header, tooLong) end)
        assert.has_error(function() norvi.SetBlacklistResult(1.5) end)
        assert.has_error(function() norvi.SetSslResponseResult(2 ^ 40) end)
    end)
end)

describe("norvi.EncodeRecord", function()
    it("writes host-order numbers little-endian, signed ones in two's complement", function()
        expectRecord({}, {})
        expectRecord({
            time_sec = 0x01020304, time_usec = 999999, action = -2, reason = -32768,
            id = 4294967295, interface_index = 7, packet_pos = 0xbeef, flags = 0x58,
            packet_len = 1500, data_len = 12, log_flags = 0x42, end_time_sec = 1700000000,
            count = 3, aux_count = 65535,
        }, {
            [0] = {4, 3, 2, 1}, [4] = le(999999, 4), [20] = {0xfe, 0xff}, [22] = {0x00, 0x80},
            [24] = {255, 255, 255, 255}, [28] = le(7, 4), [36] = {0xef, 0xbe}, [38] = le(0x58, 2),
            [52] = le(1500, 4), [76] = le(12, 2), [84] = le(0x42, 2), [88] = le(1700000000, 4),
            [96] = le(3, 4), [100] = {255, 255},
        })
    end)

    it("writes headers in network order and addresses from text", function()
        expectRecord({
            eth_type = 0x0800, iph_total_len = 0x1234, iph_frag_off = 0x4000, iph_proto = 6,
            iph_src = "10.1.2.3", iph_dest = "192.168.200.1", th_sport = 443, th_dport = 0xabcd,
            tcph_flags = 0x12,
        }, {
            [114] = {0x08, 0x00}, [122] = {0x12, 0x34}, [126] = {0x40, 0x00}, [129] = {6},
            [132] = {10, 1, 2, 3}, [136] = {192, 168, 200, 1}, [160] = {0x01, 0xbb},
            [162] = {0xab, 0xcd}, [173] = {0x12},
        })
        expectRecord({
            ipv6h_next = 58, ipv6h_src = "2001:db8::1", ipv6h_dest = "::ffff:1.2.3.4",
            icmph_type = 8, icmph_code = 255,
        }, {
            [126] = {58}, [128] = {0x20, 0x01, 0x0d, 0xb8}, [143] = {1},
            [154] = {0xff, 0xff, 1, 2, 3, 4}, [160] = {8, 255},
        })
    end)

    it("copies byte strings and takes their lengths unless told otherwise", function()
        expectRecord({
            interface_mac = "\1\2\3\4\5\6", note = "abc\0def",
            eth_dest = "\170\187\204\221\238\255", eth_src = "\1\0\1",
        }, {
            [40] = le(6, 4), [44] = {1, 2, 3, 4, 5, 6}, [56] = le(7, 2), [60] = bytesOf("abc\0def"),
            [102] = {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}, [108] = {1, 0, 1},
        })
        expectRecord({interface_mac = "\1\2", interface_mac_len = 40, note = "x", note_len = 0},
                     {[40] = le(40, 4), [44] = {1, 2}, [60] = bytesOf("x")})
    end)

    it("raises argument errors for caller mistakes", function()
        local cases = {
            {{bogus = 1}, "unknown field 'bogus'"},
            {{[1] = 5}, "field names must be strings"},
            {{action = 32768}, "field 'action' out of range"},
            {{action = -32769}, "field 'action' out of range"},
            {{time_sec = 2 ^ 32}, "field 'time_sec' out of range"},
            {{iph_proto = 256}, "field 'iph_proto' out of range"},
            {{count = 1.5}, "field 'count' must be an integer"},
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
