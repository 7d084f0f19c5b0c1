#!lua name=kelgw
-- The server side of the data point store: everything that must happen at once happens here.
-- docs/store-format.md describes the keys, the texts and every function. 64-bit numbers and times travel as
-- texts; where one is compared as a number it is a count of milliseconds or of changes, far below 2^53.

local VERSION = '4'

local DAY_MS = 86400000
local MARK_BYTES = 1048576        -- distance of the marks that trimming cuts at
local LOG_BYTES = 268435456       -- bound of the log unless dp:cfg logBytes says another
local INLINE_BYTES = 65536        -- what a larger change wrote is kept beside the log
local INLINE_ELEMENTS = 3000      -- and so with one of more elements than a call can carry
local STEP = 5                    -- places of one element in the plan of a write
local LEASE_MS = 3000             -- when a write takes a free lease up again
local MOST_LOOKED_AT = 20000      -- changes that a restore looks through for what is newer than it

local function now_ms()
  local t = redis.call('TIME')
  return string.format('%.0f', tonumber(t[1]) * 1000 + math.floor(tonumber(t[2]) / 1000))
end

-- Compares two unsigned decimal texts exactly, however long.
local function newer(a, b)
  if #a ~= #b then return #a > #b end
  return a > b
end

local function sequence() return redis.call('GET', 'dp:seq') or '0' end

local function lease_key(number) return 'dp:mgr:' .. number .. ':lease' end

local function lease_text(number)
  local h = redis.call('HMGET', lease_key(number), 'text', 'writer')
  return h[1] or h[2] or redis.call('HGET', 'dp:mgr:' .. number .. ':owner', 'text') or 'nobody'
end

-- A lease runs out, its owner stays: who had the number last, and its generation, which rises whenever the number goes
-- to another writer. `mine` is the generation that the writer says it has, '0' for none.
local function owner_of(number)
  local h = redis.call('HMGET', 'dp:mgr:' .. number .. ':owner', 'writer', 'generation')
  return h[1] or '', h[2] or '0'
end

-- Whether the number was never another's since the writer got it in this generation. A store that came back without the
-- newest knows less of it than the writer.
local function still_owner(number, writer, mine)
  local owner, generation = owner_of(number)
  return newer(mine, generation) or mine == generation and owner == writer
end

local function lease_take(number, writer, ttl, text, generation)
  local key, owner = lease_key(number), 'dp:mgr:' .. number .. ':owner'
  redis.call('HSET', key, 'writer', writer, 'text', text, 'generation', generation)
  redis.call('PEXPIRE', key, ttl)
  redis.call('HSET', owner, 'writer', writer, 'text', text, 'generation', generation)
end

-- A fence is a manager number and the generation that the writer has it in, "7:3". Gives the number when the writer has
-- it, or may take it up again because its lease has merely run out; else nil and what to answer. Whoever calls without a
-- generation is of an older release, and is sent to look at the version of the library.
local function keep(fence, writer)
  local number, mine = string.match(fence, '^(%d+):(%d+)$')
  if not number then return nil, 'TRYAGAIN the library is newer than its caller: no generation in ' .. fence end
  local held = redis.call('HMGET', lease_key(number), 'writer', 'generation')
  if held[1] == writer and held[2] == mine then return number end
  if held[1] or not still_owner(number, writer, mine) then return nil, 'FENCED ' .. lease_text(number) end
  lease_take(number, writer, LEASE_MS, redis.call('HGET', 'dp:mgr:' .. number, '@text') or writer, mine)
  return number
end

-- Remembers when a writer was last seen; a new one is the occasion to forget those silent for a day.
local function touch(writer, is_new)
  local now = now_ms()
  redis.call('ZADD', 'dp:cli:use', now, writer)
  if is_new then
    local old = redis.call('ZRANGEBYSCORE', 'dp:cli:use', '-inf', string.format('%.0f', tonumber(now) - DAY_MS))
    for _, w in ipairs(old) do
      redis.call('HDEL', 'dp:cli', w)
      redis.call('ZREM', 'dp:cli:use', w)
    end
  end
end

-- Cuts the log at its oldest marks until it is within its bound again.
local function trim(total)
  local bound = tonumber(redis.call('HGET', 'dp:cfg', 'logBytes') or LOG_BYTES)
  local dropped = tonumber(redis.call('GET', 'dp:log:dropped') or '0')
  while total - dropped > bound do
    local mark = redis.call('LPOP', 'dp:log:marks')
    if not mark then return end
    local id, upto, large = string.match(mark, '^(%d+) (%d+)(.*)$')
    redis.call('XTRIM', 'dp:log', 'MINID', string.format('%.0f', tonumber(id) + 1))
    for seq in string.gmatch(large, '%d+') do redis.call('DEL', 'dp:log:v:' .. seq) end
    dropped = tonumber(upto)
    redis.call('SET', 'dp:log:dropped', upto)
  end
end

-- One entry of the log; its id is the sequence. `pairs` starts at index `from` of the list. What a large change wrote
-- lies in a key of its own as long as its entry is in the log.
local function append(kind, head, list, from, bytes, packed)
  local seq = redis.call('INCR', 'dp:seq')
  local id = string.format('%.0f', seq)
  local r = redis.pcall('XADD', 'dp:log', id, kind, head, unpack(list, from))
  if type(r) == 'table' and r.err then
    -- The counter was lost but the log was not: go on where the log ends.
    local info = redis.call('XINFO', 'STREAM', 'dp:log')
    for i = 1, #info, 2 do
      if info[i] == 'last-generated-id' then seq = tonumber(string.match(info[i + 1], '^%d+')) + 1 end
    end
    id = string.format('%.0f', seq)
    redis.call('SET', 'dp:seq', id)
    redis.call('XADD', 'dp:log', id, kind, head, unpack(list, from))
  end
  if packed then
    redis.call('SET', 'dp:log:v:' .. id, packed)
    redis.call('RPUSH', 'dp:log:large', id)
    bytes = bytes + #packed
  end
  bytes = bytes + 24
  local total = redis.call('INCRBY', 'dp:log:bytes', bytes)
  if math.floor(total / MARK_BYTES) ~= math.floor((total - bytes) / MARK_BYTES) then
    local mark = id .. ' ' .. string.format('%.0f', total)
    local large = redis.call('LPOP', 'dp:log:large')
    while large do
      mark = mark .. ' ' .. large
      large = redis.call('LPOP', 'dp:log:large')
    end
    redis.call('RPUSH', 'dp:log:marks', mark)
    trim(total)
  end
  return seq
end

-- What is known of a writer: its newest write, then counts of calls and attributes applied, of attributes refused and of
-- calls with a value applied, then when it came. See dp:cli in docs/store-format.md.
-- The text written last is not read again: it is nearly always the one that is asked for next.
local newest = {}
local function book_of(known)
  if known == newest.text then
    return newest.last, newest.calls, newest.attributes, newest.refused, newest.values, newest.since
  end
  local last, calls, attributes, refused, values, since =
    string.match(known, '^(%d+) (%d+) ?(%d*) ?(%d*) ?(%d*) ?(%d*)$')
  return last, tonumber(calls), tonumber(attributes) or 0, tonumber(refused) or 0, tonumber(values) or 0, since
end

-- What stands before the value in a text of attributes: "i0", "11", "20" in any order. There are few of these, so what
-- they mean is worked out once and kept: fields to set, their letters, and the flag if there is one.
local heads = {}
local function head_of(text)
  local set, letters, flag = {}, '', nil
  for p = 1, #text, 2 do
    local c, bit = string.sub(text, p, p), string.sub(text, p + 1, p + 1)
    if (c ~= 'i' and c ~= '1' and c ~= '2') or (bit ~= '0' and bit ~= '1') then return nil end
    set[p], set[p + 1] = c, bit
    letters = letters .. c
    if c == 'i' then flag = bit end
  end
  local head = {set = set, letters = letters, flag = flag}
  if #text <= 6 then heads[text] = head end
  return head
end

-- Splits a text of attributes: what stands before the value, and the value or nil. Nil when it is no such text.
local function split(text)
  local at = string.find(text, 'v', 1, true)
  local before = at and string.sub(text, 1, at - 1) or text
  local head = heads[before] or head_of(before)
  if not head or text == '' then return nil end
  return head, at and string.sub(text, at + 1)
end

-- Something else than a hash under an element's key is that element's trouble alone; a right that is missing is told.
local function missing_right(reply)
  return type(reply) == 'table' and reply.err and not string.find(reply.err, '^WRONGTYPE')
end

-- Notes the sequence at which this server began to take writes: as another process than the one before it, or as a
-- replica that was promoted. What stands in the log up to there had been written before anything that was lost with
-- its predecessor; what comes after it is newer. Gives the run id, and what tells this life of the server from others.
local begun = false
local function begin()
  local run = string.match(redis.call('INFO', 'server'), 'run_id:(%w+)')
  local life = run .. ' ' .. (string.match(redis.call('INFO', 'replication'), 'master_replid:(%w+)') or '-')
  local kept = redis.call('GET', 'dp:log:began')
  if not kept then
    redis.call('SET', 'dp:log:began', life .. ' 0')
  elseif string.match(kept, '^%w+ %S+') ~= life then
    redis.call('SET', 'dp:log:began', life .. ' ' .. sequence())
  end
  begun = true
  return run, string.sub(run, 1, 16) .. string.sub(life, -16)
end

-- Who wrote each attribute of an element last since this server began, a restored one behind RESTORED. Only a restore
-- looks, and then only at what is new since it last looked. Not whole: too much came in between, or the log lacks it.
local RESTORED = '\1'
local seen_log = {mark = false, upto = 0, by = {}, whole = true}

local function note(name, letters, valued, who)
  local by = seen_log.by[name]
  if not by then
    by = {}
    seen_log.by[name] = by
  end
  for p = 1, #letters do by[string.sub(letters, p, p)] = who end
  if valued then by.v = who end
end

local function look_back()
  local mark, current = redis.call('GET', 'dp:log:began') or '', tonumber(sequence())
  if mark ~= seen_log.mark or current < seen_log.upto then
    seen_log.mark, seen_log.upto, seen_log.by, seen_log.whole = mark, tonumber(string.match(mark, '(%d+)$') or '0'), {}, true
  end
  if current == seen_log.upto then return end
  local from = string.format('%.0f', seen_log.upto + 1)
  local entries = current - seen_log.upto <= MOST_LOOKED_AT and redis.call('XRANGE', 'dp:log', from, '+') or {}
  if not entries[1] or string.match(entries[1][1], '^%d+') ~= from then
    seen_log.whole, entries = false, {}
  end
  for _, entry in ipairs(entries) do
    local f = entry[2]
    local who = string.match(f[2], ' (.*)$')
    if f[1] == 'S' then
      for letters, name in string.gmatch(f[4], '([^ \n]+) ([^\n]*)') do
        note(name, string.gsub(letters, 'v', ''), string.find(letters, 'v', 1, true), who)
      end
    elseif f[1] == 's' then
      for i = 3, #f, 2 do
        local head, value = split(f[i + 1])
        if head then note(f[i], head.letters, value, who) end
      end
    end
  end
  seen_log.upto = current
end

-- What of a restored text is not superseded: all of it mostly, nothing at all perhaps.
local function still_newest(name, key, text, head, value, writer, when)
  local by = seen_log.by[name]
  if seen_log.whole and not by then return text end
  local times = redis.call('HMGET', key, 't', 'ti')
  local function superseded(letter)
    local who = by and by[letter]
    if seen_log.whole and (not who or who == writer or who == RESTORED .. writer) then return false end
    if who and string.sub(who, 1, 1) ~= RESTORED then return who ~= writer end
    return tonumber(times[letter == 'i' and 2 or 1] or '0') > when
  end
  local kept = ''
  for p = 1, #head.letters do
    local letter = string.sub(head.letters, p, p)
    if not superseded(letter) then kept = kept .. letter .. head.set[2 * p] end
  end
  if value and not superseded('v') then kept = kept .. 'v' .. value end
  return kept
end

-- dp_set writer fence number previous time flags (name text)...
local function dp_set(_, args)
  local writer, fence, number, previous, time, flags = args[1], args[2], args[3], args[4], args[5], args[6]
  if fence ~= '' then
    local mine, answer = keep(fence, writer)
    if not mine then return redis.error_reply(answer) end
  elseif not begun then
    pcall(begin)  -- who may not ask the server is let in all the same
  end
  local last, calls, attributes, refused, values, since = '0', 0, 0, 0, 0, ''
  local known = redis.call('HGET', 'dp:cli', writer)
  if known then last, calls, attributes, refused, values, since = book_of(known) end
  if not newer(number, last) then return 0 end
  if newer(previous, last) then
    return redis.error_reply('ORDER write ' .. previous .. ' is missing, the newest known is ' .. last)
  end
  if time == '' then time = now_ms() end
  if since == '' then since = now_ms() end
  local when = tonumber(time)
  local restore, knows = string.byte(flags) == 114, string.match(flags, 'c(%d+)$')
  if knows then
    -- Only where elements have moved since is each of them asked when.
    local moved = redis.call('GET', 'dp:log:moved')
    if not moved or not newer(moved, knows) then knows = nil end
  end
  if restore then look_back() end
  local call, pcall = redis.call, redis.pcall

  -- Look first, write afterwards: nothing below can fail half way. The plan has STEP places for each element.
  local plan, n, bytes, unknown, moved, broken, skipped, left_out = {}, 0, 0, nil, nil, nil, false, {}
  local good, bad, valued = 0, 0, false
  for i = 7, #args, 2 do
    local name, text = args[i], args[i + 1]
    local key = 'dp:d:' .. name
    local was = pcall('HGET', key, 'i')
    local head, value = split(text)
    local count = not head and 0 or value and #head.letters + 1 or #head.letters
    if missing_right(was) then return was end
    if restore and head and type(was) ~= 'table' then
      text = still_newest(name, key, text, head, value, writer, when)
      args[i + 1] = text
      if text ~= '' then head, value = split(text) end
    end
    local at = knows and type(was) ~= 'table' and call('HGET', key, 'a')
    if not head or type(was) == 'table' then
      broken, bad = name, bad + count
    elseif not was and call('HEXISTS', 'dp:cat', name) == 0 then
      unknown, bad = unknown and unknown .. ', ' .. name or name, bad + count
      left_out[#left_out + 1] = (i - 7) / 2
    elseif at and newer(at, knows) then
      moved, bad = moved and moved .. ', ' .. name or name, bad + count
      left_out[#left_out + 1] = (i - 7) / 2
    elseif text == '' then
      skipped = true  -- nothing of it is the newest any more
    else
      local flag = head.flag
      plan[n + 1], plan[n + 2], plan[n + 3], plan[n + 4] = i, key, head, value or false
      plan[n + 5] = flag and flag ~= (was or '1') or false
      n, good, valued = n + STEP, good + count, valued or value
      bytes = bytes + #name + #text + 4
    end
  end

  local seq = -1
  if broken then n, good, bad = 0, 0, bad + good end
  if n > 0 then
    local headline = time .. ' ' .. writer
    if bytes > INLINE_BYTES or n > INLINE_ELEMENTS * STEP then
      local lines, packed = {}, {}
      for k = 1, n, STEP do
        local name, text = args[plan[k]], args[plan[k] + 1]
        lines[#lines + 1] = plan[k + 2].letters .. (plan[k + 3] and 'v ' or ' ') .. name
        packed[#packed + 1] = #name .. ':' .. name .. #text .. ':' .. text
      end
      local names = table.concat(lines, '\n')
      seq = append('S', headline, {'names', names}, 1, #names + #headline, table.concat(packed))
    elseif skipped or unknown or moved then
      local list = {}
      for k = 1, n, STEP do
        list[#list + 1] = args[plan[k]]
        list[#list + 1] = args[plan[k] + 1]
      end
      seq = append('s', headline, list, 1, bytes + #headline)
    else
      seq = append('s', headline, args, 7, bytes + #headline)
    end
    for k = 1, n, STEP do
      local key, set, value = plan[k + 1], plan[k + 2].set, plan[k + 3]
      if value and plan[k + 4] then
        call('HSET', key, 'v', value, 't', time, 'ti', time, unpack(set))
      elseif value then
        call('HSET', key, 'v', value, 't', time, unpack(set))
      elseif plan[k + 4] then
        call('HSET', key, 'ti', time, unpack(set))
      else
        call('HSET', key, unpack(set))
      end
    end
    calls = calls + 1
    if restore then
      for k = 1, n, STEP do note(args[plan[k]], plan[k + 2].letters, plan[k + 3], RESTORED .. writer) end
      seen_log.upto = seq
    end
  end
  -- What is restored had been counted when it was written.
  if not restore then
    attributes, refused = attributes + good, refused + bad
    if valued and n > 0 then values = values + 1 end
  end
  local text = string.format('%s %.0f %.0f %.0f %.0f %s', number, calls, attributes, refused, values, since)
  newest.text, newest.last, newest.calls, newest.since = text, number, calls, since
  newest.attributes, newest.refused, newest.values = attributes, refused, values
  redis.call('HSET', 'dp:cli', writer, text)
  if not known or fence == '' then touch(writer, not known) end
  if broken then return redis.error_reply('REFUSED ' .. broken .. ': no text of attributes, or no hash in the store') end
  if unknown or moved then
    local why = unknown and 'no such element: ' .. unknown
    if moved then why = (why and why .. '; ' or '') .. 'another type or address since: ' .. moved end
    if n == 0 then return redis.error_reply('REFUSED ' .. why) end
    local answer = {seq, why}
    for k = 1, #left_out do answer[k + 2] = left_out[k] end
    return answer
  end
  return seq
end

local function state_of(name)
  local h = redis.pcall('HMGET', 'dp:d:' .. name, 'v', 'i', '1', '2', 't', 'ti')
  if missing_right(h) then error(h) end
  if h.err then return {false, false, false, false, false, false} end
  return h
end

-- dp_snap name...  -> sequence, then one state for each name
local function dp_snap(_, args)
  local out = {sequence()}
  for i = 1, #args do out[i + 1] = state_of(args[i]) end
  return out
end

-- dp_large sequence  -> what a change of kind S wrote: element and attribute text, ..., as netstrings; nil when it was
-- cut off with its entry
local function dp_large(_, args) return redis.call('GET', 'dp:log:v:' .. args[1]) end

-- dp_since sequence  -> sequence, then name and state of everything that changed after it
local function dp_since(_, args)
  local current = sequence()
  local out, seen = {current}, {}
  if not newer(current, args[1]) then return out end
  local entries = redis.call('XRANGE', 'dp:log', '(' .. args[1], '+')
  local first = entries[1] and string.match(entries[1][1], '^%d+')
  if first ~= string.format('%.0f', tonumber(args[1]) + 1) then
    return redis.error_reply('TRIMMED the log no longer holds what came after ' .. args[1])
  end
  local function add(name)
    if not seen[name] then
      seen[name] = true
      out[#out + 1] = name
      out[#out + 1] = state_of(name)
    end
  end
  for _, entry in ipairs(entries) do
    local f = entry[2]
    if f[1] == 'S' then
      for name in string.gmatch(f[4], '[^ \n]+ ([^\n]*)') do add(name) end
    else
      for i = 3, #f, 2 do add(f[i]) end
    end
  end
  return out
end

-- For one lease length after a server began anew, as another process or as a promoted replica, only who had the number
-- last is let in: it may be on its way back. Gives the milliseconds that are left, 0 when there is nothing to wait for.
local function held_back(number, writer, ttl, life)
  local key = 'dp:mgr:' .. number .. ':owner'
  local h = redis.call('HMGET', key, 'writer', 'life', 'asked', 'until')
  if not h[1] or h[1] == '' or h[1] == writer or h[2] == life then return 0 end
  local now, length = tonumber(now_ms()), tonumber(ttl)
  local left = (tonumber(h[4]) or 0) - now
  if h[3] ~= life or left > length then
    left = length
    redis.call('HSET', key, 'asked', life, 'until', string.format('%.0f', now + length))
  end
  return math.max(left, 0)
end

-- dp_hello writer number ttl kind host process version text [generation]
--   -> 1, last client sequence, sequence, run id, attributes applied, refused, generation
--   or 0, holder's text, milliseconds until it may be free
-- Who names a generation has had the number and is let in only if nobody else has had it since.
local function dp_hello(_, args)
  local writer, number, ttl, mine = args[1], args[2], args[3], args[9] or '0'
  local run, life = begin()
  local holder, wait = redis.call('HGET', lease_key(number), 'writer'), held_back(number, writer, ttl, life)
  local owner, generation = owner_of(number)
  if mine ~= '0' then
    if not still_owner(number, writer, mine) then
      return {0, lease_text(number), math.max(redis.call('PTTL', lease_key(number)), 0)}
    end
    generation = mine
  elseif holder and holder ~= writer or wait > 0 then
    return {0, lease_text(number), math.max(redis.call('PTTL', lease_key(number)), wait)}
  elseif owner ~= writer then
    generation = string.format('%.0f', tonumber(generation) + 1)
  end
  lease_take(number, writer, ttl, args[8], generation)
  redis.call('HSET', 'dp:mgr:' .. number .. ':owner', 'life', life)
  local key = 'dp:mgr:' .. number
  if redis.call('HGET', key, '@writer') ~= writer then redis.call('DEL', key) end
  redis.call('HSET', key, '@writer', writer, '@kind', args[4], '@host', args[5], '@process', args[6], '@version',
             args[7], '@text', args[8], '@beat', now_ms())
  redis.call('PEXPIRE', key, DAY_MS)
  redis.call('ZADD', 'dp:mgr', now_ms(), number)
  local known = redis.call('HGET', 'dp:cli', writer)
  touch(writer, not known)
  if not known then
    known = '0 0 0 0 0 ' .. now_ms()
    redis.call('HSET', 'dp:cli', writer, known)
  end
  local last, _, attributes, refused = book_of(known)
  return {1, last, sequence(), run, string.format('%.0f', attributes), string.format('%.0f', refused),
          generation}
end

-- dp_beat writer fence ttl (name value)...  -> 1, sequence, store's time   or 0, holder's text
local function dp_beat(_, args)
  local writer, ttl = args[1], args[3]
  local number, answer = keep(args[2], writer)
  if not number then
    local holder = string.match(answer, '^FENCED (.*)$')
    return holder and {0, holder} or redis.error_reply(answer)
  end
  redis.call('PEXPIRE', lease_key(number), ttl)
  local key, now = 'dp:mgr:' .. number, now_ms()
  local order = {}
  for i = 4, #args, 2 do
    order[#order + 1] = args[i]
    redis.call('HSET', key, args[i], args[i + 1])
  end
  redis.call('HSET', key, '@writer', writer, '@beat', now, '@order', table.concat(order, '\n'))
  redis.call('PEXPIRE', key, DAY_MS)
  redis.call('ZADD', 'dp:mgr', now, number)
  redis.call('ZADD', 'dp:cli:use', now, writer)
  return {1, sequence(), now}
end

-- dp_bye writer number: gives the lease back at an orderly end  -> 1 or 0
local function dp_bye(_, args)
  if redis.call('HGET', lease_key(args[2]), 'writer') ~= args[1] then return 0 end
  redis.call('DEL', lease_key(args[2]))
  -- Nobody is waited for, and nothing that was still on its way is taken.
  redis.call('HSET', 'dp:mgr:' .. args[2] .. ':owner', 'writer', '', 'text', '')
  return 1
end

-- dp_cat  -> sequence, then name and entry of every element
local function dp_cat()
  local out, all = {sequence()}, redis.call('HGETALL', 'dp:cat')
  for i = 1, #all do out[i + 1] = all[i] end
  return out
end

-- The address of a catalogue text, '' when it has none.
local function address_of(entry)
  return entry and string.match(string.gsub(entry, '^%S+ ?d?%d* ?', '', 1), '^a.*$') or ''
end

-- dp_put writer (name entry)...  -> how many were new or other than before
-- What an element holds did not come from an address that is new to it, so it is made invalid in the same step. And
-- what others have sent without knowing of the change is not for it any more: its hash says since when.
local function dp_put(_, args)
  local list, n, bytes = {}, 0, 0
  local moved, marked, marked_bytes = {}, {}, 0
  for i = 2, #args, 2 do
    local name, entry = args[i], args[i + 1]
    local old = redis.call('HGET', 'dp:cat', name)
    if old ~= entry then
      local key, address = 'dp:d:' .. name, address_of(entry)
      local other_type = old and string.match(old, '^%S+') ~= string.match(entry, '^%S+')
      local readdressed = address ~= '' and address ~= address_of(old)
      if other_type then redis.call('DEL', key) end
      if other_type or readdressed then
        local flag = redis.pcall('HGET', key, 'i')
        if type(flag) ~= 'table' then moved[#moved + 1] = key end
        if flag == '0' then
          marked[#marked + 1], marked[#marked + 2] = name, 'i1'
          marked_bytes = marked_bytes + #name + 6
        end
      end
      redis.call('HSET', 'dp:cat', name, entry)
      list[n + 1], list[n + 2] = name, entry
      n, bytes = n + 2, bytes + #name + #entry + 4
    end
  end
  if n == 0 then return 0 end
  local now = now_ms()
  local seq = append('c', now .. ' ' .. args[1], list, 1, bytes)
  if #moved > 0 then
    local text = string.format('%.0f', seq)
    for _, key in ipairs(moved) do redis.call('HSET', key, 'a', text) end
    redis.call('SET', 'dp:log:moved', text)
  end
  if #marked > 0 then
    for i = 1, #marked, 2 do redis.call('HSET', 'dp:d:' .. marked[i], 'i', '1', 'ti', now) end
    append('s', now .. ' ' .. args[1], marked, 1, marked_bytes)
  end
  return n / 2
end

-- dp_del writer name...  -> how many there were
local function dp_del(_, args)
  local list, n, bytes = {}, 0, 0
  for i = 2, #args do
    if redis.call('HDEL', 'dp:cat', args[i]) == 1 then
      redis.call('DEL', 'dp:d:' .. args[i])
      list[n + 1], list[n + 2] = args[i], ''
      n, bytes = n + 2, bytes + #args[i] + 4
    end
  end
  if n > 0 then append('x', now_ms() .. ' ' .. args[1], list, 1, bytes) end
  return n / 2
end

-- dp_managers  -> store's time, then for each manager: number, hash, lease holder or nil
local function dp_managers()
  local now = now_ms()
  local out = {now}
  for _, number in ipairs(redis.call('ZRANGEBYSCORE', 'dp:mgr', string.format('%.0f', tonumber(now) - DAY_MS), '+inf')) do
    out[#out + 1] = number
    out[#out + 1] = redis.call('HGETALL', 'dp:mgr:' .. number)
    out[#out + 1] = redis.call('HGET', lease_key(number), 'writer')
  end
  return out
end

local function dp_version() return VERSION end

redis.register_function('dp_set', dp_set)
redis.register_function('dp_hello', dp_hello)
redis.register_function('dp_beat', dp_beat)
redis.register_function('dp_bye', dp_bye)
redis.register_function('dp_put', dp_put)
redis.register_function('dp_del', dp_del)
redis.register_function{function_name = 'dp_version', callback = dp_version, flags = {'no-writes'}}
redis.register_function{function_name = 'dp_snap', callback = dp_snap, flags = {'no-writes'}}
redis.register_function{function_name = 'dp_large', callback = dp_large, flags = {'no-writes'}}
redis.register_function{function_name = 'dp_since', callback = dp_since, flags = {'no-writes'}}
redis.register_function{function_name = 'dp_cat', callback = dp_cat, flags = {'no-writes'}}
redis.register_function{function_name = 'dp_managers', callback = dp_managers, flags = {'no-writes'}}
