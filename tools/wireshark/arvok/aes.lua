-- AES-128, the direction that a reader needs: ECB and CBC decryption. Wireshark's Lua brings no cipher of its own.
--
-- Blocks are four big-endian words, one for each column of the state. A round is one look-up for each of the sixteen
-- bytes, in tables that hold InvMixColumns(InvSubBytes(byte)); they are computed when the file is loaded.

local band, bxor, lshift, rshift, ror = bit.band, bit.bxor, bit.lshift, bit.rshift, bit.ror

local aes = {}

local sbox, inverse = {}, {}
local d0, d1, d2, d3 = {}, {}, {}, {}

local function double(byte)
    byte = byte * 2
    return byte > 255 and bxor(byte, 0x11b) or byte
end

local function fill_tables()
    local power, log = {}, {}
    local value = 1
    for n = 0, 254 do
        power[n], log[value] = value, n
        value = bxor(value, double(value)) -- times 3, which generates the field
    end
    local function times(a, b)
        return (a == 0 or b == 0) and 0 or power[(log[a] + log[b]) % 255]
    end
    for byte = 0, 255 do
        local reciprocal = byte == 0 and 0 or power[(255 - log[byte]) % 255]
        local mixed = 0x63
        for turn = 0, 4 do
            mixed = bxor(mixed, band(bxor(lshift(reciprocal, turn), rshift(reciprocal, 8 - turn)), 255))
        end
        sbox[byte], inverse[mixed] = mixed, byte
    end
    for byte = 0, 255 do
        local s = inverse[byte]
        local word = times(s, 14) * 0x1000000 + times(s, 9) * 0x10000 + times(s, 13) * 0x100 + times(s, 11)
        d0[byte], d1[byte], d2[byte], d3[byte] = bit.tobit(word), ror(word, 8), ror(word, 16), ror(word, 24)
    end
end

fill_tables()

local function bytes_of(word)
    return rshift(word, 24), band(rshift(word, 16), 255), band(rshift(word, 8), 255), band(word, 255)
end

local function word_at(text, at)
    local a, b, c, d = text:byte(at, at + 3)
    return bit.tobit(((a * 256 + b) * 256 + c) * 256 + d)
end

local function to_text(word)
    return string.char(bytes_of(word))
end

-- The round keys 0 to 43 in the form that the decrypting rounds use.
local function schedule(key)
    local keys, constant = {}, 1
    for n = 0, 3 do keys[n] = word_at(key, 4 * n + 1) end
    for n = 4, 43 do
        local word = keys[n - 1]
        if n % 4 == 0 then
            local a, b, c, d = bytes_of(word)
            word = bxor(lshift(bxor(sbox[b], constant), 24), lshift(sbox[c], 16), lshift(sbox[d], 8), sbox[a])
            constant = double(constant)
        end
        keys[n] = bxor(keys[n - 4], word)
    end
    for n = 4, 39 do
        local a, b, c, d = bytes_of(keys[n])
        keys[n] = bxor(d0[sbox[a]], d1[sbox[b]], d2[sbox[c]], d3[sbox[d]])
    end
    return keys
end

local schedules = setmetatable({}, { __mode = "v" })

local function schedule_of(key)
    assert(#key == 16, "an AES-128 key has 16 bytes")
    schedules[key] = schedules[key] or schedule(key)
    return schedules[key]
end

local function column(table0, table1, table2, table3, p, q, r, s)
    return bxor(table0[rshift(p, 24)], table1[band(rshift(q, 16), 255)], table2[band(rshift(r, 8), 255)],
        table3[band(s, 255)])
end

local function last_column(p, q, r, s)
    return bxor(lshift(inverse[rshift(p, 24)], 24), lshift(inverse[band(rshift(q, 16), 255)], 16),
        lshift(inverse[band(rshift(r, 8), 255)], 8), inverse[band(s, 255)])
end

local function decrypt_block(keys, a, b, c, d)
    a, b, c, d = bxor(a, keys[40]), bxor(b, keys[41]), bxor(c, keys[42]), bxor(d, keys[43])
    for n = 36, 4, -4 do
        a, b, c, d = bxor(column(d0, d1, d2, d3, a, d, c, b), keys[n]),
            bxor(column(d0, d1, d2, d3, b, a, d, c), keys[n + 1]),
            bxor(column(d0, d1, d2, d3, c, b, a, d), keys[n + 2]),
            bxor(column(d0, d1, d2, d3, d, c, b, a), keys[n + 3])
    end
    return bxor(last_column(a, d, c, b), keys[0]), bxor(last_column(b, a, d, c), keys[1]),
        bxor(last_column(c, b, a, d), keys[2]), bxor(last_column(d, c, b, a), keys[3])
end

local function decrypt(key, sealed, chained)
    local keys, blocks = schedule_of(key), {}
    local w, x, y, z = 0, 0, 0, 0 -- the block before; of the first, the initialisation vector
    for at = 1, #sealed - 15, 16 do
        local p, q, r, s = word_at(sealed, at), word_at(sealed, at + 4), word_at(sealed, at + 8), word_at(sealed, at + 12)
        local a, b, c, d = decrypt_block(keys, p, q, r, s)
        blocks[#blocks + 1] = to_text(bxor(a, w)) .. to_text(bxor(b, x)) .. to_text(bxor(c, y)) .. to_text(bxor(d, z))
        if chained then w, x, y, z = p, q, r, s end
    end
    return table.concat(blocks)
end

--- Decrypts whole blocks with a key of 16 bytes. Padding stays; a last block that is not whole is left out.
function aes.ecb(key, sealed) return decrypt(key, sealed, false) end

--- The same, chained, with an initialisation vector of zeros.
function aes.cbc(key, sealed) return decrypt(key, sealed, true) end

return aes
