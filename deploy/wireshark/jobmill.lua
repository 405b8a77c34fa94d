-- What masters, the jobmill and simulators say to each other, for Wireshark and tshark.
-- docs/wireshark.md says how to use it.
--
-- There are two protocols: "jobmill" between a master and the jobmill (docs/master-protocol.md),
-- "jobmill_sim" between the jobmill and a simulator (docs/external-controller-protocol.md).
-- Wireshark goes through a capture once from its beginning to its end, and then shows any frame
-- again whenever somebody looks at it. What a message means depends on the messages before it. So
-- the first pass notes for each message what it belongs to, and later passes only look that up.
--
-- Everything read here may be wrong, cut or hostile: lengths are compared with what is there before
-- anything is read. Wireshark has Lua 5.2 or 5.4, depending on its version: no operators for bits,
-- no integer division.

local master = Proto("jobmill", "Jobmill, master's link")
local simulator = Proto("jobmill_sim", "Jobmill, simulator's link")

local RECEIVE_BUFFER = 65536 -- of the jobmill: a larger frame of a master ends the run
local LONGEST_LINE = 32767 -- a longer frame of the handshake never completes
local FULL_CHUNK = 65536 -- a sender cuts messages for a simulator at multiples of this
-- A sender that cuts much smaller is not followed, because finding the end of its message would
-- take too long.
local MOST_CHUNKS = 4096
-- Wireshark gives up on a frame with a million items.
local MOST_ITEMS = 200000

local SHUT_DOWN, NEXT_POINT, NEXT_TABLE = 65520, 4096, 4097
local RECORDS_OF = { [10] = NEXT_POINT, [16] = NEXT_TABLE }

-- Fields ------------------------------------------------------------------------------------------

local CODES = {
  [1] = "connect to the simulator",
  [2] = "simulated date",
  [3] = "metric?",
  [4] = "simulated time",
  [5] = "compositional?",
  [6] = "all wells",
  [7] = "to the first time step",
  [8] = "run until",
  [9] = "has the simulation ended?",
  [10] = "operating points",
  [11] = "set status",
  [12] = "set uptime",
  [13] = "set constraints",
  [14] = "equation of state",
  [15] = "variables of a well",
  [16] = "inflow tables",
  [17] = "version of the simulator",
  [18] = "attach an injection source",
  [19] = "set compositions",
  [20] = "start date",
  [NEXT_POINT] = "next operating point",
  [NEXT_TABLE] = "next inflow table",
  [SHUT_DOWN] = "shut down",
}

-- The fields of a protocol by the part of their names after its own.
local function fields_of(protocol, prefix, kinds)
  local by_name, all = {}, {}
  for kind, names in pairs(kinds) do
    for name, label in pairs(names) do
      local field
      if kind == "framenum" then
        local type = name == "request_in" and frametype.REQUEST or frametype.RESPONSE
        field = ProtoField.framenum(prefix .. "." .. name, label, base.NONE, type)
      elseif kind == "code" then
        field = ProtoField.uint32(prefix .. "." .. name, label, base.DEC, CODES)
      else
        field = ProtoField[kind](prefix .. "." .. name, label)
      end
      by_name[name] = field
      all[#all + 1] = field
    end
  end
  protocol.fields = all
  return by_name
end

local F = fields_of(master, "jobmill", {
  int32 = {
    length = "Length",
    acknowledgement = "Acknowledgement",
    n = "n",
    m = "m",
    g = "g",
    h = "h",
    k = "k",
    points = "Points",
    components = "Components",
    day = "Day",
    month = "Month",
    year = "Year",
    accepted = "Accepted",
  },
  code = { code = "Code" },
  bool = {
    metric = "Metric",
    compositional = "Compositional",
    ended = "Ended",
    bottom_hole = "Pressure is that of the bottom hole",
  },
  string = {
    request = "Request",
    line = "Line",
    protocol_version = "Version of the protocol",
    master_version = "Version of the master",
    cluster = "Cluster number",
    path = "Data path",
    root = "Root name",
    processes = "Processes",
    simulator_version = "Version of the simulator",
    user = "Windows user",
    debug = "Debug flag",
    outcome = "Outcome of the launch",
    host = "Host",
    well = "Well",
    type = "Type",
    status = "Status",
    constraint = "Constraint",
    name = "Name",
    source = "Source",
    component = "Component",
    eos_name = "Equation of state",
  },
  double = {
    days = "Days",
    fraction = "Uptime fraction",
    value = "Value",
    skewness = "Skewness",
    mole_fraction = "Mole fraction",
    version = "Version",
    oil_rate = "Oil rate",
    gas_rate = "Gas rate",
    water_rate = "Water rate",
    water_injection_rate = "Water injection rate",
    gas_injection_rate = "Gas injection rate",
    bottom_hole_pressure = "Bottom-hole pressure",
    tubing_head_pressure = "Tubing-head pressure",
    uptime = "Uptime",
    pressure = "Pressure",
    temperature = "Temperature",
    gas_density = "Gas density",
    oil_density = "Oil density",
    water_density = "Water density",
    molecular_weight = "Molecular weight",
    critical_temperature = "Critical temperature",
    critical_pressure = "Critical pressure",
    critical_volume = "Critical volume",
    acentric_factor = "Acentric factor",
    reserved = "Reserved",
    boiling_point = "Boiling point",
    volume_shift = "Volume shift",
    omega_a = "Omega A",
    omega_b = "Omega B",
    parachor = "Parachor",
    binary_interaction = "Binary interaction",
  },
  bytes = { data = "Bytes that are no message" },
  framenum = { request_in = "Request in frame", reply_in = "Reply in frame" },
  relative_time = { time = "Time since the request" },
})

local S = fields_of(simulator, "jobmill_sim", {
  uint64 = {
    length = "Total length",
    chunk = "Length of a chunk",
    count = "Count",
  },
  string = {
    request = "Request",
    message = "Message",
    header = "Header",
    type = "Type",
    text = "Text",
    item = "Item",
    source = "Source",
    position = "Position",
    version = "Version",
    error = "Error",
  },
  double = { number = "Number", days = "Days" },
  int32 = { integer = "Integer" },
  bytes = { data = "Bytes that are no message" },
  framenum = { request_in = "Request in frame", reply_in = "Answer in frame" },
  relative_time = { time = "Time since the request" },
})

-- Expert information by name: each is a field as well, such as jobmill.bad_length.
local function experts_of(protocol, prefix, severities)
  local by_name, all = {}, {}
  for severity, names in pairs(severities) do
    for name, label in pairs(names) do
      local one = ProtoExpert.new(prefix .. "." .. name, label, expert.group.PROTOCOL, severity)
      by_name[name] = one
      all[#all + 1] = one
    end
  end
  protocol.experts = all
  return by_name
end

local E = experts_of(master, "jobmill", {
  [expert.severity.ERROR] = {
    bad_length = "A length that ends the run",
    bad_acknowledgement = "A reply does not end with its acknowledgement",
    unequal_lists = "Lists that belong together have different lengths",
    cut = "The message is shorter than its fields",
    out_of_turn = "A message that is not due",
    no_message = "No message begins here",
  },
  [expert.severity.WARN] = {
    unknown_code = "An unknown code",
    refused = "The launch has failed",
    bad_value = "A value that is taken for another",
    not_captured = "The message is not there as a whole",
  },
  [expert.severity.NOTE] = {
    left_over = "Bytes after the last field",
    no_effect = "A request that does nothing",
    not_shown = "The message has more items than are shown",
  },
})

local X = experts_of(simulator, "jobmill_sim", {
  [expert.severity.ERROR] = {
    bad_chunk = "A chunk that breaks the rules",
    bad_type = "An unknown type",
    bad_header = "Another header than the one that is due",
    bad_count = "A count that breaks the rules",
    bad_answer = "An answer that does not hold what was asked for",
    cut = "The message is shorter than its headers",
    out_of_turn = "A message that is not due",
    no_message = "No message begins here",
  },
  [expert.severity.WARN] = {
    refused = "The simulator refuses the set-up",
    not_captured = "The message is not there as a whole",
  },
  [expert.severity.NOTE] = {
    unusual_chunk = "A chunk that is cut elsewhere than at 65,536 bytes",
    not_shown = "The message has more items than are shown",
  },
})

-- Preferences -------------------------------------------------------------------------------------

master.prefs.ports = Pref.range("TCP ports of jobmills", "5000",
  "Those that daemons were given with -p", 65535)
master.prefs.largest = Pref.uint("Largest message in MiB", 64,
  "Messages that announce more are not put together")
master.prefs.print_times = Pref.bool("Print request times", false,
  "tshark prints a table of them at its end")
simulator.prefs.ports = Pref.range("TCP ports of simulators", "9001",
  "Their first message tells simulators on other ports, unless the capture begins later", 65535)

local function largest_message()
  return master.prefs.largest * 1048576
end

-- Reading -----------------------------------------------------------------------------------------

-- Goes through the values of a message and puts them into a tree. After something that is not there
-- all functions return nil and `stopped` is true.
local Reader = {}
Reader.__index = Reader

function Reader.new(tvb, at, stop, tree, experts)
  return setmetatable({
    tvb = tvb,
    at = at,
    stop = stop,
    tree = tree,
    top = tree,
    experts = experts,
    items = 0,
    stopped = false,
  }, Reader)
end

-- Expert information: its name, then a format and what belongs to it.
function Reader:fault(name, ...)
  self.top:add_proto_expert_info(self.experts[name], string.format(...))
end

-- Where the next `size` bytes begin.
function Reader:take(size)
  if self.stopped then return nil end
  self.items = self.items + 1
  if self.items > MOST_ITEMS then
    self.stopped = true
    self:fault("not_shown", "Only %d items are shown", MOST_ITEMS)
    return nil
  end
  if size > self.stop - self.at then
    self.stopped, self.is_cut = true, true
    return nil
  end
  local at = self.at
  self.at = at + size
  return at
end

-- Puts what `body` reads into a subtree.
function Reader:within(label, body)
  if self.stopped or self.at >= self.stop then
    return body()
  end
  local start, outer = self.at, self.tree
  self.tree = outer:add(self.tvb(start, self.stop - start), label)
  local result = body()
  self.tree:set_len(self.at - start)
  self.tree = outer
  return result
end

function Reader:int(field)
  local at = self:take(4)
  if not at then return nil end
  local range = self.tvb(at, 4)
  self.tree:add_le(field, range)
  return range:le_int()
end

-- A negative count is taken as 0.
function Reader:count(field)
  local count = self:int(field)
  if count and count < 0 then
    self:fault("bad_value", "A negative count, which is taken as 0")
    return 0
  end
  return count or 0
end

function Reader:flag(field)
  local at = self:take(4)
  if not at then return nil end
  local range = self.tvb(at, 4)
  local value = range:le_int()
  self.tree:add(field, range, value ~= 0)
  if value ~= 0 and value ~= 1 then self:fault("bad_value", "The flag is %d, not 0 or 1", value) end
  return value ~= 0
end

function Reader:byte(field)
  local at = self:take(1)
  if at then self.tree:add(field, self.tvb(at, 1), self.tvb(at, 1):uint() ~= 0) end
end

function Reader:double(field, note)
  local at = self:take(8)
  if not at then return nil end
  local range = self.tvb(at, 8)
  local item = self.tree:add_le(field, range)
  if note then item:append_text(" (" .. note .. ")") end
  return range:le_float()
end

function Reader:doubles(field, count, notes)
  for i = 1, count do
    if not self:double(field, notes and notes[i]) then break end
  end
end

-- Adds a text that begins at `at` and has a length before it; returns its bytes.
function Reader:add_text(field, at, size_of_length, length, note)
  local value = length > 0 and self.tvb:raw(at + size_of_length, length) or ""
  local shown = length > 0 and self.tvb(at + size_of_length, length):string(ENC_UTF_8) or ""
  local item = self.tree:add(field, self.tvb(at, size_of_length + length), shown)
  if note then item:append_text(" (" .. note .. ")") end
  return value
end

function Reader:text(field, note)
  local at = self:take(4)
  if not at then return nil end
  local length = math.max(0, self.tvb(at, 4):le_int())
  if not self:take(length) then return nil end
  local value = self:add_text(field, at, 4, length, note)
  local zero = self.ends_at_zero and value:find("\0", 1, true)
  if zero then
    self:fault("bad_value", "A text in a request ends at its first zero byte")
    value = value:sub(1, zero - 1)
  end
  return value
end

function Reader:texts(field, count, notes)
  local found = {}
  for i = 1, count do
    local value = self:text(field, notes and notes[i])
    if not value then break end
    found[i] = value
  end
  return found
end

function Reader:series(field, label)
  return self:within(label, function()
    local count = self:count(F.k)
    self:doubles(field, count)
    return count
  end)
end

-- Unsigned, 64 bits, as a number: exact as long as it matters, since no message is that long.
local function long_at(tvb, at)
  return tvb(at, 4):le_uint() + 4294967296.0 * tvb(at + 4, 4):le_uint()
end

-- A name that comes from a peer, in texts of this dissector: short and without control characters.
local function shown(bytes)
  local text = bytes:gsub("[^\32-\126]", "?")
  return #text <= 40 and text or text:sub(1, 37) .. "..."
end

local function names_of(list)
  local first = {}
  for i = 1, math.min(3, #list) do first[i] = shown(list[i]) end
  if #list > 3 then return string.format("%s, ... %d in all", first[1], #list) end
  return table.concat(first, ", ")
end

-- Conversations -----------------------------------------------------------------------------------

-- What the first pass has noted, for one of the protocols.
local function new_book()
  return {
    conversations = {}, -- lists by the two ports
    records = {}, -- by the place of the message in the capture
    requests = {}, -- records, for the statistics
  }
end

local books = { [master] = new_book(), [simulator] = new_book() }

-- Conversations are known by addresses and ports. Wireshark does not tell dissectors in Lua in the
-- first pass when a new one begins between the same ports, so the first message of a new run is
-- what resets them.
local function conversation_of(book, pinfo, source_serves)
  local source, target = pinfo.src, pinfo.dst
  local from, to = pinfo.src_port, pinfo.dst_port
  local key = math.min(from, to) * 65536 + math.max(from, to)
  local between = book.conversations[key] or {}
  book.conversations[key] = between
  for _, one in ipairs(between) do
    if one.server_port == from and one.server == source and one.client == target then
      return one, true
    end
    if one.server_port == to and one.server == target and one.client == source then
      return one, false
    end
  end
  local one = { up = {}, down = {}, server = target, server_port = to, client = source }
  if source_serves then one.server, one.server_port, one.client = source, from, target end
  between[#between + 1] = one
  return one, source_serves
end

-- The bytes of one place are the same in every pass: the part of a frame, or what was put together
-- in it.
local function place_of(pinfo, tvb, at)
  return string.format("%d:%d:%d:%d", pinfo.number, tvb:offset(), tvb:len(), at)
end

-- The message of a place: noted by `note` in the first pass, looked up later.
local function record_of(book, pinfo, tvb, at, note)
  local place = place_of(pinfo, tvb, at)
  local record = book.records[place]
  if not record and not pinfo.visited then
    record = { frame = pinfo.number, time = pinfo.rel_ts, faults = {} }
    note(record)
    book.records[place] = record
  end
  return record or { kind = "data", faults = {} }
end

local NO_MESSAGE = "No message begins here: %s. A rule is broken, or bytes were not captured"

local function add_fault(record, name, ...)
  record.faults[#record.faults + 1] = { name, string.format(...) }
end

local function note_request(book, record, name)
  record.name = name
  book.requests[#book.requests + 1] = record
end

-- From now on `record` is the answer to `request`. The first answer counts for the statistics of a
-- request.
local function note_answer(record, request)
  record.request = request
  if not request.answer then
    request.answer, request.took = record.frame, record.time - request.time
  end
end

-- The frames and the time between request and answer.
local function show_relations(record, fields, tree)
  if record.answer then tree:add(fields.reply_in, record.answer):set_generated() end
  local request = record.request
  if not request then return end
  tree:add(fields.request_in, request.frame):set_generated()
  local took = record.time - request.time
  local seconds = math.floor(took)
  local nanoseconds = math.floor((took - seconds) * 1e9 + 0.5)
  if nanoseconds >= 1e9 then seconds, nanoseconds = seconds + 1, 0 end
  tree:add(fields.time, NSTime.new(seconds, nanoseconds)):set_generated()
end

local function show_info(pinfo, protocol, text)
  pinfo.cols.protocol = protocol == master and "Jobmill" or "Jobmill sim"
  -- The columns of a frame with several messages name all of them: what stands before the fence
  -- stays.
  pinfo.cols.info:clear()
  pinfo.cols.info:append(text .. "  ")
  pinfo.cols.info:fence()
end

-- Bytes that no message could be found in.
local function show_data(protocol, tvb, at, pinfo, tree, record)
  local fields, experts = F, E
  if protocol == simulator then fields, experts = S, X end
  local item = tree:add(protocol, tvb(at))
  item:append_text(": bytes that are no message")
  item:add(fields.data, tvb(at))
  for _, fault in ipairs(record.faults) do
    item:add_proto_expert_info(experts[fault[1]], fault[2])
  end
  show_info(pinfo, protocol, "bytes that are no message")
end

-- Calls `one` for message after message: dissect(at) returns the size of the message, or nil and
-- how many bytes of it are missing (0: unknown). Returns what a dissector of TCP has to return.
local function each_message(tvb, pinfo, dissect)
  local at, stop = 0, tvb:len()
  while at < stop do
    local size, missing = dissect(at)
    if not size then
      if missing == nil then return at end
      pinfo.desegment_offset = at
      pinfo.desegment_len = missing > 0 and missing or DESEGMENT_ONE_MORE_SEGMENT
      return stop
    end
    at = at + size
  end
  return stop
end

-- Bytes that are due can come only when TCP puts segments together and when this one was captured
-- whole.
local function may_wait(tvb, pinfo)
  return pinfo.can_desegment > 0 and tvb:len() == tvb:reported_len()
end

-- The master's link -------------------------------------------------------------------------------

local LINES = { "master_version", "cluster", "path", "root", "processes", "simulator_version",
  "user", "debug" }

local POINT = { "oil_rate", "gas_rate", "water_rate", "water_injection_rate", "gas_injection_rate",
  "bottom_hole_pressure", "tubing_head_pressure", "uptime" }
local TABLE = { "pressure", "oil_rate", "water_rate", "gas_rate", "temperature", "gas_density",
  "oil_density", "water_density" }
local FLUID = { "molecular_weight", "critical_temperature", "critical_pressure", "critical_volume",
  "acentric_factor", "reserved", "boiling_point", "volume_shift", "omega_a", "omega_b", "parachor",
  "binary_interaction" }

local function label_of(name)
  return (name:gsub("^%l", string.upper):gsub("_", " "))
end

local function equal(r, what, one, other)
  if one ~= other and not r.stopped then
    r:fault("unequal_lists", "%s: %d and %d", what, one, other)
  end
end

-- What follows the code of a request, by code. They return what is worth a word in the list of
-- packets, and note in the record what the reply needs.
local ASK = {
  [8] = function(r)
    local days = r:double(F.days)
    return days and string.format("day %.10g", days)
  end,
  [10] = function(r, record)
    record.wells = r:texts(F.well, r:count(F.n))
    for _, well in ipairs(record.wells) do
      if well == "*" then r:fault("bad_value", "The well * ends the run here") end
    end
    return names_of(record.wells)
  end,
  [11] = function(r)
    local n, m = r:count(F.n), r:count(F.m)
    local wells = r:texts(F.well, n)
    r:texts(F.status, m, wells)
    if n > 0 then equal(r, "wells and statuses", n, m) end
    return names_of(wells)
  end,
  [12] = function(r)
    local n, m = r:count(F.n), r:count(F.m)
    local wells = r:texts(F.well, n)
    r:doubles(F.fraction, m, wells)
    if n > 0 then equal(r, "wells and fractions", n, m) end
    return names_of(wells)
  end,
  [13] = function(r)
    local n = r:count(F.n)
    local wells, names = r:texts(F.well, n), {}
    local g = r:count(F.g)
    for i = 1, g do
      if r.stopped then break end
      r:within("Constraints of " .. shown(wells[i] or "no well"), function()
        names[i] = r:texts(F.constraint, r:count(F.k))
      end)
    end
    local h = r:count(F.h)
    for i = 1, h do
      if r.stopped then break end
      r:within("Values of " .. shown(wells[i] or "no well"), function()
        local k = r:count(F.k)
        r:doubles(F.value, k, names[i])
        if n > 0 and names[i] then equal(r, "constraints and values of a well", #names[i], k) end
      end)
    end
    if n > 0 then
      equal(r, "wells and lists of constraints", n, g)
      equal(r, "wells and lists of values", n, h)
    end
    return names_of(wells)
  end,
  [15] = function(r, record)
    local well = r:text(F.well)
    record.names = r:texts(F.name, r:count(F.n))
    return names_of(record.names) .. " of " .. shown(well or "")
  end,
  [16] = function(r, record)
    record.components = r:count(F.components)
    record.wells = r:texts(F.well, r:count(F.n))
    r:byte(F.bottom_hole)
    r:double(F.skewness)
    return names_of(record.wells)
  end,
  [18] = function(r)
    local well = r:text(F.well)
    local source = r:text(F.source)
    return source and shown(source) .. " to " .. shown(well)
  end,
  [19] = function(r)
    local n = r:count(F.n)
    local sources = r:texts(F.source, n)
    local m = r:count(F.m)
    for i = 1, m do
      if r.stopped then break end
      r:series(F.mole_fraction, "Composition of " .. shown(sources[i] or "no source"))
    end
    equal(r, "sources and compositions", n, m)
    return names_of(sources)
  end,
}

local function date(r)
  local day, month, year = r:int(F.day), r:int(F.month), r:int(F.year)
  return year and string.format("%04d-%02d-%02d", year, month, day)
end

local function flag(field)
  return function(r) return r:flag(field) and "yes" or "no" end
end

-- What follows the code of a reply, up to its acknowledgement. `request` is the record of what was
-- asked, if known.
local TELL = {
  [2] = date,
  [3] = flag(F.metric),
  [4] = function(r)
    local days = r:double(F.days)
    return days and string.format("day %.10g", days)
  end,
  [5] = flag(F.compositional),
  [6] = function(r)
    local n = r:count(F.n)
    for i = 1, n do
      if r.stopped then break end
      r:within(string.format("Well %d", i), function()
        local well = r:text(F.well)
        r:text(F.type)
        r:text(F.status)
        if well then r.tree:append_text(": " .. shown(well)) end
      end)
    end
    return string.format("%d wells", n)
  end,
  [9] = flag(F.ended),
  [10] = function(r, request)
    local n = r:count(F.n)
    if request and request.wells then equal(r, "wells asked for and records", #request.wells, n) end
    return string.format("%d records", n)
  end,
  [14] = function(r)
    local name = r:text(F.eos_name)
    r:texts(F.component, r:count(F.components))
    for _, property in ipairs(FLUID) do r:series(F[property], label_of(property)) end
    return name and shown(name)
  end,
  [15] = function(r, request)
    local names = request and request.names
    r:within("Values", function()
      local count = r:count(F.k)
      r:doubles(F.value, count, names)
      if names then equal(r, "names asked for and values", #names, count) end
    end)
  end,
  [16] = function(r, request)
    local n = r:count(F.n)
    r:int(F.points)
    if request and request.wells then equal(r, "wells asked for and records", #request.wells, n) end
    return string.format("%d records", n)
  end,
  [17] = function(r)
    local version = r:double(F.version)
    return version and string.format("%.10g", version)
  end,
  [18] = function(r)
    local accepted = r:int(F.accepted)
    return accepted and (accepted ~= 0 and "accepted" or "refused")
  end,
  [20] = date,
  [NEXT_POINT] = function(r)
    local status = r:text(F.status)
    for _, name in ipairs(POINT) do r:double(F[name]) end
    return status and shown(status)
  end,
  [NEXT_TABLE] = function(r, request)
    local points
    for _, name in ipairs(TABLE) do
      local count = r:series(F[name], label_of(name))
      if points then equal(r, "points of the series", points, count or 0) end
      points = points or count
    end
    -- Where the request was not captured, bytes before the acknowledgement tell that components
    -- were asked for.
    local components = request and request.components
    if components and components > 0 or not components and r.stop - r.at > 4 then
      for point = 1, points or 0 do
        if r.stopped then break end
        local count = r:series(F.mole_fraction, string.format("Mole fractions of point %d", point))
        if components then
          equal(r, "components asked for and mole fractions", components, count or 0)
        end
      end
    end
  end,
}

-- Sizes of the bodies that have one size only. They tell where a message begins when a capture
-- begins in the middle.
local ASK_SIZE = { [8] = 12 }
local TELL_SIZE = { [2] = 20, [3] = 12, [4] = 16, [5] = 12, [9] = 12, [10] = 12, [16] = 16,
  [17] = 16, [18] = 12, [20] = 20 }
for code in pairs(CODES) do
  if not ASK[code] then ASK_SIZE[code] = 4 end
  if not TELL[code] then TELL_SIZE[code] = 8 end
end

local function is_likely(code, length, from_jobmill)
  if not CODES[code] then return false end
  local size = (from_jobmill and TELL_SIZE or ASK_SIZE)[code]
  if size then return length == size end
  return length >= 8 and length <= (from_jobmill and largest_message() or RECEIVE_BUFFER)
end

local function is_text(tvb, at, size)
  for i = at, at + math.min(size, 64, tvb:len() - at) - 1 do
    local byte = tvb(i, 1):uint()
    if byte < 32 and byte ~= 9 or byte == 127 then return false end
  end
  return true
end

-- Whether the first bytes of a frame, of which there are four to seven, may become a likely one.
local function may_be_likely(tvb, at, left, length, from_jobmill)
  for code in pairs(CODES) do
    local matches = true
    for i = 0, left - 5 do
      matches = matches and tvb(at + 4 + i, 1):uint() == math.floor(code / 256 ^ i) % 256
    end
    if matches and is_likely(code, length, from_jobmill) then return true end
  end
  return false
end

-- Says what begins at `at`: a kind (line, outcome, greeting, frame) with its size, "wait" with the
-- number of missing bytes (0: unknown), or "data" with what is wrong. One end's `found` says whether
-- its messages follow each other from here: nil before the first one, false after bytes that are
-- none. Then only likely ones count.
local function look_at_frame(conversation, from_jobmill, tvb, at, may_wait_here)
  local left = tvb:len() - at
  local way = from_jobmill and conversation.down or conversation.up
  local unsure, lost = not way.found, way.found == false
  local may_be_line = not conversation.lines and not from_jobmill
  if left < 4 then
    if lost or not may_wait_here then return "data", "fewer bytes than a length has" end
    return "wait", 0
  end
  local length = tvb(at, 4):le_int()
  local function sized(kind)
    if left < 4 + length and may_wait_here then return "wait", 4 + length - left end
    return kind, 4 + length
  end

  -- Its first frame is the same in every run, and too short for a reply.
  if from_jobmill and length == 1 then
    if left < 5 and may_wait_here then return "wait", 1 end
    if left >= 5 and tvb(at + 4, 1):uint() == 0x33 then return "greeting", 5 end
  end
  if conversation.lines and not unsure then
    local in_handshake = conversation.lines < #LINES
    if from_jobmill then in_handshake = not conversation.outcome end
    if in_handshake then
      if length < 0 then return "data", string.format("the length of a line is %d", length) end
      if length > LONGEST_LINE then
        return "data", string.format("a line of %d bytes never completes", length)
      end
      return sized(from_jobmill and "outcome" or "line")
    end
  end
  if length < 4 then
    if unsure then
      if may_be_line and length > 0 and left > 4 and is_text(tvb, at + 4, length) then
        return sized("line")
      end
      return "data", string.format("a length of %d", length)
    end
    if length < 0 then
      return "data", string.format("a length of %d, which ends the run", length)
    end
    return sized("frame")
  end
  if left < 8 then
    local may_become = length <= largest_message()
    if unsure and may_become then
      may_become = may_be_likely(tvb, at, left, length, from_jobmill)
        or may_be_line and length <= LONGEST_LINE and is_text(tvb, at + 4, length)
        or from_jobmill and length <= LONGEST_LINE and ("OK|"):find(tvb:raw(at + 4, left - 4), 1, true)
    end
    if lost or not may_wait_here or not may_become then return "data", "no code" end
    return "wait", 8 - left
  end
  local code = tvb(at + 4, 4):le_uint()
  if is_likely(code, length, from_jobmill) then return sized("frame") end
  if unsure then
    if length <= LONGEST_LINE and from_jobmill and tvb:raw(at + 4, 3) == "OK|" then
      return sized("outcome")
    end
    if length <= LONGEST_LINE and may_be_line and is_text(tvb, at + 4, length) then
      return sized("line")
    end
    return "data", string.format("a length of %d and the code %d", length, code)
  end
  if length > largest_message() or code > 65535 then
    return "data", string.format("a length of %d and the code %d", length, code)
  end
  return sized("frame")
end

-- Forgets an earlier run between the same ports. `found`: see look_at_frame.
local function reset(conversation, found)
  conversation.up, conversation.down = { found = found }, { found = found }
  conversation.lines, conversation.outcome = 0, nil
  conversation.queue, conversation.first = {}, 1
  conversation.records, conversation.version = nil, nil
  conversation.connected, conversation.is_over = nil, nil
end

-- The records of 10 and 16 that are due: `wells` of a request, fetched one after the other with
-- `code`.
local function take_record(conversation, record)
  local due = conversation.records
  if not due or due.code ~= record.code then
    add_fault(record, "out_of_turn", "No such record is due")
    return
  end
  record.well, record.components = due.wells[due.next], due.components
  due.next = due.next + 1
  if due.next > #due.wells then conversation.records = nil end
end

local function note_master_request(conversation, record)
  local book, code = books[master], record.code
  if code == NEXT_POINT or code == NEXT_TABLE then
    take_record(conversation, record)
  elseif conversation.records then
    add_fault(record, "out_of_turn", "A frame with the code %d is due: this one ends the run",
      conversation.records.code)
    conversation.records = nil
  end
  if not CODES[code] then
    add_fault(record, "unknown_code", "The code %d is not answered", code)
    return
  end
  local may_come_first = code == 1 or code == SHUT_DOWN
  if conversation.from_beginning and not conversation.connected and not may_come_first then
    add_fault(record, "out_of_turn", "Code 1 has to come first")
  end
  if conversation.is_over then add_fault(record, "out_of_turn", "The run has been shut down") end
  if conversation.connected and code == 1 then
    add_fault(record, "out_of_turn", "The second connection to a simulator may wait for good")
  end
  if conversation.version == "20162" and (code == 18 or code == 19) then
    add_fault(record, "no_effect", "Reaches nobody in a run of version 2016.2")
  end
  if code == 1 then conversation.connected = true end
  if code == SHUT_DOWN then conversation.is_over = true end
  note_request(book, record, CODES[code])
  conversation.queue[#conversation.queue + 1] = record
end

local function note_master_reply(conversation, record)
  local queue = conversation.queue
  for i = conversation.first, #queue do
    if queue[i].code == record.code then
      if i > conversation.first then
        add_fault(record, "out_of_turn", "A reply to the code %d is due",
          queue[conversation.first].code)
      end
      conversation.first = i + 1
      note_answer(record, queue[i])
      return
    end
    -- Looking further would take for ever where nothing fits.
    if i > conversation.first + 16 then break end
  end
  if conversation.from_beginning then
    add_fault(record, "out_of_turn", "A reply that nobody asked for")
  end
end

-- Notes in the first pass what a message is and what it belongs to.
local function note_frame(conversation, from_jobmill, kind, size, tvb, at, record)
  record.kind = kind
  local way = from_jobmill and conversation.down or conversation.up
  if kind == "data" then
    way.found, conversation.from_beginning = false, false
    add_fault(record, "no_message", NO_MESSAGE, size)
    return
  end
  if kind == "greeting" then
    reset(conversation, true)
    conversation.from_beginning = true
  elseif not conversation.lines then
    reset(conversation, kind == "line" or nil)
    conversation.from_beginning = false
    if kind ~= "line" then conversation.lines, conversation.outcome = #LINES, true end
  elseif way.found == false and from_jobmill then
    -- Which requests were answered by bytes that are lost cannot be known: the reply after them is
    -- taken for that to the newest request.
    conversation.first = math.max(conversation.first, #conversation.queue)
  end
  -- Where the next message begins is known only when this one is here as a whole.
  way = from_jobmill and conversation.down or conversation.up
  way.found = at + size <= tvb:len()
  if kind == "line" then
    conversation.lines = conversation.lines + 1
    record.line = conversation.lines
    if LINES[record.line] == "simulator_version" and size > 4 and tvb:len() >= at + size then
      conversation.version = tvb:raw(at + 4, size - 4)
    elseif record.line == #LINES then
      note_request(books[master], record, "launch")
      conversation.launch = record
    end
  elseif kind == "outcome" then
    conversation.outcome = true
    conversation.lines = math.max(conversation.lines, 0)
    if conversation.launch then note_answer(record, conversation.launch) end
    conversation.launch = nil
  elseif kind == "frame" and size >= 8 and tvb:len() >= at + 8 then
    record.code = tvb(at + 4, 4):le_uint()
    record.is_reply = from_jobmill
    local note = from_jobmill and note_master_reply or note_master_request
    note(conversation, record)
  end
end

local function show_line(record, r, size)
  local length = math.min(size - 4, r.stop - r.at)
  local field = LINES[record.line] or record.kind == "outcome" and "outcome" or "protocol_version"
  local text, shown_text, range = "", "", r.tvb(r.at - 4, 4)
  if length > 0 then
    range = r.tvb(r.at, length)
    text, shown_text = r.tvb:raw(r.at, length), range:string(ENC_UTF_8)
  end
  r.tree:add(F[field], range, shown_text)
  r.tree:add(F.line, range, shown_text):set_hidden()
  local digits = text:match("^%s*[+-]?(%d+)")
  if field == "master_version" and (not digits or not digits:find("[^0]")) then
    r:fault("refused", "With this version the jobmill closes without a word")
  end
  if field == "outcome" then
    if text:sub(1, 3) == "OK|" then
      r.tree:add(F.host, r.tvb(r.at + 3, math.max(0, length - 3)), (text:sub(4):gsub("\0$", "")))
    else
      r:fault("refused", "The launch has failed: %s", shown(text))
    end
  end
  return label_of(field):lower() .. ": " .. shown((text:gsub("\0$", "")))
end

local function show_values(record, r)
  local name = CODES[record.code] or "unknown request"
  r.tree:add(F.request, name):set_generated()
  local well = record.well or record.request and record.request.well
  if well then r.tree:add(F.well, well):set_generated() end
  local about
  if record.is_reply then
    local tell = TELL[record.code]
    about = tell and tell(r, record.request)
    local acknowledgement = r:int(F.acknowledgement)
    if r.is_cut then
      r:fault("bad_acknowledgement", "The reply is shorter than its values and the acknowledgement")
    elseif acknowledgement and acknowledgement ~= 0 then
      r:fault("bad_acknowledgement", "The acknowledgement is %d, not 0", acknowledgement)
    end
  else
    local ask = ASK[record.code]
    r.ends_at_zero = true
    about = ask and ask(r, record)
    if r.is_cut then
      r:fault("cut", "The jobmill reads on into what its buffer holds after this, or ends the run")
    end
  end
  if not r.stopped and r.at < r.stop and CODES[record.code] then
    r:fault("left_over", "%d bytes after the last field", r.stop - r.at)
  end
  local text = string.format("%s%d %s", record.is_reply and "reply to " or "", record.code, name)
  if well then text = text .. " " .. shown(well) end
  return about and about ~= "" and text .. ": " .. about or text
end

local function show_frame(record, size, tvb, at, pinfo, tree)
  local stop = math.min(at + size, tvb:len())
  local item = tree:add(master, tvb(at, stop - at))
  local r = Reader.new(tvb, at, stop, item, E)
  for _, fault in ipairs(record.faults) do r:fault(fault[1], "%s", fault[2]) end
  if stop < at + size then
    r:fault("not_captured", "%d bytes of the message are not there", at + size - stop)
  end
  r:int(F.length)
  local text
  if record.kind ~= "frame" then
    text = show_line(record, r, size)
  elseif not record.code then
    r:fault("bad_length", "A frame of %d bytes has no code", size - 4)
    text = "no code"
  else
    if size - 4 > RECEIVE_BUFFER and not record.is_reply then
      r:fault("bad_length", "A request of %d bytes does not fit into the receive buffer", size - 4)
    end
    r:int(F.code)
    text = show_values(record, r)
    -- What wells a request asks records of is known only now.
    local fetched_by = RECORDS_OF[record.code]
    local wells = not record.is_reply and not pinfo.visited and record.wells or {}
    if fetched_by and #wells > 0 then
      record.conversation.records =
        { code = fetched_by, wells = wells, next = 1, components = record.components }
    end
  end
  item:append_text(": " .. text)
  show_relations(record, F, item)
  show_info(pinfo, master, text)
end

function master.dissector(tvb, pinfo, tree)
  if tvb:len() == 0 then return 0 end
  local book = books[master]
  local serves = pinfo.match_uint == pinfo.src_port
  local conversation, from_jobmill = conversation_of(book, pinfo, serves)
  return each_message(tvb, pinfo, function(at)
    local kind, size
    local known = pinfo.visited and book.records[place_of(pinfo, tvb, at)]
    if known then
      kind, size = known.kind, known.size
    elseif not pinfo.visited then
      kind, size = look_at_frame(conversation, from_jobmill, tvb, at, may_wait(tvb, pinfo))
      -- Something else that uses the port, or the middle of the first message that was captured.
      if kind == "data" and not conversation.lines then
        local way = from_jobmill and conversation.down or conversation.up
        way.found = false
        return nil, nil
      end
      if kind == "wait" then return nil, size end
    else
      return nil, nil
    end
    local record = record_of(book, pinfo, tvb, at, function(new)
      new.size, new.conversation = size, conversation
      note_frame(conversation, from_jobmill, kind, size, tvb, at, new)
    end)
    if kind == "data" then
      show_data(master, tvb, at, pinfo, tree, record)
      return tvb:len() - at
    end
    show_frame(record, size, tvb, at, pinfo, tree)
    return math.min(size, tvb:len() - at)
  end)
end

-- The simulator's link ----------------------------------------------------------------------------

-- What follows the first headers of a message: `first` once, then `each` any number of times, after
-- each of them `inner` any number of times. A header is a name, a type and a count: a number,
-- nothing for any, or the name of the header that has to have the same.
local function texts(name, count) return { name, "CSTR", count } end
local function numbers(name, count) return { name, "DOUB", count } end
local function integers(name, count) return { name, "INTE", count } end

local REQUESTS = {
  SETUP = { first = { texts("VERSION", 1) } },
  CONTINUE = {},
  CONTINUE_UNTIL = { first = { numbers("TIME", 1) } },
  SHUTDOWN = {},
}
local CONSTRAINTS = { texts("WELLNAME", 1), texts("ITEMS"), numbers("VALUES", "ITEMS"),
  texts("SETTERS", "ITEMS") }
local QUERIES = {
  QWELLS = { first = { texts("QITEMS"), texts("WELNAMES") } },
  QWELLS_STR = { first = { texts("QITEMS"), texts("WELNAMES") } },
  QRESVR = { first = { texts("QITEMS") } },
  QRESVR_STR = { first = { texts("QITEMS") } },
  QWCONSTRAINTS = { first = { texts("WELNAMES") } },
  QIPRDATA = {
    first = { texts("WELNAMES"), texts("PRESSURETYPES", "WELNAMES"), integers("NPOINTS", 1),
      numbers("SKEWNESS", 1) },
  },
  QFMFLUIDMODEL = {},
  QRFLUIDMODEL = {},
}
local SETTERS = {
  SETWCONSTRAINTS = { each = CONSTRAINTS },
  SETWSTATUS = {
    first = { texts("WCLOSURE", 1), texts("SETITEM", 1), texts("WELNAMES"),
      texts("VALUES", "WELNAMES") },
  },
  SETWELLS = { first = { texts("SETITEM", 1), texts("WELNAMES"), numbers("VALUES", "WELNAMES") } },
  SETWSTRE = {
    first = { texts("STNAME", 1), numbers("STCMPVALUES"), texts("STCMPNAMES", "STCMPVALUES"),
      texts("STPHASE", 1) },
  },
  CREATE_FLDSRCEXT = { first = { texts("WELLNAME", 1), texts("STNAME", 1), texts("STPHASE", 1) } },
}
local ANSWERS = {
  STARTED = { first = { texts("ERRORS") } },
  STEP = { first = { texts("POSITION", 1), numbers("TIME", 1), integers("DATE", 6) } },
  FINISHED = {},
  READY = {},
}
-- By what was asked. A reply with nothing in it is valid, too.
local REPLIES = {
  QWELLS = {
    first = { texts("QITEMS") },
    each = { texts("WELLNAME", 1), numbers("VALUES", "QITEMS") },
  },
  QWELLS_STR = {
    first = { texts("QITEMS") },
    each = { texts("WELLNAME", 1), texts("VALUES", "QITEMS") },
  },
  QRESVR = { each = { texts("QITEM", 1), integers("VALUES") } },
  QRESVR_STR = { each = { texts("QITEM", 1), texts("VALUES") } },
  QWCONSTRAINTS = { each = CONSTRAINTS },
  QIPRDATA = {
    each = { texts("WELLNAME", 1), integers("NPOINTS", 1) },
    inner = { texts("ITEM", 1), numbers("VALUES") },
  },
  -- The name of this header differs between the versions.
  QFMFLUIDMODEL = { first = { texts(nil) } },
  QRFLUIDMODEL = {
    each = { texts("FLUIDMODELDNAME", 1), texts("EOSNAME", 1), texts("NCOMPS"), numbers("BIC") },
    inner = { texts("EOSPROPNAME", 1), numbers("VALUES", "NCOMPS") },
  },
  CREATE_FLDSRCEXT = { first = { integers("STRET", 1) } },
}

-- The answers to a request, in their order. "STEP" may be "FINISHED" as well.
local function answers_to(name)
  if name == "SETUP" then return { "STARTED", "STEP" } end
  if REQUESTS[name] then return { "STEP" } end
  if QUERIES[name] or name == "CREATE_FLDSRCEXT" then return { "REPLY", "READY" } end
  return { "READY" }
end

local FIRST_NAMES = { QUERY = true, SET = true, REPLY = true }
for _, names in ipairs({ REQUESTS, ANSWERS }) do
  for name in pairs(names) do FIRST_NAMES[name] = true end
end

local FIELD_OF = {
  WELNAMES = F.well,
  WELLNAME = F.well,
  QITEMS = S.item,
  QITEM = S.item,
  ITEMS = S.item,
  ITEM = S.item,
  SETITEM = S.item,
  STCMPNAMES = S.item,
  EOSPROPNAME = S.item,
  STNAME = S.source,
  POSITION = S.position,
  VERSION = S.version,
  ERRORS = S.error,
  TIME = S.days,
}
local PLAIN_FIELD = { CSTR = S.text, DOUB = S.number, INTE = S.integer }

-- Finds the end of the message that begins at `at`. Returns its size and its chunks; or nil and the
-- least number of bytes that are missing; or nil, nil and what is wrong, and how many bytes are
-- used up by then.
local function measure(tvb, at)
  local stop = tvb:len()
  if stop - at < 16 then return nil, 0 end
  local missing = long_at(tvb, at)
  local here, chunks = at + 8, {}
  local function wrong(...)
    return nil, nil, string.format(...), here + 8 - at
  end
  if missing > largest_message() then
    return wrong("A message of %.0f bytes is not put together", missing)
  end
  repeat
    if stop - here < 8 then return nil, here + 8 + missing - stop end
    local length = long_at(tvb, here)
    if length > missing then
      return wrong("A chunk of %.0f bytes where %.0f are due", length, missing)
    end
    if length == 0 and #chunks > 0 then return wrong("A chunk of 0 bytes") end
    if #chunks == MOST_CHUNKS then
      return wrong("A message in more than %d chunks is not followed", MOST_CHUNKS)
    end
    chunks[#chunks + 1] = { at = here, size = length }
    here, missing = here + 8 + length, missing - length
    -- What is missing comes in one more chunk at least.
    local least = missing > 0 and here + 8 + missing or here
    if here > stop then return nil, least - stop end
  until missing == 0
  return here - at, nil, nil, nil, chunks
end

-- The name of the first header, where the bytes at `at` are a message as it always begins.
local function first_name(tvb, at)
  local left = tvb:len() - at
  if left < 17 then return nil end
  local total, chunk = long_at(tvb, at), long_at(tvb, at + 8)
  local length = tvb(at + 16, 1):uint()
  if total > largest_message() or chunk > total then return nil end
  if chunk < 13 + length or left < 16 + 13 + length then return nil end
  local name = length > 0 and tvb:raw(at + 17, length) or ""
  if not FIRST_NAMES[name] or long_at(tvb, at + 17 + length) ~= 0 then return nil end
  return tvb:raw(at + 25 + length, 4) == "MESS" and name or nil
end

local FROM_CONTROLLER = { QUERY = true, SET = true }
for name in pairs(REQUESTS) do FROM_CONTROLLER[name] = true end

-- Says what begins at `at`, as look_at_frame does. The kind of a message is its chunks.
local function look_at_message(way, tvb, at, may_wait_here)
  local left = tvb:len() - at
  if not way.found then
    local may_begin = may_wait_here and way.found == nil
    if left < 16 and may_begin then
      -- The upper halves of both lengths are 0.
      for i = at, at + left - 1 do
        local upper = i - at
        if (upper >= 4 and upper < 8 or upper >= 12) and tvb(i, 1):uint() ~= 0 then
          return "data", "no lengths"
        end
      end
      return "wait", 0
    end
    if left < 60 and left >= 16 and may_begin then
      local total, chunk = long_at(tvb, at), long_at(tvb, at + 8)
      local usual = chunk == math.min(total, FULL_CHUNK)
      if usual and total <= largest_message() and left < 16 + math.min(total, 44) then
        return "wait", 16 + math.min(total, 44) - left
      end
    end
    if not first_name(tvb, at) then return "data", "no lengths and first header" end
  end
  local size, missing, wrong, used, chunks = measure(tvb, at)
  if size then return chunks, size end
  if wrong then return "broken", used, wrong end
  if may_wait_here then return "wait", missing end
  return "cut", left
end

-- A message without its chunks' lengths: the bytes, and where in them it begins.
local function body_of(tvb, at, chunks)
  if #chunks == 1 then return tvb, at + 16, at + 16 + chunks[1].size end
  local bytes = ByteArray.new()
  for _, chunk in ipairs(chunks) do
    if chunk.size > 0 then bytes:append(tvb(chunk.at + 8, chunk.size):bytes()) end
  end
  return ByteArray.tvb(bytes, "Message"), 0, bytes:len()
end

local function show_text(r, field, note)
  local at = r:take(8)
  if not at then return nil end
  local length = long_at(r.tvb, at)
  if not r:take(length) then return nil end
  return r:add_text(field, at, 8, length, note)
end

-- The elements of a header. `notes` name them.
local function show_elements(r, header, notes)
  local field = FIELD_OF[header.name]
  if not field or header.type ~= (field == S.days and "DOUB" or "CSTR") then
    field = PLAIN_FIELD[header.type]
  end
  for i = 1, header.count do
    local value
    local note = notes and shown(notes[i] or "")
    if header.type == "CSTR" then value = show_text(r, field, note)
    elseif header.type == "DOUB" then value = r:double(field, note)
    else value = r:int(field) end
    if value == nil then break end
    -- Texts are names, which rules and labels need. Of numbers the first says enough.
    if header.type == "CSTR" or i == 1 then header.data[i] = value end
  end
end

-- Reads the header at which `r` stands, with its data; nil where there is none. `items` and `well`
-- are those of the headers before it.
local function show_header(r, seen)
  if r.stopped or r.at >= r.stop then return nil end
  local length = r.tvb(r.at, 1):uint()
  local start = r:take(13 + length)
  if not start then return nil end
  local header = {
    name = length > 0 and r.tvb:raw(start + 1, length) or "",
    count = long_at(r.tvb, start + 1 + length),
    type = r.tvb:raw(start + 9 + length, 4),
    data = {},
  }
  local tvb, outer = r.tvb, r.tree
  local name = length > 0 and tvb(start + 1, length):string(ENC_UTF_8) or ""
  local item = outer:add(S.header, tvb(start, 1 + length), name)
  item:add_le(S.count, tvb(start + 1 + length, 8))
  item:add(S.type, tvb(start + 9 + length, 4))
  if header.type ~= "MESS" then
    item:append_text(string.format(", %.0f %s", header.count, shown(header.type)))
  end
  if header.type ~= "MESS" and not PLAIN_FIELD[header.type] then
    r:fault("bad_type", "The type is %s", shown(header.type))
    r.stopped = true
    return header
  end
  if header.type == "MESS" then
    if header.count ~= 0 then r:fault("bad_count", "A header of the type MESS has a count") end
    return header
  end
  local notes
  if header.name == "VALUES" or header.name == "SETTERS" then notes = seen.names end
  r.tree = item
  show_elements(r, header, notes)
  r.tree = outer
  if header.name == "WELLNAME" then item:append_text(": " .. shown(header.data[1] or "")) end
  if header.name == "VALUES" and seen.well then item:append_text(" of " .. shown(seen.well)) end
  item:set_len(math.max(1, r.at - start))
  return header
end

local function described(name, type, count)
  count = count and string.format("%.0f", count) or "n"
  return string.format("%s %s %s", name and shown(name) or "any name", shown(type), count)
end

-- Compares headers, from the one numbered `i`, with `layout`; returns the number of the first that
-- it does not cover.
local function compare(r, headers, i, layout)
  local counts = {}
  local function one(due)
    local header = headers[i]
    local count = type(due[3]) == "string" and (counts[due[3]] or 0) or due[3]
    if header and (not due[1] or header.name == due[1]) and header.type == due[2]
      and (not count or header.count == count) then
      counts[header.name] = header.count
      i = i + 1
      return true
    end
    local came = header and described(header.name, header.type, header.count) or "nothing"
    r:fault("bad_header", "%s came, %s is due", came, described(due[1], due[2], count))
    return false
  end
  local function all(list)
    for _, due in ipairs(list) do
      if not one(due) then return false end
    end
    return true
  end
  local function ahead(list)
    return list and headers[i] and headers[i].name == list[1][1]
  end
  if layout.first and not all(layout.first) then return nil end
  while ahead(layout.each) do
    if not all(layout.each) then return nil end
    while ahead(layout.inner) do
      if not all(layout.inner) then return nil end
    end
  end
  return i
end

-- Compares what a query asked for with what its reply holds.
local function compare_answer(r, request, headers)
  local asked = request.items
  if not asked or r.stopped then return end
  local found, wells, items = {}, {}, nil
  for _, header in ipairs(headers) do
    if header.name == "WELLNAME" and header.data[1] then wells[header.data[1]] = true end
    if header.name == "QITEM" and header.data[1] then found[header.data[1]] = header end
    if header.name == "QITEMS" then items = header.data end
  end
  if request.name == "QWELLS" or request.name == "QWELLS_STR" then
    for i, name in ipairs(asked) do
      if not items or items[i] ~= name then
        r:fault("bad_answer", "The item %s was asked for, and is not at its place", shown(name))
        break
      end
    end
    for _, well in ipairs(request.wells or {}) do
      if well ~= "*" and not wells[well] then
        r:fault("bad_answer", "The well %s was asked for, and is not there", shown(well))
        break
      end
    end
    return
  end
  for _, name in ipairs(asked) do
    local values = found[name]
    if not values then
      r:fault("bad_answer", "The item %s was asked for, and is not there", shown(name))
      break
    end
  end
end

-- A date has six numbers.
local function compare_date(r, headers)
  for i = 1, #headers - 1 do
    local asked = headers[i].name == "QITEM" and headers[i].data[1]
    if asked == "START_DATE" and headers[i + 1].count ~= 6 then
      r:fault("bad_answer", "START_DATE has to have six numbers")
    end
  end
end

-- What a message is: the name of its first header, for queries and setters the kind, and its
-- layout.
local function recognise(record, headers)
  local name = headers[1] and headers[1].name or ""
  local kind = headers[2] and headers[2].type == "MESS" and headers[2].name or ""
  if name == "QUERY" then return kind, QUERIES[kind], 3 end
  if name == "SET" then return kind, SETTERS[kind], 3 end
  if name == "REPLY" then
    local request = record.request
    if headers[2] and headers[2].name == "END" then return name, {}, 2 end
    return name, request and REPLIES[request.name], 2
  end
  return name, REQUESTS[name] or ANSWERS[name], 2
end

local function show_headers(r)
  local headers, seen = {}, {}
  while true do
    local header = show_header(r, seen)
    if not header then break end
    headers[#headers + 1] = header
    if header.name == "WELLNAME" or header.name == "QITEM" then
      seen.well = header.data[1]
      if header.name == "QITEM" then seen.names = nil end
    elseif header.name == "QITEMS" or header.name == "ITEMS" or header.name == "WELNAMES" then
      seen.names = header.data
    end
    if header.name == "END" and header.type == "MESS" then break end
  end
  if r.is_cut then r:fault("cut", "A header or its data need more bytes than the message has") end
  if not r.stopped and r.at < r.stop then
    r:fault("bad_header", "%d bytes after END", r.stop - r.at)
  end
  return headers
end

local function check_headers(r, record, headers)
  local name, layout, i = recognise(record, headers)
  if r.stopped then return name end
  if headers[1] and headers[1].type ~= "MESS" then
    r:fault("bad_header", "The first header has to be of the type MESS")
  elseif layout then
    i = compare(r, headers, i, layout)
    local last = i and headers[i]
    if last and last.name ~= "END" then
      r:fault("bad_header", "%s came, END is due", described(last.name, last.type, last.count))
    elseif i and not last then
      r:fault("bad_header", "END is due")
    end
  elseif not FIRST_NAMES[headers[1] and headers[1].name or ""] or name ~= "REPLY" then
    r:fault("bad_header", "No message begins like this: %s", shown(name))
  end
  return name
end

local POSITIONS = { MODEL_DEFINITION = true, BEGIN_NEWTON = true, END_SIMULATE = true }

local function value_of(headers, name)
  for _, header in ipairs(headers) do
    if header.name == name then return header.data[1] end
  end
  return nil
end

local function list_of(headers, name)
  for _, header in ipairs(headers) do
    if header.name == name and header.type == "CSTR" then return header.data end
  end
  return nil
end

-- The rules for what answers hold, and what is worth a word in the list of packets.
local function judge_message(r, record, headers, name)
  local request = record.request
  if name == "STEP" then
    local position, days = value_of(headers, "POSITION"), value_of(headers, "TIME")
    if position and not POSITIONS[position] then
      r:fault("bad_answer", "The position %s is unknown", shown(tostring(position)))
    elseif request and request.name == "SETUP" and position ~= "MODEL_DEFINITION" then
      r:fault("bad_answer", "After the set-up the position has to be MODEL_DEFINITION")
    end
    if type(days) ~= "number" then return nil end
    return string.format("%s, day %.10g", shown(tostring(position)), days)
  end
  if name == "STARTED" then
    local errors = list_of(headers, "ERRORS")
    if errors and errors[1] then
      r:fault("refused", "The simulator refuses: %s", shown(errors[1]))
      return "refused: " .. shown(errors[1])
    end
    return nil
  end
  if name == "REPLY" then
    if request then
      if request.name == "QRESVR" then compare_date(r, headers) end
      compare_answer(r, request, headers)
    end
    return nil
  end
  local days = value_of(headers, "TIME")
  if type(days) == "number" then return string.format("day %.10g", days) end
  local items, wells = list_of(headers, "QITEMS") or list_of(headers, "SETITEM"), record.wells
  local source = value_of(headers, "STNAME")
  if items and wells then return names_of(items) .. " of " .. names_of(wells) end
  if items then return names_of(items) end
  if wells and source then return shown(tostring(source)) .. " to " .. names_of(wells) end
  return wells and names_of(wells) or source and shown(tostring(source))
end

-- What later passes, and the answers, have to know of a request.
local function note_lists(record, headers)
  record.items = list_of(headers, "QITEMS")
  local wells = list_of(headers, "WELNAMES")
  if not wells then
    wells = {}
    for _, header in ipairs(headers) do
      if header.name == "WELLNAME" and header.data[1] then wells[#wells + 1] = header.data[1] end
    end
  end
  record.wells = #wells > 0 and wells or nil
end

local function note_controller(conversation, record, name)
  if conversation.due and #conversation.due > 0 then
    add_fault(record, "out_of_turn", "The answer %s has not come yet", conversation.due[1])
  end
  if name == "SETUP" then
    conversation.from_beginning = true
  elseif conversation.is_over then
    add_fault(record, "out_of_turn", "The run has been shut down")
  end
  conversation.is_over = name == "SHUTDOWN"
  note_request(books[simulator], record, name)
  conversation.request, conversation.due = record, answers_to(name)
end

local function note_simulator(conversation, record, name)
  local due = conversation.due
  if not due then
    if conversation.from_beginning then add_fault(record, "out_of_turn", "Nobody has asked") end
    return
  end
  local wanted = due[1]
  if not wanted then
    add_fault(record, "out_of_turn", "Nobody has asked")
    return
  end
  note_answer(record, conversation.request)
  if name == wanted or wanted == "STEP" and name == "FINISHED" then
    table.remove(due, 1)
  else
    add_fault(record, "out_of_turn", "%s is due", wanted)
    for i = 1, #due do
      if due[i] == name then
        for _ = 1, i do table.remove(due, 1) end
        break
      end
    end
  end
end

-- The names of the first two headers, which say what a message is.
local function names_at(tvb, at, stop)
  local found = {}
  for i = 1, 2 do
    if stop - at < 1 then break end
    local length = tvb(at, 1):uint()
    if stop - at < 13 + length or tvb:raw(at + 9 + length, 4) ~= "MESS" then break end
    found[i] = length > 0 and tvb:raw(at + 1, length) or ""
    at = at + 13 + length
  end
  return found[1] or "", found[2] or ""
end

local function note_message(conversation, from_simulator, kind, size, wrong, tvb, at, record)
  local way = from_simulator and conversation.down or conversation.up
  record.size, record.kind = size, kind
  if type(kind) ~= "table" then
    way.found, conversation.from_beginning, conversation.due = false, false, nil
    if kind == "data" then
      add_fault(record, "no_message", NO_MESSAGE, size)
    else
      record.wrong = wrong
    end
    return
  end
  way.found, conversation.begun = true, true
  record.kind, record.chunks = "message", kind
  local body, start, stop = body_of(tvb, at, kind)
  local first, second = names_at(body, start, stop)
  if first == "SETUP" then
    conversation.up.found, conversation.down.found = true, true
    conversation.due, conversation.is_over, conversation.from_beginning = nil, nil, nil
  end
  if FROM_CONTROLLER[first] then
    if from_simulator then
      add_fault(record, "out_of_turn", "A request comes from the simulator")
    end
    note_controller(conversation, record, (first == "QUERY" or first == "SET") and second or first)
  else
    note_simulator(conversation, record, first)
  end
end

local function show_chunks(item, tvb, at, chunks, r)
  item:add_le(S.length, tvb(at, 8))
  local tree = item
  if #chunks > 1 then
    local lengths = tvb(at + 8, chunks[#chunks].at - at)
    tree = item:add(lengths, string.format("%d chunks", #chunks))
  end
  for i, chunk in ipairs(chunks) do
    tree:add_le(S.chunk, tvb(chunk.at, 8))
    if chunk.size ~= FULL_CHUNK and i < #chunks and not r.is_unusual then
      r.is_unusual = true
      r:fault("unusual_chunk", "Chunk %d has %.0f bytes", i, chunk.size)
    end
  end
end

local function show_message(record, tvb, at, size, pinfo, tree)
  local item = tree:add(simulator, tvb(at, size))
  local body, start, stop = body_of(tvb, at, record.chunks)
  local r = Reader.new(body, start, stop, item, X)
  for _, fault in ipairs(record.faults) do r:fault(fault[1], "%s", fault[2]) end
  show_chunks(item, tvb, at, record.chunks, r)
  local request = record.name or record.request and record.request.name
  if request then item:add(S.request, request):set_generated() end
  local text
  if start == stop then
    r:fault("cut", "An empty message")
    text = "empty message"
  else
    local headers = show_headers(r)
    local name = check_headers(r, record, headers)
    if record.name then note_lists(record, headers) end
    local about = judge_message(r, record, headers, name)
    text = shown(name)
    if request and (name == "REPLY" or name == "READY") then
      text = text .. " to " .. shown(request)
    end
    item:add(S.message, text):set_generated()
    if about then text = text .. ": " .. about end
  end
  item:append_text(": " .. text)
  show_relations(record, S, item)
  show_info(pinfo, simulator, text)
end

-- A message that cannot be followed to its end.
local function show_broken(record, tvb, at, size, pinfo, tree)
  local item = tree:add(simulator, tvb(at, size))
  if record.kind == "cut" then
    item:add_proto_expert_info(X.not_captured, "The message is not there as a whole")
  else
    item:add_proto_expert_info(X.bad_chunk, record.wrong)
  end
  if size >= 8 then item:add_le(S.length, tvb(at, 8)) end
  if size >= 16 then item:add_le(S.chunk, tvb(at + 8, 8)) end
  item:append_text(": no whole message")
  show_info(pinfo, simulator, "no whole message")
end

function simulator.dissector(tvb, pinfo, tree)
  if tvb:len() == 0 then return 0 end
  local book = books[simulator]
  local serves = pinfo.match_uint == pinfo.src_port
  local name = first_name(tvb, 0)
  if name then serves = not FROM_CONTROLLER[name] end
  local conversation, from_simulator = conversation_of(book, pinfo, serves)
  local way = from_simulator and conversation.down or conversation.up
  return each_message(tvb, pinfo, function(at)
    local kind, size, wrong
    local record = book.records[place_of(pinfo, tvb, at)]
    if not record then
      if pinfo.visited then return nil, nil end
      kind, size, wrong = look_at_message(way, tvb, at, may_wait(tvb, pinfo))
      if kind == "data" and not conversation.begun then
        way.found = false
        return nil, nil
      end
      if kind == "wait" then return nil, size end
    end
    record = record_of(book, pinfo, tvb, at, function(new)
      note_message(conversation, from_simulator, kind, size, wrong, tvb, at, new)
    end)
    if record.kind == "data" then
      show_data(simulator, tvb, at, pinfo, tree, record)
      return tvb:len() - at
    end
    if record.kind ~= "message" then
      show_broken(record, tvb, at, record.size, pinfo, tree)
      return record.size
    end
    show_message(record, tvb, at, record.size, pinfo, tree)
    return record.size
  end)
end

-- Registration ------------------------------------------------------------------------------------

local tcp_ports = DissectorTable.get("tcp.port")
tcp_ports:add_for_decode_as(master)
tcp_ports:add_for_decode_as(simulator)

local registered = {}
local function use_ports(protocol)
  if registered[protocol.name] == protocol.prefs.ports then return end
  if registered[protocol.name] then tcp_ports:remove(registered[protocol.name], protocol) end
  tcp_ports:add(protocol.prefs.ports, protocol)
  registered[protocol.name] = protocol.prefs.ports
end

-- The first frame of a jobmill, alone in its segment: nothing else is taken for a jobmill on an
-- unknown port.
master:register_heuristic("tcp", function(tvb, pinfo, tree)
  if tvb:len() ~= 5 or tvb:raw(0, 5) ~= "\1\0\0\0003" then return false end
  local _, from_jobmill = conversation_of(books[master], pinfo, true)
  if not from_jobmill then return false end
  pinfo.conversation = master
  master.dissector(tvb, pinfo, tree)
  return true
end)

-- Two lengths that fit together, then a header with the name of a message, the count 0 and the type
-- MESS.
simulator:register_heuristic("tcp", function(tvb, pinfo, tree)
  if not first_name(tvb, 0) then return false end
  pinfo.conversation = simulator
  simulator.dissector(tvb, pinfo, tree)
  return true
end)

-- Statistics --------------------------------------------------------------------------------------

-- A table of the requests of both links and the times to their (first) answers, in seconds.
local function times_as_text()
  local lines = {}
  for _, link in ipairs({ { master, "master's link" }, { simulator, "simulator's link" } }) do
    local rows, order = {}, {}
    for _, request in ipairs(books[link[1]].requests) do
      local row = rows[request.name]
      if not row then
        row = { count = 0, answered = 0, total = 0, least = math.huge, most = 0 }
        rows[request.name], order[#order + 1] = row, request.name
      end
      row.count = row.count + 1
      if request.took then
        row.answered, row.total = row.answered + 1, row.total + request.took
        row.least, row.most = math.min(row.least, request.took), math.max(row.most, request.took)
      end
    end
    lines[#lines + 1] = string.format("%-28s %8s %8s %12s %12s %12s %12s", link[2], "requests",
      "answers", "least s", "mean s", "most s", "total s")
    for _, name in ipairs(order) do
      local row = rows[name]
      local line = string.format("%-28s %8d %8d", shown(name), row.count, row.answered)
      if row.answered > 0 then
        line = line .. string.format(" %12.6f %12.6f %12.6f %12.6f", row.least,
          row.total / row.answered, row.most, row.total)
      end
      lines[#lines + 1] = line
    end
  end
  return table.concat(lines, "\n") .. "\n"
end

if gui_enabled() then
  register_menu("Jobmill request times", function()
    TextWindow.new("Jobmill request times"):set(times_as_text())
  end, MENU_STAT_UNSORTED)
end

local printer
function master.prefs_changed()
  use_ports(master)
  if master.prefs.print_times and not printer and not gui_enabled() then
    -- tshark asks its listeners at the end of the capture for what they have found.
    printer = Listener.new("frame")
    function printer.draw() io.stdout:write("\n", times_as_text()) end
  end
end

function simulator.prefs_changed()
  use_ports(simulator)
end

function master.init()
  books[master] = new_book()
end

function simulator.init()
  books[simulator] = new_book()
end

use_ports(master)
use_ports(simulator)
