#include "tools/sim/recording.h"

#include <pcap/pcap.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "tools/common/failure.h"

namespace nimbus::sim {
namespace {

using std::chrono::nanoseconds;
using std::chrono::seconds;
using tools::Failure;

struct KnownLayer {
  int type;  ///< libpcap's number
  LinkLayer layer;
};

constexpr std::array<KnownLayer, 5> kLayers{{
    {DLT_EN10MB, LinkLayer::ethernet},
    {DLT_LINUX_SLL, LinkLayer::cooked_1},
    {DLT_LINUX_SLL2, LinkLayer::cooked_2},
    {DLT_RAW, LinkLayer::raw_ip},
    {DLT_IPV4, LinkLayer::raw_ip},
}};

std::FILE* open_file(const std::string& path) {
  std::FILE* const file = std::fopen(path.c_str(), "rbe");
  if (file == nullptr) throw Failure("cannot read " + path + ": " + std::strerror(errno));
  return file;
}

double size_of(std::FILE* file) {
  struct stat status {};
  if (fstat(fileno(file), &status) != 0 || !S_ISREG(status.st_mode)) return 0;
  return static_cast<double>(status.st_size);
}

/// A packet's stamp; libpcap was asked for nanoseconds, and keeps them where microseconds are
/// meant.
nanoseconds stamp_of(const timeval& stamp) {
  constexpr std::int64_t kMost = UINT32_MAX;
  return seconds(std::clamp<std::int64_t>(stamp.tv_sec, 0, kMost)) +
         nanoseconds(std::clamp<std::int64_t>(stamp.tv_usec, 0, 999'999'999));
}

LinkLayer layer_of(pcap_t* file, const std::string& name) {
  const int type = pcap_datalink(file);
  const auto* const found = std::find_if(kLayers.begin(), kLayers.end(),
                                         [type](const auto& row) { return row.type == type; });
  if (found != kLayers.end()) return found->layer;
  const char* const known = pcap_datalink_val_to_name(type);
  throw Failure(name + ", before packet 1: packets of " +
                (known != nullptr ? known : std::to_string(type)) +
                "; expected Ethernet, Linux cooked or raw IP");
}

}  // namespace

nanoseconds RecordedClock::take(nanoseconds stamp) {
  constexpr seconds kOutOfOrder{1};
  // A damaged stamp may say anything; no sum of these overflows.
  constexpr nanoseconds kMost = seconds(UINT32_MAX);
  stamp = std::clamp(stamp, nanoseconds(0), kMost);
  if (!zero_) zero_ = stamp;
  if (stamp - *zero_ < latest_ - kOutOfOrder) zero_ = stamp - latest_;
  latest_ = std::clamp(stamp - *zero_, latest_, kMost);
  return latest_;
}

void Recording::Close::operator()(pcap* file) const noexcept { pcap_close(file); }

Recording::Recording(const std::string& path) : Recording(open_file(path), path) {}

Recording::Recording(std::FILE* file, std::string name)
    : name_(std::move(name)), size_(size_of(file)) {
  std::array<char, PCAP_ERRBUF_SIZE> error{};
  file_.reset(
      pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_NANO, error.data()));
  if (file_ == nullptr) {
    std::fclose(file);
    throw Failure(name_ + ", before packet 1: " + error.data() +
                  "; expected a recording as pcap or pcapng");
  }
  layer_ = layer_of(file_.get(), name_);
}

std::optional<RecordedDatagram> Recording::next() {
  for (;;) {
    pcap_pkthdr* header = nullptr;
    const u_char* bytes = nullptr;
    const int result = pcap_next_ex(file_.get(), &header, &bytes);
    if (result == PCAP_ERROR_BREAK) return {};
    if (result != 1) {
      throw Failure(name_ + ", packet " + std::to_string(packets_ + 1) + ": " +
                    pcap_geterr(file_.get()) +
                    "; expected a recording that is whole, of one kind of packets");
    }
    ++packets_;
    if (header->caplen < header->len) ++cut_;
    const auto time = clock_.take(stamp_of(header->ts));
    const auto packet = ip_packet(layer_, Bytes(bytes, header->caplen));
    if (!packet) continue;
    if (auto datagram = reader_.take(*packet)) return RecordedDatagram{time, std::move(*datagram)};
  }
}

double Recording::part() const {
  if (size_ <= 0) return 0;
  return static_cast<double>(ftello(pcap_file(file_.get()))) / size_;
}

}  // namespace nimbus::sim
