#include "tools/ctl/mdns.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>

namespace nimbus::ctl {
namespace {

using Bytes = std::span<const std::uint8_t>;
using Labels = std::vector<std::string>;

constexpr std::array<std::string_view, 3> kService{"_nimbus", "_udp", "local"};

// RFC 1035, 3.2.2, 3.2.4 and 4.1.1; RFC 2782 for SRV.
constexpr std::uint16_t kAddress = 1;
constexpr std::uint16_t kPointer = 12;
constexpr std::uint16_t kServer = 33;
constexpr std::uint16_t kInternet = 1;
constexpr std::uint16_t kCacheFlush = 0x8000;  // beside the class, of no meaning for one question
constexpr std::uint16_t kResponse = 0x8000;
constexpr std::uint16_t kOperationAndError = 0x780F;
constexpr std::size_t kLongestName = 255;

/// Reads big-endian numbers and names. Beyond the end everything is empty, and ok() false.
class Reader {
 public:
  explicit Reader(Bytes message) : message_(message) {}

  std::uint16_t u16() { return static_cast<std::uint16_t>(number(2)); }
  std::uint32_t u32() { return number(4); }
  void skip(std::size_t count) {
    ok_ = ok_ && count <= message_.size() - at_;
    if (ok_) at_ += count;
  }
  Labels name();

  [[nodiscard]] std::size_t at() const { return at_; }
  [[nodiscard]] bool ok() const { return ok_; }

 private:
  std::uint32_t number(std::size_t size) {
    const std::size_t from = at_;
    skip(size);
    std::uint32_t value = 0;
    for (std::size_t i = from; i < at_; ++i) value = value << 8U | message_[i];
    return value;
  }

  Bytes message_;
  std::size_t at_ = 0;
  bool ok_ = true;
};

/// A part of a name: the label that begins at `at`, or where the name goes on, or neither: its end.
struct Part {
  std::size_t next;  ///< behind the label, or where the name goes on
  std::string label = {};
  bool jumps = false;
};

std::optional<Part> part_at(Bytes message, std::size_t at) {
  constexpr unsigned kJump = 0xC0;
  if (at >= message.size()) return {};
  const std::size_t head = message[at];
  if (head >= kJump) {
    if (at + 1 >= message.size()) return {};
    return Part{(head - kJump) << 8U | message[at + 1], {}, true};
  }
  if (head > 63 || head > message.size() - at - 1) return {};
  const auto label = message.subspan(at + 1, head);
  return Part{at + 1 + head, {label.begin(), label.end()}};
}

/// Names go on elsewhere to be short: only ever farther to the front, so that each has an end.
Labels Reader::name() {
  Labels labels;
  std::size_t at = at_;
  std::size_t front = at_;
  std::size_t length = 1;
  bool jumped = false;
  while (ok_) {
    const auto part = part_at(message_, at);
    ok_ = part && (!part->jumps || part->next < front);
    if (!ok_) break;
    if (!jumped) at_ = part->jumps ? at + 2 : part->next;
    jumped = jumped || part->jumps;
    at = part->next;
    if (part->jumps) {
      front = at;
      continue;
    }
    if (part->label.empty()) return labels;
    length += 1 + part->label.size();
    ok_ = length <= kLongestName;
    labels.push_back(part->label);
  }
  return {};
}

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool same(std::string_view one, std::string_view other) {
  return std::ranges::equal(one, other, {}, lower, lower);
}

bool same(std::span<const std::string> one, std::span<const std::string> other) {
  return std::ranges::equal(one, other, [](const auto& a, const auto& b) { return same(a, b); });
}

bool is_service(std::span<const std::string> name) {
  return std::ranges::equal(name, kService,
                            [](const auto& a, const auto& b) { return same(a, b); });
}

struct Server {
  Labels name;
  Labels host;
  std::uint16_t port;
};

struct Address {
  Labels host;
  std::uint32_t address;
};

/// What matters of an answer's records.
struct Records {
  std::vector<Labels> instances;
  std::vector<Server> servers;
  std::vector<Address> addresses;
};

/// The content of a record of that kind, which ends at `end`; others are passed over.
bool take_content(Reader reader, std::size_t end, const Labels& name, std::uint16_t kind,
                  Records& records) {
  if (kind == kPointer) {
    Labels instance = reader.name();
    if (is_service(name)) records.instances.push_back(std::move(instance));
  } else if (kind == kServer) {
    reader.skip(4);  // priority and weight: there is nothing to choose from
    const std::uint16_t port = reader.u16();
    records.servers.push_back({name, reader.name(), port});
  } else if (kind == kAddress) {
    records.addresses.push_back({name, reader.u32()});
  } else {
    return true;
  }
  return reader.ok() && reader.at() == end;
}

bool take_record(Reader& reader, Records& records) {
  const Labels name = reader.name();
  const std::uint16_t kind = reader.u16();
  const auto category = static_cast<std::uint16_t>(reader.u16() & ~kCacheFlush);
  const std::uint32_t lifetime = reader.u32();
  const std::uint16_t size = reader.u16();
  const Reader content = reader;
  reader.skip(size);
  if (!reader.ok()) return false;
  if (category != kInternet || lifetime == 0) return true;  // 0: it says good-bye
  return take_content(content, reader.at(), name, kind, records);
}

std::optional<Records> records_of(Bytes message, std::uint16_t id) {
  Reader reader(message);
  const std::uint16_t its_id = reader.u16();
  const std::uint16_t flags = reader.u16();
  const std::uint16_t questions = reader.u16();
  unsigned rest = reader.u16();
  rest += reader.u16();
  rest += reader.u16();
  if (its_id != id || (flags & (kResponse | kOperationAndError)) != kResponse) return {};
  for (unsigned i = 0; i < questions && reader.ok(); ++i) {
    reader.name();
    reader.skip(4);
  }
  Records records;
  for (unsigned i = 0; i < rest; ++i) {
    if (!take_record(reader, records)) return {};
  }
  if (!reader.ok()) return {};
  return records;
}

/// The sender's own, if it is among the machine's addresses: by that one it is heard.
std::uint32_t address_of(const Records& records, const Labels& host, std::uint32_t sender) {
  std::optional<std::uint32_t> found;
  for (const Address& row : records.addresses) {
    if (!same(row.host, host)) continue;
    if (row.address == sender) return sender;
    if (!found) found = row.address;
  }
  return found.value_or(sender);
}

std::string with_dots(const Labels& name) {
  std::string text;
  for (const std::string& label : name) text += (text.empty() ? "" : ".") + label;
  return text;
}

void append_16(std::vector<std::uint8_t>& to, std::uint16_t value) {
  to.push_back(static_cast<std::uint8_t>(value >> 8U));
  to.push_back(static_cast<std::uint8_t>(value & 0xFFU));
}

}  // namespace

std::vector<std::uint8_t> board_query(std::uint16_t id) {
  std::vector<std::uint8_t> query;
  // No flags; one question, no records.
  for (const std::uint16_t word : std::array<std::uint16_t, 6>{id, 0, 1, 0, 0, 0}) {
    append_16(query, word);
  }
  for (const std::string_view label : kService) {
    query.push_back(static_cast<std::uint8_t>(label.size()));
    query.insert(query.end(), label.begin(), label.end());
  }
  query.push_back(0);
  append_16(query, kPointer);
  append_16(query, kInternet);
  return query;
}

std::vector<Board> boards_of(Bytes answer, std::uint16_t id, std::uint32_t sender) {
  std::vector<Board> boards;
  const auto records = records_of(answer, id);
  if (!records) return boards;
  for (const Labels& instance : records->instances) {
    if (instance.empty() || !is_service(std::span(instance).subspan(1))) continue;
    const auto server = std::ranges::find_if(
        records->servers, [&instance](const Server& row) { return same(row.name, instance); });
    if (server == records->servers.end() || server->port == 0) continue;
    boards.push_back({instance[0], with_dots(server->host),
                      address_of(*records, server->host, sender), server->port});
  }
  return boards;
}

}  // namespace nimbus::ctl
