#include "tests/Vectors.h"

#include <fstream>

namespace quorva::test {

nlohmann::json vectors(const std::string& name) {
  std::ifstream file(QUORVA_TEST_VECTORS "/" + name);
  return nlohmann::json::parse(file);
}

std::string bytes(const std::string& hex) {
  std::string text;
  for (std::size_t i = 0; i < hex.size(); i += 2)
    text += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return text;
}

}  // namespace quorva::test
