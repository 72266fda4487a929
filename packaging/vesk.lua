-- Wireshark and tshark: the protocol between the connector and Vesk servers.
--
--   tshark -X lua_script:vesk.lua -r capture.pcap -Y vesk
--   tshark -X lua_script:vesk.lua -r capture.pcap -d tcp.port==9001,vesk
--
-- Or put this file into Wireshark's plugin folder (Help, About, Folders). Connections
-- that were captured from their first byte are recognised by their ping; others by the
-- ports of the preference "vesk.ports", or by "Decode As".
--
-- A command is shown when all of it has come, however many segments it took. What can't
-- be a command is marked with "vesk.bad", and the rest of its segment is left alone: no
-- length of a peer's is believed that goes beyond the limits below.

local kMaxLength = 64 * 1024 * 1024 -- bytes of a string, block or request block
local kMaxNodes = 20000             -- lines of a packet's tree, of 1,000,000 that may be

local vesk = Proto("vesk", "Vesk proxy protocol")

-- Numbers ---------------------------------------------------------------------------

local kPing, kGetProps, kPutData, kService = 12, 13, 16, 39
local kFinish, kBusy = 9, 38
local kGetHeader, kGetRealPath = 3, 4

local kCommands = {
  [3] = "PROXY_GET_HEADER", [4] = "PROXY_GET_REALPATH", [6] = "PROXY_PUT_STATUS",
  [7] = "PROXY_PUT_HEADER", [8] = "PROXY_PUT_CLIENT", [9] = "PROXY_FINISH",
  [12] = "PROXY_PING", [13] = "PROXY_GET_PROPS", [14] = "PROXY_PUT_PROPS",
  [15] = "PROXY_GET_DATA", [16] = "PROXY_PUT_DATA", [18] = "PROXY_SET_ATTRIBUTE",
  [37] = "PROXY_PUT_HEADER_VALUE", [38] = "PROXY_BUSY", [39] = "PROXY_SERVICE_40",
  [40] = "PROXY_PUT_CLUSTER_SEQ", [41] = "PROXY_PUT_LOAD_VALUE",
}

-- Items of a request block that are one text each.
local kTexts = {
  [19] = "QUERY_STRING", [20] = "REMOTE_HOST", [21] = "REMOTE_ADDR",
  [22] = "REQUEST_METHOD", [23] = "URI", [24] = "SERVER_NAME", [25] = "SERVER_PORT",
  [26] = "SERVER_PROTOCOL", [27] = "PATH_TRANSLATED", [28] = "PATH_INFO",
  [29] = "SCRIPT_NAME", [30] = "EXTRA", [33] = "SERVER_PORT_SECURE",
  [34] = "REMOTE_USER", [35] = "AUTH_TYPE", [42] = "SESSION_ID",
}
local kItemAttribute, kItemHeader, kItemEnd = 18, 32, 31

-- Fields ----------------------------------------------------------------------------

local f = {
  command = ProtoField.int32("vesk.command", "Command", base.DEC, kCommands),
  reply = ProtoField.string("vesk.reply", "Reply"),
  asked = ProtoField.string("vesk.asked", "Asked for"),
  set = ProtoField.string("vesk.set", "Property set"),
  property = ProtoField.string("vesk.property", "Property"),
  blockLength = ProtoField.int32("vesk.block.length", "Length of the request block"),
  status = ProtoField.int32("vesk.status", "Status"),
  reason = ProtoField.string("vesk.reason", "Reason"),
  header = ProtoField.string("vesk.header", "Header"),
  bodyLength = ProtoField.int32("vesk.body.length", "Length of the body block"),
  body = ProtoField.bytes("vesk.body", "Body"),
  wanted = ProtoField.int32("vesk.wanted", "Most bytes wanted"),
  attribute = ProtoField.string("vesk.attribute", "Attribute"),
  attributeValue = ProtoField.bytes("vesk.attribute.value", "Value"),
  sequence = ProtoField.int32("vesk.sequence", "Number of the cluster's list"),
  load = ProtoField.uint32("vesk.load", "Load value"),
  item = ProtoField.none("vesk.end", "End of the request block"),
  request = ProtoField.framenum("vesk.request_in", "Question in frame", base.NONE,
                                frametype.REQUEST),
  time = ProtoField.double("vesk.time", "Seconds since the question"),
  rest = ProtoField.bytes("vesk.rest", "Bytes that were not read"),
}
local kTextFields = {}
for item, name in pairs(kTexts) do
  kTextFields[item] = ProtoField.string("vesk." .. name:lower(), name)
end

local fields = {}
for _, field in pairs(f) do fields[#fields + 1] = field end
for _, field in pairs(kTextFields) do fields[#fields + 1] = field end
vesk.fields = fields

local bad = ProtoExpert.new("vesk.bad", "Not of this protocol", expert.group.PROTOCOL,
                            expert.severity.ERROR)
local cut = ProtoExpert.new("vesk.cut", "Not captured whole", expert.group.UNDECODED,
                            expert.severity.NOTE)
vesk.experts = {bad, cut}

-- Connections -----------------------------------------------------------------------

-- By the two ends: the server's port, the questions for a text that the connector has yet
-- to answer, and the last question of the connector's. Filled when a frame is seen first,
-- which is in order; `memo` keeps what was concluded then for when a frame is shown again,
-- in any order. (The number of the TCP stream isn't known while no tree is made.)
local streams = {}

function vesk.init()
  streams = {}
end

local function streamOf(pinfo)
  local from = tostring(pinfo.src) .. ":" .. pinfo.src_port
  local to = tostring(pinfo.dst) .. ":" .. pinfo.dst_port
  local ends = from < to and from .. " " .. to or to .. " " .. from
  streams[ends] = streams[ends] or {pending = {}, memo = {}}
  return streams[ends]
end

local function opensConversation(word)
  return word == kPing or word == kGetProps or word == kService
end

-- Whether a connection begins with these bytes: a ping, alone or with a question behind
-- it. Other protocols begin with a length of 12; what follows tells them apart.
local function beginsConnection(tvb)
  if tvb:len() < 4 or tvb(0, 4):int() ~= kPing then return false end
  return tvb:len() == 4 or tvb:len() >= 8 and opensConversation(tvb(4, 4):int())
end

-- Whether the packet goes to the server. Its port is the one by which the packet came
-- here; where both ports would do, the first command tells.
local function isToServer(stream, tvb, pinfo)
  if not stream.server then
    local port = pinfo.match_uint
    local opens = tvb:len() >= 4 and opensConversation(tvb(0, 4):int())
    local toPort = opens or port == pinfo.dst_port and port ~= pinfo.src_port
    stream.server = toPort and pinfo.dst_port or pinfo.src_port
  end
  return pinfo.dst_port == stream.server
end

-- Reading ---------------------------------------------------------------------------

-- A failure is thrown as a table: `need` more bytes, or what is `bad`. Nodes are put
-- into the tree only when all of a command was read, so that one whose rest is yet to
-- come doesn't stand there twice.
local Reader = {}
Reader.__index = Reader

local function newReader(tvb, at, stop, budget)
  return setmetatable({tvb = tvb, at = at, stop = stop, budget = budget}, Reader)
end

-- The place of the next `count` bytes.
function Reader:take(count)
  local at = self.at
  if count > self.stop - at then
    if self.inner then error({bad = "an item goes beyond the request block"}) end
    error({need = count - (self.stop - at)})
  end
  self.at = at + count
  return at
end

function Reader:word()
  return self.tvb(self:take(4), 4):int()
end

function Reader:length()
  local length = self:word()
  if length < 0 or length > kMaxLength then
    error({bad = "length " .. length})
  end
  return length
end

function Reader:text()
  local length = self:length()
  local at = self:take(length)
  return length > 0 and self.tvb(at, length):string(ENC_UTF_8) or ""
end

-- A node of the tree: a field, the bytes from `from` to where the reader is, a value.
function Reader:put(parent, field, from, value)
  self.budget.left = self.budget.left - 1
  if self.budget.left < 0 then error({bad = "more than " .. kMaxNodes .. " parts"}) end
  local node = {field = field, from = from, to = self.at, value = value}
  parent[#parent + 1] = node
  return node
end

function Reader:putText(parent, field)
  local from = self.at
  local value = self:text()
  self:put(parent, field, from, value)
  return value
end

function Reader:putWord(parent, field)
  local from = self.at
  local value = self:word()
  self:put(parent, field, from, value)
  return value
end

function Reader:putPair(parent, field)
  local from = self.at
  local name, value = self:text(), self:text()
  self:put(parent, field, from, name .. ": " .. value)
end

function Reader:putAttribute(parent)
  local name = self:putText(parent, f.attribute)
  local length = self:length()
  local at = self:take(length)
  if length > 0 then self:put(parent, f.attributeValue, at) end
  return name
end

-- The bytes of a body; a count of 0 or below has none.
function Reader:putBody(parent, count)
  if count > kMaxLength then error({bad = "length " .. count}) end
  if count <= 0 then return end
  local at = self:take(count)
  self:put(parent, f.body, at)
end

-- A text of lines, each a node of its own.
function Reader:putLines(parent, field)
  local length = self:length()
  local at = self:take(length)
  local stop = self.at
  local text = length > 0 and self.tvb(at, length):raw() or ""
  for from, line, to in text:gmatch("()([^\r\n]+)()") do
    self.at = at + to - 1
    self:put(parent, field, at + from - 1, line)
  end
  self.at = stop
end

-- Commands --------------------------------------------------------------------------

local function putItem(block, node)
  local from = block.at
  local id = block:word()
  if kTextFields[id] then
    local value = block:text()
    block:put(node, kTextFields[id], from, value)
    return id, value
  end
  if id == kItemAttribute then
    block:putAttribute(node)
  elseif id == kItemHeader then
    block:putPair(node, f.header)
  elseif id == kItemEnd then
    block:put(node, f.item, from)
  else
    error({bad = "item " .. id .. " in a request block"})
  end
  return id
end

local function readService(reader, node)
  local from = reader.at
  local length = reader:length()
  reader:put(node, f.blockLength, from, length)
  local at = reader:take(length)
  local block = newReader(reader.tvb, at, reader.at, reader.budget)
  block.inner = true
  local method, uri = "?", "?"
  repeat
    local id, value = putItem(block, node)
    if id == 22 then method = value end
    if id == 23 then uri = value end
  until id == kItemEnd
  if block.at < block.stop then error({bad = "bytes behind the end of a request block"}) end
  return method .. " " .. uri
end

local function readStatus(reader, node)
  local status = reader:putWord(node, f.status)
  return status .. " " .. reader:putText(node, f.reason)
end

local function readData(reader, node)
  local count = reader:putWord(node, f.bodyLength)
  reader:putBody(node, count)
  return tostring(count)
end

local function readClient(reader, node)
  local from = reader.at
  local length = reader:length()
  reader:put(node, f.bodyLength, from, length)
  reader:putBody(node, length)
  return tostring(length)
end

-- What stands behind the command's word; each gives a few words for the packet list.
local kToServer = {
  [kPing] = function() end,
  [kGetProps] = function(reader, node) return reader:putText(node, f.set) end,
  [kService] = readService,
  [kPutData] = readData,
}
local kFromServer = {
  [kGetHeader] = function(reader, node) return reader:putText(node, f.asked) end,
  [kGetRealPath] = function(reader, node) return reader:putText(node, f.asked) end,
  [6] = readStatus,
  [7] = function(reader, node) reader:putLines(node, f.header) end,
  [8] = readClient,
  [kFinish] = function() end,
  [14] = function(reader, node) reader:putLines(node, f.property) end,
  [15] = function(reader, node) return reader:putWord(node, f.wanted) end,
  [18] = function(reader, node) return reader:putAttribute(node) end,
  [37] = function(reader, node) reader:putPair(node, f.header) end,
  [kBusy] = function() end,
  [40] = function(reader, node) return reader:putWord(node, f.sequence) end,
  [41] = function(reader, node)
    local from = reader.at
    local at = reader:take(4)
    local load = reader.tvb(at, 4):uint()
    reader:put(node, f.load, from, load)
    return load
  end,
}

-- A reply is a bare text: only the question before tells that it is one.
local function readReply(reader, node, asked)
  node.title = "Reply to " .. asked
  local value = reader:putText(node, f.reply)
  return value
end

local function readCommand(reader, node, rows)
  local from = reader.at
  local command = reader:word()
  node.title = kCommands[command] or ("command " .. command)
  reader:put(node, f.command, from, command)
  if not rows[command] then error({bad = node.title .. " doesn't stand here"}) end
  node.command = command
  return rows[command](reader, node)
end

-- Reads one command into `node`. The failure, or nil.
local function readInto(node, reader, rows, asked)
  local ok, result = pcall(function()
    if asked then return readReply(reader, node, asked) end
    return readCommand(reader, node, rows)
  end)
  node.to = reader.at
  if ok then
    node.words = result
    return nil
  end
  if type(result) ~= "table" then error(result) end
  return result
end

-- What the stream knows ---------------------------------------------------------------

-- What a command that was read whole changes.
local function advance(stream, node, pinfo)
  local command = node.command
  if command == kGetProps or command == kService then
    stream.question = {frame = pinfo.number, time = pinfo.abs_ts}
    stream.pending = {}
  elseif command == kGetHeader or command == kGetRealPath then
    table.insert(stream.pending, kCommands[command] .. ' "' .. node.words .. '"')
  elseif command == kFinish or command == kBusy then
    stream.pending = {}
  end
end

-- The memo of one command, by the place where it begins.
local function memoOf(stream, toServer, tvb, at, pinfo)
  local key = pinfo.number .. ":" .. tvb:len() .. ":" .. at
  if not pinfo.visited or not stream.memo[key] then
    stream.memo[key] = {asked = toServer and stream.pending[1] or nil,
                        question = stream.question}
  end
  return stream.memo[key]
end

local function putTimes(node, question, pinfo)
  if not question or node.command ~= kFinish and node.command ~= kBusy then return end
  node[#node + 1] = {field = f.request, from = node.from, to = node.to,
                     value = question.frame}
  node[#node + 1] = {field = f.time, from = node.from, to = node.to,
                     value = pinfo.abs_ts - question.time}
end

-- Showing -----------------------------------------------------------------------------

-- What peers have sent steers no terminal.
local function harmless(text)
  return (text:gsub("%c", function(byte) return ("\\x%02x"):format(byte:byte()) end))
end

local function show(tree, tvb, node)
  local range = tvb(node.from, node.to - node.from)
  local item
  if node.title then
    item = tree:add(vesk, range,
                    harmless(node.title .. (node.words and ": " .. node.words or "")))
  elseif node.value ~= nil then
    item = tree:add(node.field, range, node.value)
  else
    item = tree:add(node.field, range)
  end
  for _, child in ipairs(node) do show(item, tvb, child) end
end

local function infoOf(nodes, toServer)
  local texts = {}
  for i, node in ipairs(nodes) do
    if i > 8 then
      texts[i] = "..."
      break
    end
    local name = (node.title or "?"):gsub("^PROXY_", "")
    texts[i] = name .. (node.words and node.words ~= "" and " " .. node.words or "")
  end
  return (toServer and "-> " or "<- ") .. table.concat(texts, ", ")
end

-- Reads commands until the packet ends or one can't be read: the nodes, where reading
-- ended, and why.
local function readPacket(tvb, pinfo, stream, toServer)
  local nodes, at, budget = {}, 0, {left = kMaxNodes}
  while at < tvb:len() do
    local memo = memoOf(stream, toServer, tvb, at, pinfo)
    local node = {from = at, title = "?"}
    local reader = newReader(tvb, at, tvb:len(), budget)
    local problem = readInto(node, reader, toServer and kToServer or kFromServer,
                             memo.asked)
    if problem and problem.need then return nodes, at, problem end
    putTimes(node, memo.question, pinfo)
    nodes[#nodes + 1] = node
    if problem then return nodes, node.to, problem end
    if not pinfo.visited then
      if memo.asked then table.remove(stream.pending, 1) end
      advance(stream, node, pinfo)
    end
    at = reader.at
  end
  return nodes, at, nil
end

-- Has TCP come back with the rest of a command. False where it can't.
local function waitForRest(tvb, pinfo, at, need)
  if pinfo.can_desegment == 0 or tvb:len() < tvb:reported_len() then return false end
  pinfo.desegment_offset = at
  -- A command whose length isn't known yet may need more than that: then it is asked for
  -- again.
  pinfo.desegment_len = need
  return true
end

function vesk.dissector(tvb, pinfo, root)
  if tvb:len() == 0 then return 0 end
  local stream = streamOf(pinfo)
  local toServer = isToServer(stream, tvb, pinfo)
  -- A connection between the same two ports as one that has ended within a question.
  if toServer and not pinfo.visited and beginsConnection(tvb) then stream.pending = {} end
  local nodes, at, problem = readPacket(tvb, pinfo, stream, toServer)
  local waits = problem and problem.need and waitForRest(tvb, pinfo, at, problem.need)
  if waits and #nodes == 0 then return end
  pinfo.cols.protocol = "Vesk"
  -- What comes behind this in the same packet is put behind it.
  pinfo.cols.info = harmless(infoOf(nodes, toServer)) .. " "
  local tree = root:add(vesk, tvb(0, waits and at or tvb:len()))
  for _, node in ipairs(nodes) do show(tree, tvb, node) end
  if not problem or waits then return end
  if at < tvb:len() then tree:add(f.rest, tvb(at)) end
  if problem.need then
    tree:add_proto_expert_info(cut, "the rest of a command isn't there")
  else
    tree:add_proto_expert_info(bad, problem.bad)
  end
end

-- Which packets ------------------------------------------------------------------------

local function recognise(tvb, pinfo, root)
  if not beginsConnection(tvb) then return false end
  streamOf(pinfo).server = pinfo.dst_port
  pinfo.conversation = vesk
  vesk.dissector(tvb, pinfo, root)
  return true
end
vesk:register_heuristic("tcp", recognise)

vesk.prefs.ports = Pref.range("TCP ports of servers", "7001", "Where Vesk servers listen",
                              65535)
local ports = DissectorTable.get("tcp.port")
local registered
local function registerPorts()
  if registered == vesk.prefs.ports then return end
  if registered and registered ~= "" then ports:remove(registered, vesk) end
  registered = vesk.prefs.ports
  if registered ~= "" then ports:add(registered, vesk) end
end
vesk.prefs_changed = registerPorts
registerPorts()
