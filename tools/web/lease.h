// Who drives. One connection at a time has the lease; the others watch and can ask for it.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>

#include "tools/web/bytes.h"

namespace nimbus::web {

class Lease {
 public:
  /// Whoever has been silent for so long can lose the lease to the next that wants it.
  static constexpr std::chrono::seconds kSilence{3};

  /// Who was denied the lease is not heard again for so long.
  static constexpr std::chrono::seconds kDenied{5};

  /// Takes the lease if it is free, one's own, or its holder silent. Otherwise the answer is false,
  /// and the holder is asked, unless he has just denied it, or is asked by somebody else: what he
  /// answers is what he has read.
  bool take(const std::string& who, Time now) {
    if (!holder_ || *holder_ == who || silent(now)) {
      hold(who, now);
      return true;
    }
    const auto denied = denied_.find(who);
    const bool heard = denied == denied_.end() || now - denied->second >= kDenied;
    if (heard && !asked_by_) asked_by_ = who;
    return false;
  }

  void heartbeat(const std::string& who, Time now) {
    if (holder_ == who) heard_ = now;
  }

  /// The holder gives it to another, or keeps it. False for anybody else.
  bool grant(const std::string& who, const std::string& to, Time now) {
    if (holder_ != who) return false;
    hold(to, now);
    return true;
  }
  bool deny(const std::string& who, Time now) {
    if (holder_ != who) return false;
    if (asked_by_) denied_[*asked_by_] = now;
    asked_by_.reset();
    return true;
  }

  /// Gives it back; whoever has asked for it gets it.
  void release(const std::string& who, Time now) {
    if (asked_by_ == who) asked_by_.reset();
    if (holder_ != who) return;
    holder_.reset();
    if (asked_by_) hold(*asked_by_, now);
  }

  /// Whether its holder can lose it to the next that wants it.
  [[nodiscard]] bool silent(Time now) const { return holder_ && now - heard_ >= kSilence; }

  [[nodiscard]] bool held_by(const std::string& who) const { return holder_ == who; }
  [[nodiscard]] const std::optional<std::string>& holder() const { return holder_; }
  [[nodiscard]] const std::optional<std::string>& asked_by() const { return asked_by_; }

 private:
  void hold(std::string who, Time now) {
    holder_ = std::move(who);
    heard_ = now;
    asked_by_.reset();
    denied_.clear();
  }

  std::optional<std::string> holder_;
  std::optional<std::string> asked_by_;
  std::map<std::string, Time> denied_;  // by this holder
  Time heard_{};
};

}  // namespace nimbus::web
