-- What can be shown of a message: every field under its name in display filters, and what can be wrong.

local names = {
  channel = {[0] = "greetings", [3] = "registers", [4] = "decisions", [5] = "payloads", [6] = "cluster messages", [7] = "hellos and probes"},
  register = {[0] = "READ_REQ", "READ_ACK", "READ_NACK", "WRITE_REQ", "WRITE_ACK", "WRITE_NACK"},
  paxos = {[0] = "DECIDE", "FORWARD"},
  data = {[0] = "OFFER", "REQ", "DATA", "COMPLETE", "MISSING"},
  item = {"line", "no-op"},
  record = {[0] = "data type 0", "data type 1", "data type 2", "data type 3", "marks of a state"},
}

local fields = {
  -- Frame and envelope
  magic = ProtoField.string("vx.magic", "Magic"),
  bulk = ProtoField.bool("vx.bulk", "Bulk"),
  channel = ProtoField.uint8("vx.channel", "Channel", base.DEC, names.channel),
  cluster = ProtoField.uint64("vx.cluster", "Cluster id", base.HEX),
  build = ProtoField.uint32("vx.build", "Build number"),
  address = ProtoField.ipv4("vx.address", "Sender's name"),
  node = ProtoField.uint8("vx.node", "Sender"),
  length = ProtoField.uint32("vx.length", "Length"),
  fault = ProtoField.string("vx.fault", "Fault"),
  rest = ProtoField.bytes("vx.rest", "Behind the message"),

  -- A sealed datagram
  sender = ProtoField.uint8("vx.seal.sender", "Sender"),
  to_group = ProtoField.bool("vx.seal.to_group", "To the group"),
  key = ProtoField.uint8("vx.seal.key", "Key"),
  session = ProtoField.bytes("vx.seal.session", "Session of the sender"),
  counter = ProtoField.bytes("vx.seal.counter", "Counter"),
  sealed = ProtoField.bytes("vx.seal.text", "Sealed"),
  tag = ProtoField.bytes("vx.seal.tag", "Tag, not checked"),
  heard_session = ProtoField.bytes("vx.seal.heard", "Has heard session"),

  -- An identifier, in messages of channels 3 to 5
  id = ProtoField.string("vx.id", "Identifier"),
  submitter = ProtoField.uint8("vx.id.submitter", "Submitter"),
  number = ProtoField.uint32("vx.id.number", "Number"),

  -- Channel 3
  register_type = ProtoField.uint32("vx.register.type", "Type", base.DEC, names.register),
  register = ProtoField.uint32("vx.register.id", "Register"),
  round = ProtoField.uint32("vx.register.round", "Round"),
  write_round = ProtoField.uint32("vx.register.write_round", "Write round"),
  value_length = ProtoField.uint32("vx.register.value_length", "Length of the value"),
  value = ProtoField.bytes("vx.register.value", "Value"),

  -- Channel 4
  paxos_type = ProtoField.uint32("vx.paxos.type", "Type", base.DEC, names.paxos),
  decision = ProtoField.uint32("vx.paxos.number", "Decision"),
  count = ProtoField.uint32("vx.paxos.count", "Entries of the log"),
  entry = ProtoField.string("vx.paxos.entry", "Entry"),
  unused = ProtoField.bytes("vx.paxos.unused", "Unused"),

  -- Channel 5
  data_type = ProtoField.uint16("vx.data.type", "Type", base.DEC, names.data),
  from = ProtoField.uint8("vx.data.from", "From"),
  wanted_offset = ProtoField.uint32("vx.data.wanted_offset", "First byte wanted"),
  wanted_length = ProtoField.uint32("vx.data.wanted_length", "Bytes wanted", base.DEC, {[0xffffffff] = "to the end"}),
  offset = ProtoField.uint32("vx.data.offset", "Offset"),
  total = ProtoField.uint32("vx.data.total", "Size of the payload"),
  piece_length = ProtoField.uint32("vx.data.length", "Length of the piece"),
  piece = ProtoField.bytes("vx.data.piece", "Encrypted piece"),
  plain = ProtoField.bytes("vx.data.plain", "Decrypted piece"),

  -- What a payload contains, and what kesh puts into its payloads
  full_state = ProtoField.uint32("vx.payload.state", "Full state"),
  records_length = ProtoField.uint32("vx.payload.length", "Length of the records"),
  record_type = ProtoField.uint32("vx.record.type", "Record", base.DEC, names.record),
  record_length = ProtoField.uint32("vx.record.length", "Length"),
  record = ProtoField.bytes("vx.record.bytes", "Bytes"),
  marks_number = ProtoField.uint32("vx.marks.number", "Begins with decision"),
  marks_id = ProtoField.string("vx.marks.id", "Decided before"),
  items_magic = ProtoField.string("vx.items.magic", "Magic"),
  origin = ProtoField.uint8("vx.items.origin", "Origin"),
  life = ProtoField.uint64("vx.items.life", "Life of its daemon", base.HEX),
  items_count = ProtoField.uint32("vx.items.count", "Items"),
  item = ProtoField.uint8("vx.item.kind", "Item", base.DEC, names.item),
  sequence = ProtoField.uint64("vx.item.sequence", "Sequence"),
  attempt = ProtoField.uint32("vx.item.attempt", "Attempt"),
  item_length = ProtoField.uint32("vx.item.length", "Length"),
  text = ProtoField.string("vx.item.text", "Text"),

  -- Channel 6, and what kesh says there
  message_type = ProtoField.uint32("vx.message.type", "Type"),
  message_length = ProtoField.uint32("vx.message.length", "Length"),
  message = ProtoField.bytes("vx.message.bytes", "Bytes"),
  say_magic = ProtoField.string("vx.say.magic", "Magic"),
  say_node = ProtoField.uint8("vx.say.node", "Node"),
  say_text = ProtoField.string("vx.say.text", "Text"),

  -- Channel 7: what one filters for; the JSON dissector shows all
  hello_node = ProtoField.uint32("vx.hello.node", "Node"),
  hello_role = ProtoField.string("vx.hello.role", "Role"),
  hello_standing = ProtoField.string("vx.hello.standing", "Standing"),
  hello_decision = ProtoField.uint32("vx.hello.decision", "Last decision"),
  hello_top = ProtoField.uint32("vx.hello.top", "Top"),
  hello_n = ProtoField.uint64("vx.hello.n", "Payloads applied"),
  probe_magic = ProtoField.string("vx.probe.magic", "Magic"),
  probe_version = ProtoField.uint8("vx.probe.version", "Version"),
  probe_kind = ProtoField.uint8("vx.probe.kind", "Kind", base.DEC, {[1] = "ask", [2] = "answer"}),
  probe_asker = ProtoField.uint8("vx.probe.asker", "Node that asks"),
  probe_session = ProtoField.uint32("vx.probe.session", "Session", base.HEX),
  probe_number = ProtoField.uint32("vx.probe.number", "Number"),
  probe_size = ProtoField.uint32("vx.probe.size", "Size of the ask"),
  hello_reason = ProtoField.string("vx.hello.reason", "Reason"),
}

local experts = {
  malformed = ProtoExpert.new("vx.malformed", "A receiver drops this", expert.group.MALFORMED, expert.severity.ERROR),
  trailing = ProtoExpert.new("vx.trailing", "Longer than its fields", expert.group.PROTOCOL, expert.severity.WARN),
  snapped = ProtoExpert.new("vx.snapped", "Not captured whole", expert.group.UNDECODED, expert.severity.NOTE),
}

return {names = names, fields = fields, experts = experts}
