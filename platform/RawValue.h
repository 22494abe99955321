// Enumerations that travel as integers.

#pragma once

#include <algorithm>
#include <optional>
#include <type_traits>

namespace quorva::platform {

/// All cases of the enumeration `E`, in their order; each enumeration that travels specializes it
/// with an array.
template <class E>
inline constexpr auto allCases = nullptr;

/// An enumeration whose cases are known.
template <class E>
concept RawRepresentable = std::is_enum_v<E> && requires {
  allCases<E>.size();
};

/// The integer that stands for `value`.
template <RawRepresentable E>
[[nodiscard]] constexpr std::underlying_type_t<E> rawValue(E value) noexcept {
  return static_cast<std::underlying_type_t<E>>(value);
}

/// The case that `raw` stands for, or none.
template <RawRepresentable E>
[[nodiscard]] constexpr std::optional<E> fromRawValue(std::underlying_type_t<E> raw) noexcept {
  const auto found = std::ranges::find(allCases<E>, raw, rawValue<E>);
  return found == allCases<E>.end() ? std::nullopt : std::optional<E>(*found);
}

}  // namespace quorva::platform
