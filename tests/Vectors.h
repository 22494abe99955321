// Inputs and their results, kept as data.

#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace quorva::test {

[[nodiscard]] nlohmann::json vectors(const std::string& name);

/// The bytes that `hex` spells.
[[nodiscard]] std::string bytes(const std::string& hex);

}  // namespace quorva::test
