-- Wireshark and tshark show with this what passes between Tervado Nimbus, its viewers and the
-- camera: UDP ports 4242 (viewers), 5000 (camera data) and 5001 (video).
--
-- Anything may arrive on these ports, and captures may be cut: nothing is read before it is known
-- to be there. Every name, offset and code of messages, reports and commands comes from the tables
-- of the service's own code.
--
--   nimbus.viewer.type == 21      tracking messages
--   nimbus.viewer.command         commands of viewers, by name
--   nimbus.camera.report == "gimbal"
--   nimbus.camera.command == "ISO"
--   nimbus.camera.crc.bad         frames whose check is wrong

local tables = {}  -- the build fills them in

local bits = bit32 or bit
local proto = Proto("nimbus", "Tervado Nimbus")
local json = Dissector.get("json")
local fields = {}
local experts = {
  crc = ProtoExpert.new("nimbus.camera.crc.expert", "The frame's check is wrong",
    expert.group.CHECKSUM, expert.severity.ERROR),
  header_crc = ProtoExpert.new("nimbus.camera.header_crc.expert", "The header's check is wrong",
    expert.group.CHECKSUM, expert.severity.WARN),
  cut = ProtoExpert.new("nimbus.camera.cut.expert", "The frame goes beyond the datagram",
    expert.group.MALFORMED, expert.severity.WARN),
  last = ProtoExpert.new("nimbus.camera.last.expert",
    "Nothing follows this report, and the service takes none without",
    expert.group.PROTOCOL, expert.severity.NOTE),
  size = ProtoExpert.new("nimbus.viewer.size.expert", "The message has another size than its kind",
    expert.group.MALFORMED, expert.severity.WARN),
}
proto.experts = experts

-- --- Fields ------------------------------------------------------------------------------------

local function add_field(key, field)
  fields[key] = field
  return field
end

-- The type of a whole number, by its size in bytes.
local whole_numbers = {
  natural = {ProtoField.uint8, ProtoField.uint16, ProtoField.uint24, ProtoField.uint32},
  integer = {ProtoField.int8, ProtoField.int16, ProtoField.int24, ProtoField.int32},
}

local function field_for(item, name)
  if item.kind == "bit" then return ProtoField.bool(name, item.name, 8, nil, 2 ^ item.bit) end
  if item.kind == "real" then return ProtoField.float(name, item.name) end
  if item.count > 1 and item.size == 1 then return ProtoField.bytes(name, item.name) end
  return whole_numbers[item.kind][item.size](name, item.name, base.DEC, tables.codes[item.name])
end

-- Gives every item of a layout its field. Layouts that stand twice, in two sizes, share them.
local function prepare(layout, before)
  for _, item in ipairs(layout.items) do
    item.key = before .. layout.name .. "." .. item.name
    if fields[item.key] == nil then add_field(item.key, field_for(item, item.key)) end
  end
end

local function names_of(layouts)
  local names = {}
  for type, layout in pairs(layouts) do names[type] = layout.name end
  names[tables.text] = "JSON text"
  return names
end

for _, layout in pairs(tables.to_viewers) do prepare(layout, "nimbus.viewer.") end
for _, layout in pairs(tables.from_viewers) do prepare(layout, "nimbus.viewer.") end
for _, layout in ipairs(tables.reports) do prepare(layout, "nimbus.camera.") end

local viewer = {
  magic = add_field("magic", ProtoField.uint8("nimbus.viewer.magic", "Magic", base.HEX)),
  kind = add_field("kind", ProtoField.uint8("nimbus.viewer.kind", "Kind", base.DEC,
    {[0] = "data", [1] = "video"})),
  number = add_field("number", ProtoField.uint32("nimbus.viewer.number", "Number of the broadcast")),
  to = add_field("to", ProtoField.uint8("nimbus.viewer.type", "Message", base.DEC,
    names_of(tables.to_viewers))),
  from = add_field("from", ProtoField.uint8("nimbus.viewer.request", "Message of the viewer",
    base.DEC, names_of(tables.from_viewers))),
  message = add_field("message", ProtoField.string("nimbus.viewer.message", "Name")),
  command = add_field("command", ProtoField.string("nimbus.viewer.command", "Command")),
  json = add_field("json", ProtoField.string("nimbus.viewer.json", "Text")),
  video = add_field("video", ProtoField.bytes("nimbus.video", "Video")),
}

local camera = {
  length = add_field("length", ProtoField.uint16("nimbus.camera.length", "Length", base.DEC, nil,
    0x3FF)),
  version = add_field("version", ProtoField.uint16("nimbus.camera.version", "Protocol version",
    base.DEC, nil, 0xFC00)),
  header_crc = add_field("header_crc", ProtoField.uint8("nimbus.camera.header_crc",
    "Check of the header", base.HEX)),
  sender = add_field("sender", ProtoField.uint8("nimbus.camera.sender", "Sender", base.HEX)),
  receiver = add_field("receiver", ProtoField.uint8("nimbus.camera.receiver", "Receiver", base.HEX)),
  sequence = add_field("sequence", ProtoField.uint16("nimbus.camera.sequence", "Sequence number")),
  type = add_field("type", ProtoField.uint8("nimbus.camera.type", "Type", base.HEX)),
  set = add_field("set", ProtoField.uint8("nimbus.camera.set", "Command set", base.HEX)),
  id = add_field("id", ProtoField.uint8("nimbus.camera.id", "Command id", base.HEX)),
  payload = add_field("payload", ProtoField.bytes("nimbus.camera.payload", "Payload")),
  crc = add_field("crc", ProtoField.uint16("nimbus.camera.crc", "Check", base.HEX)),
  crc_bad = add_field("crc_bad", ProtoField.bool("nimbus.camera.crc.bad", "Wrong check")),
  header_crc_bad = add_field("header_crc_bad", ProtoField.bool("nimbus.camera.header_crc.bad",
    "Wrong check of the header")),
  report = add_field("report", ProtoField.string("nimbus.camera.report", "Report")),
  command = add_field("camera_command", ProtoField.string("nimbus.camera.command", "Command")),
  skipped = add_field("skipped", ProtoField.bytes("nimbus.camera.skipped", "Between the frames")),
}

local all_fields = {}
for _, field in pairs(fields) do all_fields[#all_fields + 1] = field end
proto.fields = all_fields

-- Adds the items of a layout that lies within the range.
local function add_items(tree, range, items)
  for _, item in ipairs(items) do
    local width = item.size * item.count
    if item.at + width <= range:len() then
      if item.size == 1 then
        tree:add(fields[item.key], range(item.at, width))
      else
        for i = 0, item.count - 1 do
          tree:add_le(fields[item.key], range(item.at + i * item.size, item.size))
        end
      end
    end
  end
end

-- --- The viewers -------------------------------------------------------------------------------

-- The text up to a NUL.
local function text_of(range)
  local raw = range:raw()
  local stop = raw:find("\0", 1, true)
  return raw:sub(1, stop and stop - 1 or #raw)
end

local function printable(text)
  return (text:gsub("[^\32-\126]", "?"))
end

-- The members by which people know a command or an answer.
local function title_of(text)
  local words = {}
  for _, member in ipairs({"cmd", "app", "name", "param"}) do
    local value = text:match('"' .. member .. '"%s*:%s*"([^"]*)"')
    if value then words[#words + 1] = printable(value) end
  end
  return table.concat(words, " ")
end

local function add_text(tree, range, pinfo, root)
  local text = text_of(range)
  local title = title_of(text)
  tree:add(viewer.json, range(0, #text), printable(text))
  if title ~= "" then tree:add(viewer.command, range(0, #text), title):set_generated() end
  -- A text that is no JSON is marked by that dissector, or ends it.
  pcall(function() json:call(range(0, #text):tvb(), pinfo, root) end)
  return title ~= "" and title or "JSON text"
end

local function add_message(tree, range, pinfo, root, layouts, type_field)
  local type = range(0, 1):uint()
  tree:add(type_field, range(0, 1))
  if type == tables.text then return add_text(tree, range, pinfo, root) end
  local layout = layouts[type]
  if layout == nil then return "unknown message " .. type end
  tree:add(viewer.message, range(0, 1), layout.name):set_generated()
  add_items(tree, range, layout.items)
  if layouts == tables.to_viewers and range:len() ~= layout.size then
    tree:add_proto_expert_info(experts.size,
      string.format("%d bytes, expected %d", range:len(), layout.size))
  end
  return (layout.name:gsub("_", " "))
end

local function dissect_viewer(tvb, pinfo, root, to_viewer)
  local header = tables.frame.header
  if tvb:len() < 1 or tvb(0, 1):uint() ~= tables.frame.magic then return 0 end
  local tree = root:add(proto, tvb())
  tree:add(viewer.magic, tvb(0, 1))
  local info = "register"  -- what is missing reads as zeros
  if tvb:len() >= header and to_viewer then
    tree:add(viewer.kind, tvb(tables.frame.kind, 1))
    tree:add_le(viewer.number, tvb(tables.frame.number, 4))
  end
  if tvb:len() > header then
    local payload = tvb(header)
    if to_viewer and tvb(tables.frame.kind, 1):uint() == 1 then
      tree:add(viewer.video, payload)
      info = string.format("video, %d bytes", payload:len())
    elseif to_viewer then
      info = add_message(tree, payload, pinfo, root, tables.to_viewers, viewer.to)
    else
      info = add_message(tree, payload, pinfo, root, tables.from_viewers, viewer.from)
    end
  elseif to_viewer then
    info = "empty"
  end
  tree:append_text(", " .. info)
  pinfo.cols.protocol = "Nimbus"
  pinfo.cols.info = (to_viewer and "to viewer: " or "viewer: ") .. info
  return tvb:len()
end

-- --- The camera --------------------------------------------------------------------------------

-- What each byte does to a check with that reflected polynomial.
local function steps(polynomial)
  local result = {}
  for byte = 0, 255 do
    local crc = byte
    for _ = 1, 8 do
      local low = bits.band(crc, 1)
      crc = bits.rshift(crc, 1)
      if low == 1 then crc = bits.bxor(crc, polynomial) end
    end
    result[byte] = crc
  end
  return result
end

local checks = {
  header = {start = 0x77, steps = steps(0x8C)},  -- CRC-8 of Dallas/Maxim
  frame = {start = 0x3692, steps = steps(0x8408)},  -- CRC-16 of CCITT
}

local function check(kind, raw)
  local crc = kind.start
  for i = 1, #raw do
    crc = bits.bxor(bits.rshift(crc, 8), kind.steps[bits.band(bits.bxor(crc, raw:byte(i)), 0xFF)])
  end
  return crc
end

local function report_for(length, set)
  for _, report in ipairs(tables.reports) do
    if report.length == length and (report.set == nil or report.set == set) then return report end
  end
end

local function command_for(range)
  local size = range:len() - tables.duml.header - 2
  for _, command in ipairs(tables.commands) do
    if command.receiver == range(5, 1):uint() and command.set == range(9, 1):uint() and
        command.id == range(10, 1):uint() and command.size == size and
        (command.byte == nil or
         range(tables.duml.header + command.at, 1):uint() == command.byte) then
      return command
    end
  end
end

local function add_header(tree, range)
  tree:add_le(camera.length, range(1, 2))
  tree:add_le(camera.version, range(1, 2))
  tree:add(camera.header_crc, range(3, 1))
  if check(checks.header, range(0, 3):raw()) ~= range(3, 1):uint() then
    tree:add(camera.header_crc_bad, range(3, 1), true):set_generated()
    tree:add_proto_expert_info(experts.header_crc)
  end
  tree:add(camera.sender, range(4, 1))
  tree:add(camera.receiver, range(5, 1))
  tree:add_le(camera.sequence, range(tables.duml.sequence, 2))
  tree:add(camera.type, range(8, 1))
  tree:add(camera.set, range(tables.duml.set, 1))
  tree:add(camera.id, range(10, 1))
end

-- Adds the check, and says whether it is right.
local function add_check(tree, range)
  local checked = range:len() - 2
  local found = range(checked, 2):le_uint()
  tree:add_le(camera.crc, range(checked, 2))
  local expected = check(checks.frame, range(0, checked):raw())
  if found == expected then return true end
  tree:add(camera.crc_bad, range(checked, 2), true):set_generated()
  tree:add_proto_expert_info(experts.crc,
    string.format("Check 0x%04x, expected 0x%04x", found, expected))
  return false
end

local function add_payload(tree, range, from_camera)
  local size = range:len() - tables.duml.header - 2
  if size > 0 then tree:add(camera.payload, range(tables.duml.header, size)) end
  if from_camera then
    local report = report_for(range:len(), range(tables.duml.set, 1):uint())
    if report == nil then return "unknown report" end
    tree:add(camera.report, range, report.name):set_generated()
    add_items(tree, range, report.items)
    return report.name
  end
  local command = command_for(range)
  if command == nil then return "unknown command" end
  tree:add(camera.command, range, command.name):set_generated()
  return command.name
end

-- Adds a whole frame, and gives its name.
local function add_frame(root, range, from_camera)
  local tree = root:add(range, "Frame")
  if range:len() < tables.duml.header + 2 then
    tree:append_text(", too short")
    return "short frame"
  end
  add_header(tree, range)
  local name = "damaged frame"
  if add_check(tree, range) then name = add_payload(tree, range, from_camera) end
  tree:append_text(": " .. name)
  return name, tree
end

local function dissect_camera(tvb, pinfo, root, from_camera)
  local tree = root:add(proto, tvb())
  local names = {}
  local size = tvb:len()
  local at, gap = 0, 0
  local function skip_to(place)
    if place > gap then tree:add(camera.skipped, tvb(gap, place - gap)) end
  end
  while at < size do
    -- As the service reads it: the length is one byte, and 0 says nothing.
    local length = tvb(at, 1):uint() == tables.duml.start and at + 1 < size and
                   tvb(at + 1, 1):uint() or 0
    if length == 0 then
      at = at + 1
    elseif at + length > size then
      skip_to(at)
      tree:add(camera.skipped, tvb(at)):add_proto_expert_info(experts.cut)
      names[#names + 1] = "cut frame"
      at, gap = size, size
    else
      skip_to(at)
      local name, frame = add_frame(tree, tvb(at, length), from_camera)
      names[#names + 1] = name
      at = at + length
      gap = at
      if from_camera and frame and at == size then
        frame:add_proto_expert_info(experts.last)
      end
    end
  end
  skip_to(size)
  local info = #names > 0 and table.concat(names, ", ") or string.format("%d bytes", size)
  tree:append_text(", " .. info)
  pinfo.cols.protocol = "Nimbus"
  pinfo.cols.info = (from_camera and "from camera: " or "to camera: ") .. info
  return size
end

-- --- All of it -----------------------------------------------------------------------------------

local function dissect_video(tvb, pinfo, root)
  local tree = root:add(proto, tvb())
  tree:add(viewer.video, tvb())
  local info = string.format("video, %d bytes", tvb:len())
  tree:append_text(", " .. info)
  pinfo.cols.protocol = "Nimbus"
  pinfo.cols.info = "from bridge: " .. info
  return tvb:len()
end

function proto.dissector(tvb, pinfo, root)
  local ports = tables.ports
  if tvb:len() == 0 then return 0 end
  if pinfo.src_port == ports.viewers then return dissect_viewer(tvb, pinfo, root, true) end
  if pinfo.dst_port == ports.viewers then return dissect_viewer(tvb, pinfo, root, false) end
  if pinfo.dst_port == ports.data then return dissect_camera(tvb, pinfo, root, true) end
  if pinfo.src_port == ports.data then return dissect_camera(tvb, pinfo, root, false) end
  return dissect_video(tvb, pinfo, root)
end

for _, port in pairs(tables.ports) do DissectorTable.get("udp.port"):add(port, proto) end
