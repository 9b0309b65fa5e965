// The file that tells RTP's receivers of the stream, written beside the event loop: a card may take
// seconds for it, and the picture of everybody shall not wait. A thread lives only as long as there
// is something to write.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace nimbus::web {

/// All of its functions belong to the event loop's thread.
class SdpFile {
 public:
  /// Writes nothing when the path is empty.
  explicit SdpFile(std::string path) : path_(std::move(path)) {}
  SdpFile(const SdpFile&) = delete;
  SdpFile& operator=(const SdpFile&) = delete;
  /// Waits for what is being written.
  ~SdpFile();

  /// Writes the text, and waits for it. Throws Failure when it cannot be written.
  void write(const std::string& text) const;

  /// Writes the text beside; of several that wait, the last. The console is told when it cannot be
  /// written.
  void write_beside(std::string text);

 private:
  [[nodiscard]] std::optional<std::string> next();
  void write_what_waits() noexcept;

  const std::string path_;
  std::thread thread_;
  std::mutex turn_;
  std::optional<std::string> waiting_;  // by turns
  bool writing_ = false;                // by turns: a thread will look again
};

}  // namespace nimbus::web
