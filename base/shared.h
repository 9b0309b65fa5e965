// Values that threads and sibling processes share without locks.
//
// The display region and the configuration record are read and written at any moment by several
// threads, and the region by several processes. Nobody waits, and fields of two cycles may be read
// side by side, for the length of a cycle. A plain field used that way is undefined behaviour, so
// every shared field is one of the types below. They keep the size and the layout of what they
// hold; a struct of them is still a byte-exact format.
#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace nimbus {

/// Whether a T is loaded and stored by one lock-free access on this processor. 8-byte values are
/// not on ARMv6, which Raspberry Pi OS targets on its 32-bit images.
template <typename T>
inline constexpr bool kOneAccess = std::atomic_ref<T>::is_always_lock_free;

/// A value that other threads or processes may read or write at any moment. Any thread.
///
/// Plain use (`field = 3`, `int n = field`) is one relaxed atomic access: it never tears and
/// orders nothing else. Where a field publishes other data, use store_release() and
/// load_acquire(). Zero-initialised storage is a valid Shared<T> holding zero.
template <typename T, bool one_access = kOneAccess<T>>
class Shared {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  // cppcheck-suppress uninitMemberVar ; as with a plain field
  Shared() noexcept = default;
  constexpr Shared(T value) noexcept : value_(value) {}
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared& other) noexcept { return *this = static_cast<T>(other); }

  operator T() const noexcept { return ref().load(std::memory_order_relaxed); }
  Shared& operator=(T value) noexcept {
    ref().store(value, std::memory_order_relaxed);
    return *this;
  }

  /// Loads the value; what its writer wrote before store_release() is seen afterwards.
  [[nodiscard]] T load_acquire() const noexcept { return ref().load(std::memory_order_acquire); }
  /// Stores the value after everything that this thread wrote before.
  void store_release(T value) noexcept { ref().store(value, std::memory_order_release); }

  /// Stores `desired` and returns what was there. Orders like load_acquire and store_release.
  T exchange(T desired) noexcept { return ref().exchange(desired, std::memory_order_acq_rel); }

  /// Stores `desired` if the value is still `expected`; false if somebody else was faster.
  [[nodiscard]] bool replace(T expected, T desired) noexcept {
    return ref().compare_exchange_strong(expected, desired, std::memory_order_acq_rel);
  }

 private:
  // atomic_ref<const T> does not exist before C++26; the cast never leads to a write.
  [[nodiscard]] std::atomic_ref<T> ref() const noexcept {
    return std::atomic_ref<T>(const_cast<T&>(value_));
  }

  alignas(std::atomic_ref<T>::required_alignment) T value_;
};

/// The same for 8-byte values on processors that cannot access them whole: two aligned words, each
/// accessed whole. A reader may see one word of the old value beside one of the new, which the
/// lock-free design accepts for doubles as it does for neighbouring fields.
template <typename T>
class Shared<T, false> {
  static_assert(std::is_trivially_copyable_v<T> && sizeof(T) == 8);
  using Words = std::array<std::uint32_t, 2>;

 public:
  Shared() noexcept = default;
  constexpr Shared(T value) noexcept : words_(std::bit_cast<Words>(value)) {}
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared& other) noexcept { return *this = static_cast<T>(other); }

  operator T() const noexcept { return std::bit_cast<T>(Words{word(0), word(1)}); }
  Shared& operator=(T value) noexcept {
    const auto words = std::bit_cast<Words>(value);
    std::atomic_ref(words_[0]).store(words[0], std::memory_order_relaxed);
    std::atomic_ref(words_[1]).store(words[1], std::memory_order_relaxed);
    return *this;
  }

 private:
  [[nodiscard]] std::uint32_t word(std::size_t index) const noexcept {
    return std::atomic_ref(const_cast<std::uint32_t&>(words_[index]))
        .load(std::memory_order_relaxed);
  }

  alignas(8) Words words_;
};

static_assert(kOneAccess<std::uint8_t> && kOneAccess<std::uint16_t> && kOneAccess<std::uint32_t>);
static_assert(kOneAccess<float>);
static_assert(sizeof(Shared<std::uint8_t>) == 1 && alignof(Shared<std::uint8_t>) == 1);
static_assert(sizeof(Shared<double>) == 8 && alignof(Shared<double>) == 8);
static_assert(sizeof(Shared<double, false>) == 8 && alignof(Shared<double, false>) == 8);
static_assert(std::is_trivially_destructible_v<Shared<double>>);

}  // namespace nimbus
