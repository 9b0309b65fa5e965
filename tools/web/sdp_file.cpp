#include "tools/web/sdp_file.h"

#include <cstdio>
#include <exception>
#include <system_error>
#include <utility>

#include "base/whole_file.h"
#include "tools/common/failure.h"

namespace nimbus::web {

SdpFile::~SdpFile() {
  if (thread_.joinable()) thread_.join();
}

void SdpFile::write(const std::string& text) const {
  if (path_.empty() || replace_file(path_.c_str(), text) == Replaced::whole) return;
  throw tools::Failure("cannot write '" + path_ + "'; expected a file to write for --sdp");
}

void SdpFile::write_beside(std::string text) {
  {
    const std::lock_guard turn(turn_);
    waiting_ = std::move(text);
    if (std::exchange(writing_, true)) return;
  }
  if (thread_.joinable()) thread_.join();  // it has nothing more to do
  try {
    thread_ = std::thread([this] { write_what_waits(); });
  } catch (const std::system_error&) {
    write_what_waits();  // the system has no thread left: everybody waits, then
  }
}

std::optional<std::string> SdpFile::next() {
  const std::lock_guard turn(turn_);
  writing_ = waiting_.has_value();
  return std::exchange(waiting_, std::nullopt);
}

void SdpFile::write_what_waits() noexcept {
  while (const auto text = next()) {
    try {
      write(*text);
    } catch (const std::exception& failure) {
      std::fprintf(stderr, "nimbus-web: %s\n", failure.what());
    }
  }
}

}  // namespace nimbus::web
