-- The byte codecs of the nkProtocol wire: base128, CRC-8 and both compression forms.
-- Plain Lua 5.2 on Lua strings, no Wireshark API, so that loading this file alone (as
-- Wireshark does with every .lua file in its plugin folder) registers nothing.
-- Arithmetic instead of bit32 calls in the loops: it is several times faster in Lua 5.2.

local M = {}

local char, byte, concat, floor = string.char, string.byte, table.concat, math.floor
local unpack = table.unpack or unpack

-- base128: every byte carries 7 bits (top bit set); 8 bytes give 7. The padding bits of
-- the last group are dropped, the top bit of every byte is ignored.
function M.base128_decode(s)
    local out, n = {}, 0
    local m = #s
    local whole = m - m % 8
    for i = 1, whole, 8 do
        local g0, g1, g2, g3, g4, g5, g6, g7 = byte(s, i, i + 7)
        g0, g1, g2, g3 = g0 % 128, g1 % 128, g2 % 128, g3 % 128
        g4, g5, g6, g7 = g4 % 128, g5 % 128, g6 % 128, g7 % 128
        n = n + 1
        out[n] = char(g0 * 2 + floor(g1 / 64),
                      (g1 % 64) * 4 + floor(g2 / 32),
                      (g2 % 32) * 8 + floor(g3 / 16),
                      (g3 % 16) * 16 + floor(g4 / 8),
                      (g4 % 8) * 32 + floor(g5 / 4),
                      (g5 % 4) * 64 + floor(g6 / 2),
                      (g6 % 2) * 128 + g7)
    end
    local rest = m - whole
    if rest > 0 then
        local g = { byte(s, whole + 1, m) }
        for k = rest + 1, 8 do g[k] = 0 end
        for k = 1, 8 do g[k] = g[k] % 128 end
        local b = { g[1] * 2 + floor(g[2] / 64),
                    (g[2] % 64) * 4 + floor(g[3] / 32),
                    (g[3] % 32) * 8 + floor(g[4] / 16),
                    (g[4] % 16) * 16 + floor(g[5] / 8),
                    (g[5] % 8) * 32 + floor(g[6] / 4),
                    (g[6] % 4) * 64 + floor(g[7] / 2) }
        n = n + 1
        out[n] = char(unpack(b, 1, floor(7 * rest / 8)))
    end
    return concat(out)
end

-- CRC-8, polynomial 0x07, initial 0, not reflected, no final XOR.
local crc_table = {}
for i = 0, 255 do
    local c = i
    for _ = 1, 8 do
        if bit32.btest(c, 0x80) then c = bit32.band(bit32.bxor(bit32.lshift(c, 1), 0x07), 0xFF)
        else c = bit32.band(bit32.lshift(c, 1), 0xFF) end
    end
    crc_table[i] = c
end

-- CRC-8 of s[first..last] (whole string by default).
function M.crc8(s, first, last)
    first, last = first or 1, last or #s
    local crc, bxor, t = 0, bit32.bxor, crc_table
    for i = first, last do
        crc = t[bxor(crc, byte(s, i))]
    end
    return crc
end

local function u32le(s, i)
    local a, b, c, d = byte(s, i, i + 3)
    return a + b * 256 + c * 65536 + d * 16777216
end
M.u32le = u32le

-- RLE (PackBits) form: u32 length n, then packets. Gives the decoded string, or nil and
-- the reason the form is refused.
function M.rle_decode(s)
    if #s < 4 then return nil, "shorter than its 4-byte header" end
    local n = u32le(s, 1)
    if n > 64 * (#s - 4) then return nil, "claims more bytes than its packets can yield" end
    local out, parts, produced, i = {}, 0, 0, 5
    while i <= #s do
        local c = byte(s, i)
        if c < 128 then
            local count = c + 1
            if i + count > #s then return nil, "a literal packet is cut off" end
            produced = produced + count
            if produced > n then return nil, "packets yield more than the stated length" end
            parts = parts + 1
            out[parts] = s:sub(i + 1, i + count)
            i = i + 1 + count
        elseif c > 128 then
            if i + 1 > #s then return nil, "a repeat packet is cut off" end
            local count = 257 - c
            produced = produced + count
            if produced > n then return nil, "packets yield more than the stated length" end
            parts = parts + 1
            out[parts] = string.rep(s:sub(i + 1, i + 1), count)
            i = i + 2
        else
            i = i + 1
        end
    end
    if produced < n then return nil, "packets end before the stated length" end
    return concat(out)
end

local pow2 = {}
for k = 0, 40 do pow2[k] = 2 ^ k end

-- Huffman form: u32 length n, 128 bytes of 4-bit code lengths, canonical codes packed
-- most significant bit first. Gives the decoded string, or nil and the reason.
function M.huffman_decode(s)
    if #s < 4 then return nil, "shorter than its 4-byte header" end
    local n = u32le(s, 1)
    if n == 0 then
        if #s ~= 4 then return nil, "bytes follow the header of an empty form" end
        return ""
    end
    if #s < 132 then return nil, "the code length table is cut off" end
    if n > 8 * (#s - 132) then return nil, "claims more symbols than its code stream can hold" end
    local lengths, count = {}, {}
    for l = 0, 15 do count[l] = 0 end
    for k = 0, 127 do
        local b = byte(s, 5 + k)
        lengths[2 * k] = b % 16
        lengths[2 * k + 1] = floor(b / 16)
    end
    local kraft, used, single = 0, 0, nil
    for sym = 0, 255 do
        local l = lengths[sym]
        if l > 12 then return nil, "a code length above 12" end
        if l > 0 then
            count[l] = count[l] + 1
            kraft = kraft + pow2[12 - l]
            used = used + 1
            single = sym
        end
    end
    local one_symbol = used == 1 and lengths[single] == 1
    if kraft ~= 4096 and not one_symbol then return nil, "the code lengths do not form a complete code" end
    -- canonical codes, then a 12-bit look-up table: index = next 12 bits of the stream
    local next_code, code = {}, 0
    count[0] = 0
    for l = 1, 12 do
        code = (code + count[l - 1]) * 2
        next_code[l] = code
    end
    local table_sym, table_len = {}, {}
    for sym = 0, 255 do
        local l = lengths[sym]
        if l > 0 then
            local c = next_code[l]
            next_code[l] = c + 1
            local first = c * pow2[12 - l]
            for idx = first, first + pow2[12 - l] - 1 do
                table_sym[idx] = sym
                table_len[idx] = l
            end
        end
    end
    local out, chunk, parts, nchunk = {}, {}, 0, 0
    local buf, nbits, pos, last = 0, 0, 133, #s
    local bits_total = (last - 132) * 8
    local consumed = 0
    for _ = 1, n do
        while nbits < 12 do
            local b = 0
            if pos <= last then b = byte(s, pos) end
            pos = pos + 1
            buf = buf * 256 + b
            nbits = nbits + 8
        end
        local idx = floor(buf / pow2[nbits - 12])
        local l = table_len[idx]
        if not l then return nil, "a code that no symbol has" end
        nbits = nbits - l
        buf = buf % pow2[nbits]
        consumed = consumed + l
        if consumed > bits_total then return nil, "the code stream ends before all symbols" end
        nchunk = nchunk + 1
        chunk[nchunk] = table_sym[idx]
        if nchunk == 4096 then
            parts = parts + 1
            out[parts] = char(unpack(chunk, 1, nchunk))
            nchunk = 0
        end
    end
    if nchunk > 0 then
        parts = parts + 1
        out[parts] = char(unpack(chunk, 1, nchunk))
    end
    local needed = floor((consumed + 7) / 8)
    if needed ~= last - 132 then return nil, "bytes follow the one holding the last code" end
    -- padding bits of the last byte must be 0
    local pad = needed * 8 - consumed
    if pad > 0 and byte(s, last) % pow2[pad] ~= 0 then return nil, "a padding bit is 1" end
    return concat(out)
end

return M
